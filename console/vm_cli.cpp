#include "console/vm_cli.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

#include "console/vm_json.h"
#include "console/vm_openmetrics.h"
#include "console/vm_requests.h"

namespace vornmon {
namespace {

struct OptionSpec {
    const char* name;
    bool takes_value;
};

struct Command {
    const char* name;
    const char* synopsis;
    const char* help;
    std::vector<OptionSpec> options;
    std::size_t min_operands, max_operands;
    int (*run)(const Context&, const Parsed&);
};

const char* kGlobalHelp =
    "usage: vornmon [--host HOST] [--port PORT] [--timeout SECONDS] COMMAND [ARGS]\n"
    "\n"
    "Console of the vornrta performance agent (default agent 127.0.0.1:2101).\n"
    "\n"
    "commands:\n"
    "  top               live view of the host; --once or --count N print plain text\n"
    "  raw               the data packets as received\n"
    "  json              one JSON object per data packet\n"
    "  desc              the metrics the agent can alert on\n"
    "  rules FILE        send alert rules (- reads standard input)\n"
    "  alert-interval N  seconds between the agent's alert checks\n"
    "  alerts            alerts the agent raised for this console\n"
    "  event TEXT...     hand an event to the agent\n"
    "  events            the events waiting on the agent\n"
    "  event-def FILE    store an event definition file on the agent\n"
    "  interval N        scan interval the agent prints in its packets\n"
    "  exit              make the agent end its data connection\n"
    "  openmetrics       serve the latest sample over HTTP for Prometheus\n"
    "\n"
    "global options:\n"
    "  --host HOST       agent host (default 127.0.0.1)\n"
    "  --port PORT       agent port (default 2101)\n"
    "  --timeout SECONDS limit for connecting and for every reply (default 10)\n"
    "\n"
    "'vornmon COMMAND --help' describes a command. Exit status: 0 done, 1 the agent\n"
    "could not be reached or sent something malformed, 2 bad arguments.\n";

bool to_int(const std::string& text, long low, long high, long& out) {
    return parse_long(text, out) && out >= low && out <= high;
}

bool read_source(const Context& ctx, const std::string& name, std::string& text, std::string& err) {
    if (name == "-") {
        char buf[65536];
        std::size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, ctx.in)) > 0) text.append(buf, n);
        if (std::ferror(ctx.in)) {
            err = "cannot read standard input";
            return false;
        }
        return true;
    }
    std::ifstream f(name, std::ios::binary);
    if (!f) {
        err = "cannot read " + name + ": " + std::strerror(errno);
        return false;
    }
    std::ostringstream s;
    s << f.rdbuf();
    text = s.str();
    return true;
}

// Integer option with bounds; `fallback` when absent.
bool int_option(const Context& ctx, const Parsed& p, const std::string& name, long low, long high,
                long fallback, long& out, int& status) {
    auto it = p.options.find(name);
    if (it == p.options.end()) {
        out = fallback;
        return true;
    }
    if (!to_int(it->second, low, high, out)) {
        status = ctx.fail(name + " needs a whole number from " + std::to_string(low) + " to " +
                              std::to_string(high) + ", got '" + it->second + "'",
                          kExitUsage);
        return false;
    }
    return true;
}

bool sort_option(const std::string& text, SortKey& out) {
    static const std::pair<const char*, SortKey> keys[] = {{"cpu", SortKey::kCpu},
                                                           {"memory", SortKey::kMemory},
                                                           {"pid", SortKey::kPid},
                                                           {"name", SortKey::kName},
                                                           {"io", SortKey::kIo}};
    for (auto& [name, key] : keys)
        if (text == name) {
            out = key;
            return true;
        }
    return false;
}

// --- data connection commands ------------------------------------------------------------

enum class StreamKind { kRaw, kJson, kTopText };

struct StreamOptions {
    long interval = 2, count = 0, reconnect_s = 30, procs = 20, width = 100;
    SortKey sort = SortKey::kCpu;
};

int run_stream(const Context& ctx, StreamKind kind, const StreamOptions& o) {
    DataStream stream(ctx.agent, static_cast<int>(o.interval), ctx.timeout_ms);
    std::string err;
    if (!stream.open(err)) return ctx.fail(err);
    Session session;
    Reconnector reconnector(static_cast<int>(o.reconnect_s));
    reconnector.connected();
    long emitted = 0;
    long data_packets = 0;
    for (;;) {
        if (!stream.is_open()) {
            if (reconnector.given_up())
                return ctx.fail("the agent at " + ctx.agent.text() + " did not come back within " +
                                std::to_string(o.reconnect_s) + " s");
            poll(nullptr, 0, std::max(reconnector.ms_until_due(), 10));
            if (!reconnector.due()) continue;
            if (!stream.open(err)) {
                reconnector.failed_attempt();
                continue;
            }
            session.reset();
            reconnector.connected();
            std::fprintf(ctx.err, "vornmon %s: reconnected to %s\n", ctx.command.c_str(),
                         ctx.agent.text().c_str());
            continue;
        }
        Packet packet;
        switch (stream.wait(1000, packet, err)) {
            case DataStream::Status::kIdle:
                continue;
            case DataStream::Status::kLost:
                if (o.reconnect_s < 0) return ctx.fail(err);
                std::fprintf(ctx.err, "vornmon %s: %s; reconnecting\n", ctx.command.c_str(),
                             err.c_str());
                reconnector.lost();
                continue;
            case DataStream::Status::kMalformed:
                if (kind == StreamKind::kRaw && !packet.raw.empty()) {
                    // Show what arrived before saying what is wrong with it.
                    std::fwrite(packet.raw.data(), 1, packet.raw.size(), ctx.out);
                    std::fflush(ctx.out);
                }
                return ctx.fail("malformed packet from " + ctx.agent.text() + ": " + err);
            case DataStream::Status::kPacket:
                reconnector.progress();
                break;
        }
        if (kind == StreamKind::kRaw) {
            std::fwrite(packet.raw.data(), 1, packet.raw.size(), ctx.out);
            std::fflush(ctx.out);
        }
        Sample sample;
        if (!session.accept(packet, sample, err))
            return ctx.fail("malformed packet " + std::to_string(packet.number) + " from " +
                            ctx.agent.text() + ": " + err);
        if (kind == StreamKind::kJson) {
            std::fprintf(ctx.out, "%s\n", sample_json(sample, packet, session).c_str());
            std::fflush(ctx.out);
        } else if (kind == StreamKind::kTopText) {
            if (packet.data.empty()) continue;  // a header packet only defines the counters
            // The first data packet after connecting holds averages since boot; frames show
            // figures over one interval, like the live view.
            if (data_packets++ == 0) continue;
            HostView view = build_view(sample);
            std::string text =
                render_text(layout_view(view, ctx.agent.text(), o.sort, static_cast<int>(o.width),
                                        static_cast<int>(o.procs)),
                            static_cast<int>(o.width));
            std::fprintf(ctx.out, "%s%s", emitted > 0 ? "\n" : "", text.c_str());
            std::fflush(ctx.out);
        }
        ++emitted;
        if (o.count > 0 && emitted >= o.count) return kExitOk;
    }
}

bool stream_options(const Context& ctx, const Parsed& p, StreamOptions& o, int& status) {
    return int_option(ctx, p, "--interval", 1, 86400, 2, o.interval, status) &&
           int_option(ctx, p, "--count", 1, 1000000000, 0, o.count, status) &&
           int_option(ctx, p, "--reconnect", 0, 86400 * 365, o.reconnect_s, o.reconnect_s, status);
}

int cmd_raw(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    return run_stream(ctx, StreamKind::kRaw, o);
}

int cmd_json(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    return run_stream(ctx, StreamKind::kJson, o);
}

int cmd_top(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    o.reconnect_s = 0;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    if (!int_option(ctx, p, "--procs", -1, 1000000, 20, o.procs, status)) return status;
    long columns = 100;
    if (const char* env = std::getenv("COLUMNS")) to_int(env, 40, 1000, columns);
    if (!int_option(ctx, p, "--width", 40, 1000, columns, o.width, status)) return status;
    if (p.has("--sort") && !sort_option(p.options.at("--sort"), o.sort))
        return ctx.fail(
            "--sort takes cpu, memory, pid, name or io, got '" + p.options.at("--sort") + "'",
            kExitUsage);
    if (p.has("--once")) {
        if (p.has("--count")) return ctx.fail("--once and --count exclude each other", kExitUsage);
        o.count = 1;
    }
    if (o.count > 0) {
        if (!p.has("--reconnect")) o.reconnect_s = 30;
        return run_stream(ctx, StreamKind::kTopText, o);
    }
    if (ctx.out != stdout || !isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO))
        return ctx.fail("the live view needs a terminal; use --once or --count N for plain text",
                        kExitUsage);
    TopOptions t;
    t.interval = static_cast<int>(o.interval);
    t.sort = o.sort;
    t.reconnect_s = static_cast<int>(o.reconnect_s);
    return run_top_screen(ctx, t);
}

int cmd_openmetrics(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    o.reconnect_s = 0;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    Endpoint listen_on{"127.0.0.1", 9101};
    std::string err;
    if (p.has("--listen") && !parse_host_port(p.options.at("--listen"), listen_on, err))
        return ctx.fail("--listen: " + err, kExitUsage);
    ScrapeServer server;
    if (!server.listen(listen_on, err)) return ctx.fail(err);
    DataStream stream(ctx.agent, static_cast<int>(o.interval), ctx.timeout_ms);
    if (!stream.open(err)) return ctx.fail(err);
    std::fprintf(ctx.err, "vornmon openmetrics: serving http://%s:%d/metrics for the agent at %s\n",
                 listen_on.host.c_str(), server.port(), ctx.agent.text().c_str());
    std::fflush(ctx.err);
    Session session;
    Reconnector reconnector(static_cast<int>(o.reconnect_s));
    reconnector.connected();
    std::unique_ptr<Sample> latest;
    int data_in_connection = 0;
    auto render = [&] {
        return openmetrics_text(latest.get(), stream.is_open() && latest != nullptr);
    };
    for (;;) {
        std::vector<pollfd> fds;
        fds.push_back({server.fd(), POLLIN, 0});
        for (int fd : server.client_fds()) fds.push_back({fd, POLLIN, 0});
        if (stream.is_open()) fds.push_back({stream.fd(), POLLIN, 0});
        int wait_ms = stream.is_open() ? 1000 : std::clamp(reconnector.ms_until_due(), 10, 1000);
        if (poll(fds.data(), fds.size(), wait_ms) < 0 && errno != EINTR)
            return ctx.fail(std::string("poll failed: ") + std::strerror(errno));
        server.serve(render);
        if (!stream.is_open()) {
            if (reconnector.given_up())
                return ctx.fail("the agent at " + ctx.agent.text() + " did not come back within " +
                                std::to_string(o.reconnect_s) + " s");
            if (!reconnector.due()) continue;
            if (!stream.open(err)) {
                reconnector.failed_attempt();
                continue;
            }
            session.reset();
            data_in_connection = 0;
            reconnector.connected();
            std::fprintf(ctx.err, "vornmon openmetrics: reconnected to %s\n",
                         ctx.agent.text().c_str());
            continue;
        }
        for (;;) {
            Packet packet;
            DataStream::Status st = stream.pump(packet, err);
            if (st == DataStream::Status::kIdle) break;
            if (st == DataStream::Status::kPacket) {
                Sample sample;
                if (!session.accept(packet, sample, err)) {
                    st = DataStream::Status::kMalformed;
                    stream.close();
                } else {
                    reconnector.progress();
                    // A connection's first data packet covers no interval (its rates read 0);
                    // scrapes see figures from the second on.
                    if (!packet.data.empty() && ++data_in_connection >= 2)
                        latest = std::make_unique<Sample>(std::move(sample));
                    continue;
                }
            }
            // Lost or malformed: the figures go stale; scrapes say so until a new
            // connection brings fresh ones.
            std::fprintf(ctx.err, "vornmon openmetrics: %s%s; reconnecting\n",
                         st == DataStream::Status::kMalformed ? "malformed packet: " : "",
                         err.c_str());
            std::fflush(ctx.err);
            latest.reset();
            reconnector.lost();
            break;
        }
    }
}

// --- one-shot requests ---------------------------------------------------------------------

// Sends a request that the agent answers only by closing the connection.
int send_and_wait_close(const Context& ctx, const std::string& request, const std::string& done) {
    Exchange ex;
    std::string err;
    if (!exchange(ctx.agent, request, true, ctx.timeout_ms, nullptr, ex, err)) return ctx.fail(err);
    if (!ex.reply.empty())
        return ctx.fail("unexpected reply from the agent: " + quote_for_error(ex.reply));
    if (!done.empty()) std::fprintf(ctx.out, "%s\n", done.c_str());
    return kExitOk;
}

// Runs a request whose reply ends with a closing tag; an agent that closes without
// replying has its alerting switched off (it drops those requests unanswered).
bool ask(const Context& ctx, const std::string& request, bool (*complete)(std::string_view),
         std::string& reply, int& status, bool alerting) {
    Exchange ex;
    std::string err;
    if (!exchange(ctx.agent, request, false, ctx.timeout_ms, complete, ex, err)) {
        status = ctx.fail(err);
        return false;
    }
    if (!ex.complete && ex.reply.empty()) {
        status = ctx.fail(
            alerting
                ? "the agent at " + ctx.agent.text() +
                      " closed the connection without a reply (is alerting switched off?)"
                : "the agent at " + ctx.agent.text() + " closed the connection without a reply");
        return false;
    }
    reply = std::move(ex.reply);
    return true;
}

bool fetch_leaves(const Context& ctx, std::vector<Leaf>& leaves, int& status) {
    std::string reply, err;
    if (!ask(ctx, "<DESC>\n", desc_reply_complete, reply, status, false)) return false;
    if (!parse_desc_reply(reply, leaves, err)) {
        status = ctx.fail("malformed <DESC> reply: " + err);
        return false;
    }
    return true;
}

int cmd_desc(const Context& ctx, const Parsed& p) {
    std::vector<Leaf> leaves;
    int status = 0;
    if (!fetch_leaves(ctx, leaves, status)) return status;
    if (p.has("--json")) {
        for (const Leaf& l : leaves) std::fprintf(ctx.out, "%s\n", leaf_json(l).c_str());
        return kExitOk;
    }
    std::size_t width = 4;
    for (const Leaf& l : leaves) width = std::max(width, l.path.size());
    width = std::min<std::size_t>(width, 70);
    std::fprintf(ctx.out, "%-*s  %-5s  %s\n", static_cast<int>(width), "PATH", "UNITS",
                 "DESCRIPTION");
    for (const Leaf& l : leaves)
        std::fprintf(ctx.out, "%-*s  %-5s  %s\n", static_cast<int>(width), l.path.c_str(),
                     l.unit.c_str(), l.text.c_str());
    return kExitOk;
}

int cmd_rules(const Context& ctx, const Parsed& p) {
    std::string text, err;
    const std::string& source = p.operands[0];
    if (!read_source(ctx, source, text, err)) return ctx.fail(err);
    std::vector<Rule> rules;
    if (!parse_rules_text(text, rules, err))
        return ctx.fail((source == "-" ? std::string("standard input") : source) + ", " + err,
                        kExitUsage);
    if (!p.has("--no-check") && !rules.empty()) {
        // The agent stops reading at the first rule whose metric it cannot find and says
        // nothing, so every path is checked against its leaf list first.
        std::vector<Leaf> leaves;
        int status = 0;
        if (!fetch_leaves(ctx, leaves, status)) return status;
        std::set<std::string> paths = rule_paths(leaves);
        for (const Rule& r : rules)
            if (!rule_resolves(r, paths, err)) return ctx.fail("rule '" + r.name + "': " + err);
    }
    return send_and_wait_close(
        ctx, expdef_request(rules),
        rules.empty() ? "cleared the rules of this console on " + ctx.agent.text()
                      : "sent " + std::to_string(rules.size()) + " rule(s) to " + ctx.agent.text());
}

int cmd_alert_interval(const Context& ctx, const Parsed& p) {
    long seconds = 0;
    // Values outside this range are replaced by 120 s at the agent's next request.
    if (!to_int(p.operands[0], 1, 20000, seconds))
        return ctx.fail("the alert interval is a whole number of seconds from 1 to 20000, got '" +
                            p.operands[0] + "'",
                        kExitUsage);
    std::string reply, err;
    int status = 0;
    if (!ask(ctx, "<ALERT_INTERVAL>\n" + std::to_string(seconds) + "\n</ALERT_INTERVAL>\n",
             alert_interval_reply_complete, reply, status, true))
        return status;
    bool has_rules = false;
    if (!parse_alert_interval_reply(reply, has_rules, err)) return ctx.fail(err);
    std::fprintf(ctx.out, "alert interval set to %ld s; %s\n", seconds,
                 has_rules ? "the agent holds rules" : "the agent holds no rules yet");
    return kExitOk;
}

int cmd_alerts(const Context& ctx, const Parsed& p) {
    std::string reply, err;
    int status = 0;
    if (!ask(ctx, "<GETALERTS>\n", alerts_reply_complete, reply, status, true)) return status;
    std::vector<Alert> alerts;
    bool no_rules = false;
    if (!parse_alerts_reply(reply, alerts, no_rules, err))
        return ctx.fail("malformed alerts reply: " + err);
    if (no_rules)
        std::fprintf(ctx.err,
                     "vornmon alerts: the agent holds no rules (send some with 'vornmon rules')\n");
    if (p.has("--json")) {
        for (const Alert& a : alerts) std::fprintf(ctx.out, "%s\n", alert_json(a).c_str());
        return kExitOk;
    }
    if (alerts.empty()) {
        std::fprintf(ctx.out, "no alerts\n");
        return kExitOk;
    }
    std::fprintf(ctx.out, "%-17s  %-16s  %-40s  %-4s %10s %10s %10s %10s  %s\n", "RAISED", "NAME",
                 "METRIC", "COND", "LIMIT", "AVERAGE", "MIN", "MAX", "DESCRIPTION");
    for (const Alert& a : alerts)
        std::fprintf(ctx.out, "%-17s  %-16s  %-40s  %-4s %10.2f %10.2f %10.2f %10.2f  %s\n",
                     a.raised.c_str(), a.name.c_str(), a.path.c_str(), a.condition.c_str(), a.limit,
                     a.ave, a.min, a.max, a.description.c_str());
    return kExitOk;
}

int cmd_event(const Context& ctx, const Parsed& p) {
    std::vector<std::string> lines;
    if (p.operands.size() == 1 && p.operands[0] == "-") {
        std::string text, err;
        if (!read_source(ctx, "-", text, err)) return ctx.fail(err);
        std::istringstream s(text);
        for (std::string line; std::getline(s, line);)
            if (!line.empty()) lines.push_back(line);
    } else {
        std::string joined;
        for (const std::string& word : p.operands) joined += (joined.empty() ? "" : " ") + word;
        std::istringstream s(joined);
        for (std::string line; std::getline(s, line);)
            if (!line.empty()) lines.push_back(line);
    }
    if (lines.empty()) return ctx.fail("no event text", kExitUsage);
    for (const std::string& l : lines)
        if (l.size() > 510)  // the agent stores events in 512-byte slots
            return ctx.fail("an event line is limited to 510 characters", kExitUsage);
    return send_and_wait_close(
        ctx, event_request(lines),
        "sent " + std::to_string(lines.size()) + " event(s) to " + ctx.agent.text());
}

int cmd_events(const Context& ctx, const Parsed& p) {
    std::string reply, err;
    int status = 0;
    if (!ask(ctx, "<EVENT_GET_ALERTS>\n", events_reply_complete, reply, status, true))
        return status;
    std::vector<std::string> events;
    if (!parse_events_reply(reply, events, err)) return ctx.fail("malformed events reply: " + err);
    for (const std::string& e : events)
        std::fprintf(ctx.out, "%s\n", p.has("--json") ? json_quote(e).c_str() : e.c_str());
    return kExitOk;
}

int cmd_event_def(const Context& ctx, const Parsed& p) {
    std::string text, err;
    if (!read_source(ctx, p.operands[0], text, err)) return ctx.fail(err);
    if (!text.empty() && text.back() != '\n') text += '\n';
    return send_and_wait_close(ctx, "<EVENT_DEF>\n" + text,
                               "stored the event definition (" + std::to_string(text.size()) +
                                   " bytes) on " + ctx.agent.text());
}

int cmd_interval(const Context& ctx, const Parsed& p) {
    long seconds = 0;
    if (!to_int(p.operands[0], 1, 86400, seconds))
        return ctx.fail("the interval is a whole number of seconds from 1 to 86400, got '" +
                            p.operands[0] + "'",
                        kExitUsage);
    return send_and_wait_close(
        ctx, "<INTERVAL>\n" + std::to_string(seconds) + "\n",
        "interval set to " + std::to_string(seconds) + " s on " + ctx.agent.text());
}

int cmd_exit(const Context& ctx, const Parsed&) {
    return send_and_wait_close(ctx, "EXIT\n",
                               "asked " + ctx.agent.text() + " to end its data connection");
}

const std::vector<OptionSpec> kStreamOptions = {
    {"--interval", true}, {"--count", true}, {"--reconnect", true}};

std::vector<OptionSpec> with(std::vector<OptionSpec> base, std::vector<OptionSpec> more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {"top", "top [--once | --count N] [--sort KEY] [--interval N] [--procs N] [--width N]",
         "A live view of the host: processor split and per-processor bars, memory and paging,\n"
         "the busiest disks, file systems by use, network rates and, when the agent collects\n"
         "them, the processes. Keys: c cpu, m memory, p pid, n name, i io (sort the\n"
         "processes), up/down scroll, r renews the data connection (processes started since\n"
         "it opened show as ? until then), q quits.\n"
         "  --once          print one frame as plain text and exit\n"
         "  --count N       print N frames as plain text (frames cover one interval each)\n"
         "  --sort KEY      cpu, memory, pid, name or io (default cpu)\n"
         "  --interval N    scan interval asked of the agent (default 2)\n"
         "  --procs N       process rows in plain text (default 20, -1 for all)\n"
         "  --width N       columns of plain text (default $COLUMNS or 100)\n"
         "  --reconnect S   give up after S seconds without the agent (default: never live,\n"
         "                  30 for plain text)\n",
         with(kStreamOptions,
              {{"--once", false}, {"--sort", true}, {"--procs", true}, {"--width", true}}),
         0, 0, cmd_top},
        {"raw", "raw [--count N] [--interval N] [--reconnect S]",
         "Prints the data packets exactly as received, length prefix included.\n"
         "  --count N       stop after N packets (the first one defines the counters)\n"
         "  --interval N    scan interval asked of the agent (default 2)\n"
         "  --reconnect S   give up after S seconds without the agent (default 30)\n",
         kStreamOptions, 0, 0, cmd_raw},
        {"json", "json [--count N] [--interval N] [--reconnect S]",
         "Prints one JSON object per packet: packet number, time, interval, and every value\n"
         "with its metric path, class, instance, units; process values carry pid and name.\n"
         "  --count N       stop after N packets (the first one defines the counters)\n"
         "  --interval N    scan interval asked of the agent (default 2)\n"
         "  --reconnect S   give up after S seconds without the agent (default 30)\n",
         kStreamOptions, 0, 0, cmd_json},
        {"desc",
         "desc [--json]",
         "Lists the leaves of the agent's metric tree: the paths that alert rules can name.\n"
         "Asking also starts the agent's alert checks.\n"
         "  --json          one JSON object per leaf\n",
         {{"--json", false}},
         0,
         0,
         cmd_desc},
        {"rules",
         "rules [--no-check] FILE",
         "Sends alert rules, one a line: name:path:condition:limit:hours:minutes[:description]\n"
         "with condition one of > < >= <= == !=; '*' as a level of the path stands for every\n"
         "leaf below. Blank lines and lines starting with # are skipped; - reads standard\n"
         "input. The rules replace the ones this console's address sent before; an empty\n"
         "file clears them. Every path is checked against the agent's metrics first.\n"
         "  --no-check      send without checking the paths\n",
         {{"--no-check", false}},
         1,
         1,
         cmd_rules},
        {"alert-interval",
         "alert-interval SECONDS",
         "Sets the seconds between the agent's alert checks (1 to 20000) and says whether the\n"
         "agent holds rules.\n",
         {},
         1,
         1,
         cmd_alert_interval},
        {"alerts",
         "alerts [--json]",
         "Fetches the alerts raised for this console's rules. Each alert is delivered once.\n"
         "  --json          one JSON object per alert\n",
         {{"--json", false}},
         0,
         0,
         cmd_alerts},
        {"event",
         "event TEXT... | event -",
         "Hands one event line (the words joined by blanks) to the agent, which relays it to\n"
         "the console that asks for events; - sends each line of standard input.\n",
         {},
         1,
         1000000,
         cmd_event},
        {"events",
         "events [--json]",
         "Fetches the events waiting on the agent, one a line, and empties its store.\n"
         "  --json          each event as a JSON string\n",
         {{"--json", false}},
         0,
         0,
         cmd_events},
        {"event-def",
         "event-def FILE",
         "Stores FILE (- for standard input) as the agent's event definition file.\n",
         {},
         1,
         1,
         cmd_event_def},
        {"interval",
         "interval SECONDS",
         "Sets the scan interval the agent prints in its packets and counts its alert\n"
         "checks by (1 to 86400).\n",
         {},
         1,
         1,
         cmd_interval},
        {"exit",
         "exit",
         "Makes the agent end its data connection at its next scan.\n",
         {},
         0,
         0,
         cmd_exit},
        {"openmetrics", "openmetrics [--listen HOST:PORT] [--interval N] [--reconnect S]",
         "Keeps a data connection open and serves the latest sample at /metrics in the\n"
         "OpenMetrics text format, for Prometheus to scrape. Names come from the metric\n"
         "paths with their units; processors, disks, mount points and processes are labels.\n"
         "The agent serves one data connection at a time: run no other live console on it.\n"
         "  --listen HOST:PORT  address to serve on (default 127.0.0.1:9101)\n"
         "  --interval N    scan interval asked of the agent (default 2)\n"
         "  --reconnect S   give up after S seconds without the agent (default: never)\n",
         with(kStreamOptions, {{"--listen", true}}), 0, 0, cmd_openmetrics},
    };
    return table;
}

void print_command_help(std::FILE* out, const Command& c) {
    std::fprintf(out, "usage: vornmon [--host HOST] [--port PORT] [--timeout SECONDS] %s\n\n%s",
                 c.synopsis, c.help);
}

}  // namespace

int Context::fail(const std::string& message, int status) const {
    std::string text = message;
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(err, "vornmon%s%s: %s\n", command.empty() ? "" : " ", command.c_str(),
                 text.c_str());
    std::fflush(err);
    return status;
}

int run_vornmon(const std::vector<std::string>& args, std::FILE* out, std::FILE* err,
                std::FILE* in) {
    Context ctx;
    ctx.out = out;
    ctx.err = err;
    ctx.in = in;
    const Command* command = nullptr;
    Parsed parsed;
    bool help = false;
    bool operands_only = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (operands_only || arg == "-" || arg.size() < 2 || arg[0] != '-') {
            if (!command) {
                for (const Command& c : commands())
                    if (arg == c.name) command = &c;
                if (!command)
                    return ctx.fail("unknown command '" + arg + "' (see vornmon --help)",
                                    kExitUsage);
                ctx.command = command->name;
            } else {
                parsed.operands.push_back(arg);
            }
            continue;
        }
        if (arg == "--") {
            operands_only = true;
            continue;
        }
        std::string value;
        bool inline_value = false;
        if (std::size_t eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            inline_value = true;
        }
        auto take_value = [&](std::string& v) {
            if (inline_value) {
                v = value;
                return true;
            }
            if (i + 1 >= args.size()) return false;
            v = args[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            help = true;
            continue;
        }
        if (arg == "--host" || arg == "--port" || arg == "--timeout") {
            std::string v;
            if (!take_value(v)) return ctx.fail(arg + " needs a value", kExitUsage);
            long n = 0;
            if (arg == "--host") {
                if (v.empty()) return ctx.fail("--host needs a host name or address", kExitUsage);
                ctx.agent.host = v;
            } else if (arg == "--port") {
                if (!to_int(v, 1, 65535, n))
                    return ctx.fail("--port needs a port from 1 to 65535, got '" + v + "'",
                                    kExitUsage);
                ctx.agent.port = static_cast<int>(n);
            } else {
                if (!to_int(v, 1, 3600, n))
                    return ctx.fail("--timeout needs whole seconds from 1 to 3600, got '" + v + "'",
                                    kExitUsage);
                ctx.timeout_ms = static_cast<int>(n * 1000);
            }
            continue;
        }
        if (!command)
            return ctx.fail("unknown option '" + arg + "' (see vornmon --help)", kExitUsage);
        const OptionSpec* spec = nullptr;
        for (const OptionSpec& o : command->options)
            if (arg == o.name) spec = &o;
        if (!spec)
            return ctx.fail(
                "unknown option '" + arg + "' (see vornmon " + command->name + " --help)",
                kExitUsage);
        std::string v;
        if (spec->takes_value && !take_value(v))
            return ctx.fail(arg + " needs a value", kExitUsage);
        if (!spec->takes_value && inline_value)
            return ctx.fail(arg + " takes no value", kExitUsage);
        parsed.options[arg] = v;
    }
    if (!command) {
        if (help) {
            std::fputs(kGlobalHelp, out);
            return kExitOk;
        }
        return ctx.fail("missing command (see vornmon --help)", kExitUsage);
    }
    if (help) {
        print_command_help(out, *command);
        return kExitOk;
    }
    if (parsed.operands.size() < command->min_operands ||
        parsed.operands.size() > command->max_operands)
        return ctx.fail(std::string("usage: vornmon ") + command->synopsis, kExitUsage);
    return command->run(ctx, parsed);
}

}  // namespace vornmon
