// The commands that make one request of the agent each: the leaf list, rules, the alert
// interval, alerts, events and the scan interval.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "console/vm_commands.h"
#include "console/vm_json.h"
#include "console/vm_requests.h"

namespace vornmon {
namespace {

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

}  // namespace

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

}  // namespace vornmon
