// `vornmon hub`: reads its agents from the command line and an agents file, serves until
// SIGINT or SIGTERM, and reads the agents file again on SIGHUP.
#include <signal.h>

#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "console/vm_commands.h"
#include "console/vm_hub_http.h"

namespace vornmon {
namespace {

// Every agent the command line and the agents file name, checked for clashes.
bool gather_agents(const Parsed& p, std::vector<AgentSpec>& out, std::string& err) {
    out.clear();
    for (const std::string& text : p.values("--agent")) {
        AgentSpec spec;
        if (!parse_agent_spec(text, spec, err)) return false;
        out.push_back(std::move(spec));
    }
    if (p.has("--agents")) {
        std::ifstream f(p.value("--agents"), std::ios::binary);
        std::ostringstream text;
        text << f.rdbuf();
        if (!f) {
            err = "cannot read " + p.value("--agents");
            return false;
        }
        if (!parse_agents_text(text.str(), out, err)) {
            err = p.value("--agents") + ", " + err;
            return false;
        }
    }
    std::set<std::string> names;
    for (const AgentSpec& s : out)
        if (!names.insert(s.name).second) {
            err = "agent '" + s.name + "' is named twice";
            return false;
        }
    return true;
}

// Every rules file must read and parse before the hub starts: the agent would take a
// broken file silently up to its first bad line.
bool check_rules(const HubOptions& o, const std::vector<AgentSpec>& agents, std::string& err) {
    std::set<std::string> files;
    if (!o.rules_file.empty()) files.insert(o.rules_file);
    for (const AgentSpec& a : agents)
        if (!a.rules_file.empty()) files.insert(a.rules_file);
    for (const std::string& file : files) {
        std::ifstream f(file, std::ios::binary);
        std::ostringstream text;
        text << f.rdbuf();
        std::vector<Rule> rules;
        if (!f || !parse_rules_text(text.str(), rules, err)) {
            err = file + ": " + (f ? err : "cannot read it");
            return false;
        }
    }
    return true;
}

bool hub_options(const Context& ctx, const Parsed& p, HubOptions& o, HttpOptions& h, int& status) {
    long interval, history, alert, streams, renew;
    if (!int_option(ctx, p, "--interval", 1, 3600, 2, interval, status) ||
        !int_option(ctx, p, "--history", 60, 86400, 900, history, status) ||
        !int_option(ctx, p, "--alert-interval", 1, 20000, 30, alert, status) ||
        !int_option(ctx, p, "--max-streams", 1, 4096, 64, streams, status) ||
        !int_option(ctx, p, "--renew", 1, 86400, 60, renew, status))
        return false;
    o.interval = static_cast<int>(interval);
    o.history_s = static_cast<int>(history);
    o.alert_interval_s = static_cast<int>(alert);
    o.renew_s = static_cast<int>(renew);
    o.timeout_ms = ctx.timeout_ms;
    o.rules_file = p.value("--rules");
    o.expose.per_pid = p.has("--per-pid");
    o.expose.all_filesystems = p.has("--all-filesystems");
    h.max_streams = static_cast<std::size_t>(streams);
    h.web = find_web_files(p.value("--web"), program_directory());
    std::string err;
    if (p.has("--listen") && !parse_host_port(p.value("--listen"), h.listen, err)) {
        status = ctx.fail("--listen: " + err, kExitUsage);
        return false;
    }
    return true;
}

// Says where the dashboard comes from, or that it is missing and where it was looked for.
void log_web_files(const Context& ctx, const WebFiles& web) {
    if (!web.root.empty()) {
        std::fprintf(ctx.err, "vornmon hub: dashboard page files from %s\n", web.root.c_str());
        return;
    }
    std::string places;
    for (const std::string& place : web.looked_in) places += (places.empty() ? "" : ", ") + place;
    std::fprintf(ctx.err,
                 "vornmon hub: no dashboard page files (looked in %s); / says so, give --web "
                 "DIR\n",
                 places.empty() ? "no place" : places.c_str());
}

}  // namespace

int cmd_hub(const Context& ctx, const Parsed& p) {
    HubOptions options;
    HttpOptions http;
    int status = 0;
    if (!hub_options(ctx, p, options, http, status)) return status;
    std::vector<AgentSpec> agents;
    std::string err;
    if (!gather_agents(p, agents, err) || !check_rules(options, agents, err))
        return ctx.fail(err, kExitUsage);
    if (agents.empty())
        return ctx.fail("name at least one agent (--agent or --agents)", kExitUsage);

    // The signals are taken by sigwait below; every thread started from here inherits the
    // mask, so none of them is interrupted by one.
    sigset_t signals;
    sigemptyset(&signals);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, sig);
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &signals, &previous);
    {
        Hub hub(options);
        HubServer server(hub, http);
        if (!server.bind(err)) {
            pthread_sigmask(SIG_SETMASK, &previous, nullptr);
            return ctx.fail(err);
        }
        hub.set_agents(agents);
        std::fprintf(ctx.err, "vornmon hub: serving http://%s/ for %zu agent(s)\n",
                     Endpoint{http.listen.host, server.port()}.text().c_str(), agents.size());
        log_web_files(ctx, http.web);
        std::fflush(ctx.err);
        std::thread serving([&] { server.serve(); });
        for (int sig = 0; sig != SIGINT && sig != SIGTERM;) {
            if (sigwait(&signals, &sig) != 0) break;
            if (sig != SIGHUP) continue;
            if (gather_agents(p, agents, err) && check_rules(options, agents, err)) {
                hub.set_agents(agents);
                std::fprintf(ctx.err, "vornmon hub: now watching %zu agent(s)\n", agents.size());
            } else {
                std::fprintf(ctx.err, "vornmon hub: agents unchanged: %s\n", err.c_str());
            }
            std::fflush(ctx.err);
        }
        server.stop();
        serving.join();
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return kExitOk;
}

}  // namespace vornmon
