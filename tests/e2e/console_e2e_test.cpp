// vornmon against the real agent: the decoded stream, the leaf list, rules that raise
// alerts, events, the live view in plain text, the OpenMetrics bridge and reconnection.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "agent_harness.h"
#include "console_support.h"

namespace {

using console_e2e::Background;
using console_e2e::Result;
using console_e2e::run;

std::vector<std::string> at(int port, std::vector<std::string> rest) {
    std::vector<std::string> args = {"--port", std::to_string(port)};
    args.insert(args.end(), rest.begin(), rest.end());
    return args;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> out;
    for (std::size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos;
         start = nl + 1)
        out.push_back(text.substr(start, nl - start));
    return out;
}

struct Console : ::testing::Test {
    e2e::InstallRoot root;
    int port = e2e::free_port();
    std::unique_ptr<e2e::Agent> agent;

    void SetUp() override { start(); }
    void TearDown() override {
        if (agent) {
            EXPECT_EQ(agent->stop(), 0) << agent->err();
        }
    }
    void start() {
        agent = std::make_unique<e2e::Agent>(
            root, std::vector<std::string>{"-nofork", "-port", std::to_string(port), "-scan", "1",
                                           "-collectprocess"});
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    }
};

TEST_F(Console, JsonCarriesPathsUnitsValuesAndProcesses) {
    Result r = run(at(port, {"json", "--count", "3", "--interval", "1"}));
    ASSERT_EQ(r.status, 0) << r.err;
    std::vector<std::string> packets = lines_of(r.out);
    ASSERT_EQ(packets.size(), 3u) << r.out;
    EXPECT_NE(packets[0].find("\"packet\":1,"), std::string::npos);
    EXPECT_EQ(packets[0].find("\"header_lines\":0,"), std::string::npos)
        << "the first packet defines the counters";
    std::string& last = packets[2];
    EXPECT_NE(last.find("\"header_lines\":0,"), std::string::npos);
    EXPECT_TRUE(std::regex_search(
        last, std::regex("\\{\"id\":\\d+,\"path\":\"Cpu->Average Utilization\",\"class\":"
                         "\"Cpu\",\"metric\":\"Average Utilization\",\"units\":\"%\","
                         "\"value\":[0-9.]+\\}")))
        << last.substr(0, 600);
    EXPECT_NE(last.find("\"path\":\"Cpu-> 0->Total\",\"class\":\"Cpu\",\"instance\":\"0\""),
              std::string::npos);
    EXPECT_NE(last.find("\"units\":\"MBs\""), std::string::npos);
    EXPECT_NE(last.find("\"path\":\"FileSystem->/->% Space Used\""), std::string::npos);
    // The agent is one of the processes it reports, under its own pid and name.
    std::string self = "\"pid\":" + std::to_string(agent->pid()) + ",\"name\":\"vornrta\"";
    EXPECT_NE(last.find(self), std::string::npos) << self;
}

TEST_F(Console, DescListsTheLeavesRulesCanName) {
    Result r = run(at(port, {"desc"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("PATH", 0), 0u);
    for (const char* leaf : {"Cpu->Average Utilization", "Cpu-> Mode Averages->Idle",
                             "Network->TCP->Packet Rate->Sent"})
        EXPECT_NE(r.out.find(std::string("\n") + leaf + " "), std::string::npos)
            << leaf << "\n"
            << r.out.substr(0, 2000);
    Result j = run(at(port, {"desc", "--json"}));
    ASSERT_EQ(j.status, 0) << j.err;
    EXPECT_NE(
        j.out.find(
            "{\"path\":\"Cpu->Average Utilization\",\"description\":\"Overall CPU Utilzation\""),
        std::string::npos);
}

TEST_F(Console, RulesRaiseAlertsThatAreDeliveredOnce) {
    Result r = run(at(port, {"alert-interval", "2"}));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("alert interval set to 2 s"), std::string::npos);
    // A rule that always holds (duration 0) raises at the first check; a misspelt path is
    // refused before anything reaches the agent.
    Result bad = run(at(port, {"rules", "-"}), "x:Cpu->Average Utilisation:>=:0:0:0\n");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("no metric 'Cpu->Average Utilisation'"), std::string::npos) << bad.err;
    r = run(at(port, {"rules", "-"}),
            "# test rule\nalways:Cpu->Average Utilization:>=:0:0:0:cpu figure present\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("sent 1 rule(s)"), std::string::npos);

    std::string alerts;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (alerts.empty() && std::chrono::steady_clock::now() < deadline) {
        Result a = run(at(port, {"alerts", "--json"}));
        ASSERT_EQ(a.status, 0) << a.err;
        alerts = a.out;
        if (alerts.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    ASSERT_FALSE(alerts.empty()) << "no alert within 30 s\n" << root.log_text();
    EXPECT_TRUE(std::regex_search(
        alerts, std::regex("^\\{\"name\":\"always\",\"path\":\"Cpu->Average Utilization\","
                           "\"condition\":\">=\",\"limit\":0,\"average\":[0-9.]+,")))
        << alerts;
    EXPECT_NE(alerts.find("\"description\":\"cpu figure present\""), std::string::npos) << alerts;
    // Delivered once: the same alert does not come back (the rule stays raised).
    Result again = run(at(port, {"alerts"}));
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out.find("always"), std::string::npos) << again.out;
}

TEST_F(Console, EventsAreRelayedOnce) {
    Result r = run(at(port, {"event", "disk", "sdb", "replaced"}));
    ASSERT_EQ(r.status, 0) << r.err;
    r = run(at(port, {"event", "-"}), "backup started\nbackup done\n");
    ASSERT_EQ(r.status, 0) << r.err;
    Result e = run(at(port, {"events"}));
    ASSERT_EQ(e.status, 0) << e.err;
    EXPECT_EQ(e.out, "disk sdb replaced\nbackup started\nbackup done\n");
    e = run(at(port, {"events", "--json"}));
    ASSERT_EQ(e.status, 0) << e.err;
    EXPECT_EQ(e.out, "");
}

TEST_F(Console, TopOncePrintsEverySection) {
    Result r = run(at(port, {"top", "--once", "--procs", "-1", "--width", "120"}));
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* section :
         {"CPU", "Processors", "Memory", "Disks", "File systems", "Network", "Processes"})
        EXPECT_NE(r.out.find(std::string("\n") + section), std::string::npos) << section << "\n"
                                                                              << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\n  user +[0-9.]+%  system +[0-9.]+%")))
        << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("\n  cpu0 +[0-9.]+%"))) << r.out;
    EXPECT_TRUE(std::regex_search(
        r.out, std::regex("\n +" + std::to_string(agent->pid()) + " .*  vornrta\n")))
        << r.out;
}

TEST_F(Console, OpenMetricsServesTheLatestSample) {
    int http_port = e2e::free_port();
    Background bridge(at(port, {"openmetrics", "--listen", "127.0.0.1:" + std::to_string(http_port),
                                "--interval", "1"}));
    auto scrape = [&] {
        e2e::Client c(http_port);
        if (!c.ok()) return std::string();
        c.send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        return c.read_to_end(3000);
    };
    std::string reply;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        reply = scrape();
        if (reply.find("vornrta_cpu_average_utilization_percent ") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    ASSERT_NE(reply.find("vornrta_cpu_average_utilization_percent "), std::string::npos)
        << reply << bridge.err();
    EXPECT_EQ(reply.rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    std::string body = reply.substr(reply.find("\r\n\r\n") + 4);
    EXPECT_NE(body.find("vornmon_agent_up 1\n"), std::string::npos);
    EXPECT_NE(body.find("vornrta_process_cpu_utilization_percent{pid=\"" +
                        std::to_string(agent->pid()) + "\",name=\"vornrta\""),
              std::string::npos);
    EXPECT_TRUE(std::regex_search(
        body, std::regex("\nvornrta_processor_total_percent\\{cpu=\"0\"\\} [0-9.e+]+\n")));
    EXPECT_TRUE(std::regex_search(
        body, std::regex("\nvornrta_filesystem_space_used_percent\\{mountpoint=\"/\"\\} ")));
    EXPECT_EQ(body.substr(body.size() - 6), "# EOF\n");

    bool have_promtool = std::system("command -v promtool >/dev/null 2>&1") == 0;
    const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
    if (have_promtool) {
        std::string path = root.path + "/scrape.txt";
        std::ofstream(path) << body;
        std::string cmd = "promtool check metrics < " + path + " > " + path + ".out 2>&1";
        int rc = std::system(cmd.c_str());
        std::ifstream report(path + ".out");
        std::string text((std::istreambuf_iterator<char>(report)),
                         std::istreambuf_iterator<char>());
        EXPECT_EQ(rc, 0) << text;
    } else {
        EXPECT_FALSE(required && std::string(required) == "1")
            << "promtool is required but missing";
    }

    // When the agent goes away the bridge keeps answering and says so.
    EXPECT_EQ(agent->stop(), 0);
    agent.reset();
    deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        reply = scrape();
        if (reply.find("vornmon_agent_up 0\n") != std::string::npos) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_NE(reply.find("vornmon_agent_up 0\n"), std::string::npos) << reply;
    EXPECT_EQ(reply.find("vornrta_cpu_"), std::string::npos) << "stale figures must not be served";
}

TEST_F(Console, StreamsSurviveAnAgentRestart) {
    Background stream(at(port, {"json", "--count", "6", "--interval", "1", "--reconnect", "60"}));
    // The first header packet walks every process: allow for a busy host.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (lines_of(stream.out()).size() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_GE(lines_of(stream.out()).size(), 2u) << stream.err();
    ASSERT_EQ(agent->stop(), 0);
    agent.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    start();
    EXPECT_EQ(stream.wait(90000), 0) << stream.err();
    std::vector<std::string> packets = lines_of(stream.out());
    EXPECT_EQ(packets.size(), 6u);
    EXPECT_NE(stream.err().find("reconnected"), std::string::npos) << stream.err();
    int header_packets = 0;
    for (const std::string& p : packets)
        if (p.find("\"packet\":1,") != std::string::npos) ++header_packets;
    EXPECT_GE(header_packets, 2) << "each connection starts with its own header packet\n"
                                 << stream.err();
}

}  // namespace
