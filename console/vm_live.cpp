// The live commands: raw packets, JSON lines, the plain-text view, the live terminal view and
// the scrape bridge, each a loop around one Feed.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "console/vm_commands.h"
#include "console/vm_hub_feed.h"
#include "console/vm_json.h"
#include "console/vm_openmetrics.h"

namespace vornmon {
namespace {

enum class StreamKind { kRaw, kJson, kTopText };

struct StreamOptions {
    long interval = 2, count = 0, reconnect_s = 30, procs = 20, width = 100;
    SortKey sort = SortKey::kCpu;
};

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

void write_raw(const Context& ctx, const Packet& packet) {
    std::fwrite(packet.raw.data(), 1, packet.raw.size(), ctx.out);
    std::fflush(ctx.out);
}

// Writes what one packet shows; false when it shows nothing (the text view draws
// measurements only).
bool emit(const Context& ctx, StreamKind kind, const FeedEvent& e, const Feed& feed,
          const StreamOptions& o, long emitted, IntervalClock& clock) {
    switch (kind) {
        case StreamKind::kRaw:
            write_raw(ctx, e.packet);
            return true;
        case StreamKind::kJson:
            std::fprintf(ctx.out, "%s\n", sample_json(e.sample, e.packet, feed.session()).c_str());
            std::fflush(ctx.out);
            return true;
        case StreamKind::kTopText:
            break;
    }
    if (!e.measurement) clock.connection_started();
    if (!e.measurement || e.packet.data.empty()) return false;
    int width = static_cast<int>(o.width);
    HostView view =
        build_view(e.sample, clock.measured(e.packet.interval, std::chrono::steady_clock::now()));
    std::string text = render_text(
        layout_view(view, feed.source(), o.sort, width, static_cast<int>(o.procs)), width);
    std::fprintf(ctx.out, "%s%s", emitted > 0 ? "\n" : "", text.c_str());
    std::fflush(ctx.out);
    return true;
}

int run_stream(const Context& ctx, const Parsed& p, StreamKind kind, const StreamOptions& o) {
    std::string err;
    std::unique_ptr<Feed> feed = make_feed(ctx, p, o.interval, o.reconnect_s, err);
    if (!feed) return ctx.fail(err);
    IntervalClock clock;
    for (long emitted = 0;;) {
        FeedEvent e = wait_event(*feed, 1000);
        switch (e.kind) {
            case FeedEvent::Kind::kIdle:
            case FeedEvent::Kind::kAlert:
                continue;
            case FeedEvent::Kind::kNotice:
                clock.connection_started();
                std::fprintf(ctx.err, "vornmon %s: %s\n", ctx.command.c_str(), e.message.c_str());
                std::fflush(ctx.err);
                continue;
            case FeedEvent::Kind::kMalformed:
                // Show what arrived before saying what is wrong with it.
                if (kind == StreamKind::kRaw && !e.packet.raw.empty()) write_raw(ctx, e.packet);
                return ctx.fail(e.message);
            case FeedEvent::Kind::kFailed:
                return ctx.fail(e.message);
            case FeedEvent::Kind::kPacket:
                break;
        }
        if (emit(ctx, kind, e, *feed, o, emitted, clock) && o.count > 0 && ++emitted >= o.count)
            return kExitOk;
    }
}

bool stream_options(const Context& ctx, const Parsed& p, StreamOptions& o, int& status) {
    return int_option(ctx, p, "--interval", 1, 86400, 2, o.interval, status) &&
           int_option(ctx, p, "--count", 1, 1000000000, 0, o.count, status) &&
           int_option(ctx, p, "--reconnect", 0, 86400 * 365, o.reconnect_s, o.reconnect_s, status);
}

}  // namespace

std::unique_ptr<Feed> make_feed(const Context& ctx, const Parsed& p, long interval, long give_up_s,
                                std::string& err) {
    if (p.has("--hub")) {
        auto feed = std::make_unique<HubFeed>(p.value("--hub"), p.value("--agent"), ctx.timeout_ms,
                                              static_cast<int>(give_up_s));
        if (!feed->start(err)) return nullptr;
        return feed;
    }
    auto feed = std::make_unique<AgentFeed>(ctx.agent, static_cast<int>(interval), ctx.timeout_ms,
                                            static_cast<int>(give_up_s));
    if (!feed->start(err)) return nullptr;
    return feed;
}

int cmd_raw(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    return run_stream(ctx, p, StreamKind::kRaw, o);
}

int cmd_json(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    return run_stream(ctx, p, StreamKind::kJson, o);
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
    if (p.has("--sort") && !sort_option(p.value("--sort"), o.sort))
        return ctx.fail(
            "--sort takes cpu, memory, pid, name or io, got '" + p.value("--sort") + "'",
            kExitUsage);
    if (p.has("--once")) {
        if (p.has("--count")) return ctx.fail("--once and --count exclude each other", kExitUsage);
        o.count = 1;
    }
    if (o.count > 0) {
        if (!p.has("--reconnect")) o.reconnect_s = 30;
        return run_stream(ctx, p, StreamKind::kTopText, o);
    }
    if (ctx.out != stdout || !isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO))
        return ctx.fail("the live view needs a terminal; use --once or --count N for plain text",
                        kExitUsage);
    std::string err;
    std::unique_ptr<Feed> feed = make_feed(ctx, p, o.interval, o.reconnect_s, err);
    if (!feed) return ctx.fail(err);
    return run_top_screen(ctx, *feed, o.sort);
}

int cmd_openmetrics(const Context& ctx, const Parsed& p) {
    StreamOptions o;
    o.reconnect_s = 0;
    int status = 0;
    if (!stream_options(ctx, p, o, status)) return status;
    Endpoint listen_on{"127.0.0.1", 9101};
    std::string err;
    if (p.has("--listen") && !parse_host_port(p.value("--listen"), listen_on, err))
        return ctx.fail("--listen: " + err, kExitUsage);
    ScrapeServer server;
    if (!server.listen(listen_on, err)) return ctx.fail(err);
    AgentFeed feed(ctx.agent, static_cast<int>(o.interval), ctx.timeout_ms,
                   static_cast<int>(o.reconnect_s));
    if (!feed.start(err)) return ctx.fail(err);
    std::fprintf(ctx.err, "vornmon openmetrics: serving http://%s:%d/metrics for the agent at %s\n",
                 listen_on.host.c_str(), server.port(), ctx.agent.text().c_str());
    std::fflush(ctx.err);
    std::unique_ptr<Sample> latest;
    auto render = [&] { return openmetrics_text(latest.get(), feed.fd() >= 0 && latest); };
    for (;;) {
        std::vector<pollfd> fds{{server.fd(), POLLIN, 0}};
        for (int fd : server.client_fds()) fds.push_back({fd, POLLIN, 0});
        if (feed.fd() >= 0) fds.push_back({feed.fd(), POLLIN, 0});
        if (poll(fds.data(), fds.size(), feed.wait_ms()) < 0 && errno != EINTR)
            return ctx.fail(std::string("poll failed: ") + std::strerror(errno));
        server.serve(render);
        for (FeedEvent e; (e = feed.next()).kind != FeedEvent::Kind::kIdle;) {
            if (e.kind == FeedEvent::Kind::kFailed) return ctx.fail(e.message);
            if (e.kind == FeedEvent::Kind::kPacket) {
                if (e.measurement) latest = std::make_unique<Sample>(std::move(e.sample));
                continue;
            }
            // Lost or malformed: the figures go stale; scrapes say so until a new connection
            // brings fresh ones.
            std::fprintf(ctx.err, "vornmon openmetrics: %s\n", e.message.c_str());
            std::fflush(ctx.err);
            if (e.kind != FeedEvent::Kind::kNotice || feed.fd() < 0) latest.reset();
        }
    }
}

}  // namespace vornmon
