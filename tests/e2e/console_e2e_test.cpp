// vornmon against the real agent: the decoded stream, the leaf list, rules that raise
// alerts, events, the live view in plain text, the OpenMetrics bridge and reconnection.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include "hub_support.h"

extern char** environ;

namespace {

using Args = std::vector<std::string>;
using e2e::eventually;
using e2e::has;
using std::to_string;

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

long lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

// vornmon started through the shell for its redirections (exec keeps the pid), with its
// output in files; one still running when the test is done with it is ended by its pid.
struct Vornmon {
    std::string base;
    pid_t pid = -1;
    int status = -1;
    Vornmon(const std::string& base, int port, const std::string& args, const std::string& input)
        : base(base) {
        std::ofstream(base + ".in") << input;
        const std::string bin = e2e::vornmon_binary();
        const std::string sh = "exec \"$0\" --port " + to_string(port) + " " + args +
                               " <\"$1.in\" >\"$1.out\" 2>\"$1.err\"";
        const char* argv[] = {"sh", "-c", sh.c_str(), bin.c_str(), base.c_str(), nullptr};
        posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ);
    }
    ~Vornmon() {
        for (int sig : {SIGTERM, SIGKILL})
            if (pid > 0 && wait(0) < 0) kill(pid, sig), wait(5);
    }
    std::string out() const { return slurp(base + ".out"); }
    std::string err() const { return slurp(base + ".err"); }
    // The exit status once it ended by itself, or -1 while it still runs after `seconds`.
    int wait(int seconds) {
        eventually(seconds, [&] {
            int st = 0;
            if (pid > 0 && waitpid(pid, &st, WNOHANG) == pid)
                pid = 0, status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return pid <= 0;
        });
        return pid > 0 ? -1 : status;
    }
};

struct Console : ::testing::Test {
    e2e::InstallRoot root;
    int port = e2e::free_port(), runs = 0;
    std::unique_ptr<e2e::Agent> agent;

    void SetUp() override { start(); }
    void TearDown() override {
        if (agent) stop_agent();
    }
    void start() {
        agent = std::make_unique<e2e::Agent>(
            root, Args{"-nofork", "-port", to_string(port), "-scan", "1", "-collectprocess"});
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    }
    void stop_agent() {
        EXPECT_EQ(agent->stop(), 0) << agent->err();
        agent.reset();
    }
    std::unique_ptr<Vornmon> spawn(const std::string& args, const std::string& input = "") {
        return std::make_unique<Vornmon>(root.path + "/vm" + to_string(++runs), port, args, input);
    }
    // Runs to the end (at most 90 s).
    std::unique_ptr<Vornmon> run(const std::string& args, const std::string& input = "") {
        auto v = spawn(args, input);
        v->wait(90);
        return v;
    }
    std::string pid() const { return to_string(agent->pid()); }
};

TEST_F(Console, JsonDescTopAndEvents) {
    auto r = run("json --count 3 --interval 1");
    std::string out = r->out();
    ASSERT_TRUE(r->status == 0 && lines(out) == 3) << r->err();
    // The first packet defines the counters, the later ones only carry values.
    EXPECT_TRUE(has(
        out, "^\\{\"packet\":1,\"time\":\"[^\"]+\",\"interval\":1,\"header_lines\":[1-9]", true));
    std::string last = out.substr(out.rfind("\n{") + 1);
    EXPECT_TRUE(has(last, "{\"packet\":3,") && has(last, "\"header_lines\":0,"));
    EXPECT_TRUE(has(last,
                    "\\{\"id\":\\d+,\"path\":\"Cpu->Average Utilization\",\"class\":\"Cpu\","
                    "\"metric\":\"Average Utilization\",\"units\":\"%\",\"value\":[0-9.]+\\}",
                    true));
    EXPECT_TRUE(has(last, "\"pid\":" + pid() + ",\"name\":\"vornrta\"")) << "the agent itself";

    r = run("desc");
    EXPECT_EQ(r->out().rfind("PATH", 0), 0u) << r->err();
    for (std::string leaf : {"Cpu->Average Utilization", "Cpu-> Mode Averages->Idle",
                             "Network->TCP->Packet Rate->Sent"})
        EXPECT_TRUE(has(r->out(), "\n" + leaf + " "));
    EXPECT_TRUE(has(run("desc --json")->out(),
                    "{\"path\":\"Cpu->Average Utilization\",\"description\":\"Overall CPU "
                    "Utilzation\""));

    r = run("top --once --procs -1 --width 120");
    for (std::string line : Args{"CPU", "Processors", "Memory", "Disks", "File systems", "Network",
                                 "Processes", "  user +[0-9.]+%  system +[0-9.]+%",
                                 "  cpu0 +[0-9.]+%", " +" + pid() + " .*  vornrta\n"})
        EXPECT_TRUE(has(r->out(), "\n" + line, true)) << r->err();

    // Events are relayed once.
    EXPECT_EQ(run("event disk sdb replaced")->status, 0);
    EXPECT_EQ(run("event -", "backup started\nbackup done\n")->status, 0);
    EXPECT_EQ(run("events")->out(), "disk sdb replaced\nbackup started\nbackup done\n");
    r = run("events --json");
    EXPECT_TRUE(r->status == 0 && r->out().empty()) << r->out() << r->err();
}

TEST_F(Console, RulesRaiseAlertsThatAreDeliveredOnce) {
    EXPECT_TRUE(has(run("alert-interval 2")->out(), "alert interval set to 2 s"));
    // A misspelt path is refused before anything reaches the agent; a rule that always
    // holds (duration 0) raises at the first check.
    auto r = run("rules -", "x:Cpu->Average Utilisation:>=:0:0:0\n");
    EXPECT_TRUE(r->status == 1 && has(r->err(), "no metric 'Cpu->Average Utilisation'"));
    r = run("rules -", "always:Cpu->Average Utilization:>=:0:0:0:cpu\n");
    EXPECT_TRUE(has(r->out(), "sent 1 rule(s)")) << r->err();
    ASSERT_TRUE(eventually(30, [&] { return !(r = run("alerts --json"))->out().empty(); }))
        << root.log_text();
    EXPECT_TRUE(has(r->out(),
                    "^\\{\"name\":\"always\",\"path\":\"Cpu->Average Utilization\",\"condition\":"
                    "\">=\",\"limit\":0,\"average\":[0-9.]+,.*\"description\":\"cpu\"\\}\n$",
                    true));
    // Delivered once: the same alert does not come back (the rule stays raised).
    EXPECT_EQ(run("alerts")->out(), "no alerts\n");
}

TEST_F(Console, OpenMetricsServesTheLatestSample) {
    int http = e2e::free_port();
    auto bridge = spawn("openmetrics --interval 1 --listen 127.0.0.1:" + to_string(http));
    std::string reply;
    auto ask = [&](const std::string& request, const std::string& want) {
        e2e::Client c(http);
        reply =
            c.ok() && c.send(request + " HTTP/1.1\r\nHost: x\r\n\r\n") ? c.read_to_end(3000) : "";
        return reply.find(want) != std::string::npos;
    };
    ASSERT_TRUE(eventually(
        20, [&] { return ask("GET /metrics", "vornrta_cpu_average_utilization_percent "); }))
        << reply << bridge->err();
    std::string body = reply.substr(reply.find("\r\n\r\n") + 4);
    EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_TRUE(
        has(reply, "Content-Type: application/openmetrics-text; version=1.0.0; charset=utf-8\r\n"));
    EXPECT_TRUE(has(reply, "Content-Length: " + to_string(body.size()) + "\r\n"));
    EXPECT_TRUE(has(body, "\nvornmon_agent_up 1\n") && has(body, "\n# EOF\n$", true));
    EXPECT_TRUE(has(
        body, "\nvornrta_process_cpu_utilization_percent{pid=\"" + pid() + "\",name=\"vornrta\""));
    // Other paths, methods and garbage are refused; HEAD gets no body.
    EXPECT_TRUE(ask("GET /other", "HTTP/1.1 404") && ask("POST /metrics", "HTTP/1.1 405") &&
                ask("garbage", "HTTP/1.1 400") && ask("HEAD /metrics", "HTTP/1.1 200"));
    EXPECT_FALSE(has(reply, "vornmon_agent_up")) << "HEAD";
    // scripts/test installs promtool and sets VORN_REQUIRE_PROMTOOL=1: there it must run.
    if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
        std::ofstream(root.path + "/scrape.txt") << body;
        EXPECT_EQ(std::system(("promtool check metrics <" + root.path + "/scrape.txt").c_str()), 0);
    } else {
        const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
        EXPECT_FALSE(required && std::string(required) == "1") << "promtool required but missing";
    }
    // When the agent goes away the bridge keeps answering, says so, and drops stale figures.
    stop_agent();
    EXPECT_TRUE(eventually(10, [&] { return ask("GET /metrics", "vornmon_agent_up 0\n"); }))
        << reply;
    EXPECT_FALSE(has(reply, "vornrta_cpu_"));
}

TEST_F(Console, StreamsSurviveAnAgentRestart) {
    auto stream = spawn("json --count 6 --interval 1 --reconnect 60");
    // The first header packet walks every process: allow for a busy host.
    ASSERT_TRUE(eventually(60, [&] { return lines(stream->out()) >= 2; })) << stream->err();
    stop_agent();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    start();
    EXPECT_EQ(stream->wait(90), 0) << stream->err();
    EXPECT_TRUE(has(stream->err(), "reconnected"));
    std::string out = stream->out();
    EXPECT_EQ(lines(out), 6);
    EXPECT_TRUE(out.rfind("{\"packet\":1,", 0) == 0 && has(out, "\n{\"packet\":1,"))
        << "each connection starts with its own header packet";
}

}  // namespace
