// vornmon hub against two real agents: one data connection each, shared by every reader;
// Prometheus series, the JSON API, alerts from a rules file, names for processes started
// after the header pass, and a stream reader that stops reading.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <memory>
#include <regex>

#include "hub_support.h"

namespace {

using e2e::has;
using std::to_string;

struct HubE2e : e2e::TwoAgentsAndAHub {
    void SetUp() override {
        start_agents();
        if (HasFatalFailure()) return;
        // Agent a has a rule that always holds; b has none.
        std::ofstream(root_a.path + "/rules") << "always:Cpu->Average Utilization:>=:0:0:0:cpu\n";
        std::ofstream(root_a.path + "/agents") << "a=127.0.0.1:" << port_a << " " << root_a.path
                                               << "/rules\nb=127.0.0.1:" << port_b << "\n";
        start_hub({"--interval", "1", "--renew", "2", "--alert-interval", "2", "--agents",
                   root_a.path + "/agents"});
    }
    std::string metrics() { return e2e::http_get(http, "/metrics"); }
    std::string agents() { return e2e::http_get(http, "/api/agents"); }
    // Runs vornmon to its end with output captured.
    std::string run(const std::string& args, int* status) {
        std::string out = root_a.path + "/vm.out";
        std::string cmd = e2e::vornmon_binary() + " " + args + " >" + out + " 2>&1";
        *status = WEXITSTATUS(std::system(cmd.c_str()));
        std::ostringstream s;
        s << std::ifstream(out).rdbuf();
        return s.str();
    }
};

TEST_F(HubE2e, EveryReaderSharesOneConnectionPerAgent) {
    ASSERT_TRUE(e2e::eventually(
        60,
        [&] {
            return has(agents(), "\"name\":\"a\",[^}]*\"up\":true,[^}]*\"samples\":[1-9]", true) &&
                   has(agents(), "\"name\":\"b\",[^}]*\"up\":true,[^}]*\"samples\":[1-9]", true);
        }))
        << agents() << hub->output();
    std::string url = "--hub http://127.0.0.1:" + to_string(http);
    int status = 0;
    std::string out = run("json " + url + " --agent a --count 3", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(has(out, "^\\{\"packet\":1,", true)) << "the definitions come first";
    out = run("top " + url + " --agent b --once --procs -1 --width 120", &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_TRUE(has(out, "vornmon b via http://127.0.0.1:" + to_string(http)));
    EXPECT_TRUE(has(out, "\nProcesses \\([1-9]", true));
    out = run("raw " + url + " --count 2", &status);
    EXPECT_EQ(status, 1) << "two agents: --agent is needed";
    EXPECT_TRUE(has(out, "name one with --agent (a, b)")) << out;
    // Nobody took a data connection from the hub.
    std::string list = agents();
    EXPECT_EQ(std::regex_search(list, std::regex("\"reconnects\":[1-9]")), false) << list;

    std::string m = metrics();
    for (const std::string& instance : {to_string(port_a), to_string(port_b)}) {
        std::string who = "{instance=\"127.0.0.1:" + instance + "\",host=\"127.0.0.1\"";
        EXPECT_TRUE(has(m, "vornmon_agent_up" + who + "} 1\n"));
        EXPECT_TRUE(has(m, "vornrta_cpu_seconds_total" + who + ",cpu=\"0\",mode=\"user\"} "));
        EXPECT_TRUE(has(m, "vornrta_memory_used_bytes" + who + "} "));
        EXPECT_TRUE(has(m, "vornrta_processes" + who + ",name=\""));
    }
    EXPECT_FALSE(has(m, "mountpoint=\"/proc\""));
    if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
        std::ofstream(root_a.path + "/scrape.txt") << m;
        EXPECT_EQ(std::system(("promtool check metrics <" + root_a.path + "/scrape.txt").c_str()),
                  0);
    } else {
        const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
        EXPECT_FALSE(required && std::string(required) == "1") << "promtool required but missing";
    }
    std::string om = e2e::http_get(http, "/metrics", &status,
                                   "Accept: application/openmetrics-text; version=1.0.0\r\n");
    EXPECT_TRUE(has(om, "# TYPE vornrta_cpu_seconds counter\n") && has(om, "\n# EOF\n$", true));

    // The rule that always holds raises at the first check and stays raised.
    std::string firing = "vornmon_alerts_firing{instance=\"127.0.0.1:" + to_string(port_a) +
                         "\",host=\"127.0.0.1\",rule=\"always\"} 1\n";
    EXPECT_TRUE(e2e::eventually(30, [&] { return has(metrics(), firing); })) << metrics();
    EXPECT_TRUE(has(e2e::http_get(http, "/api/agents/a/alerts"),
                    "\"raised\":true,\"alert\":{\"name\":\"always\""));
    EXPECT_FALSE(has(metrics(), "vornmon_alerts_firing{instance=\"127.0.0.1:" + to_string(port_b)));

    std::string latest = e2e::http_get(http, "/api/agents/a/latest", &status);
    EXPECT_TRUE(status == 200 && has(latest, "{\"agent\":\"a\",\"packet\":")) << latest;
    std::string history =
        e2e::http_get(http, "/api/agents/a/history?path=Cpu-%3EAverage%20Utilization", &status);
    EXPECT_TRUE(has(history, "\"points\":\\[\\[\\d+,[0-9.]+\\]", true)) << history;
    e2e::http_get(http, "/api/agents/c/latest", &status);
    EXPECT_EQ(status, 404);
}

// A process started after the header pass has no name on the wire; the hub asks for a
// fresh pass and the name shows up. A reader that stops reading holds up nobody.
TEST_F(HubE2e, NamesNewProcessesAndOutlivesAStalledReader) {
    ASSERT_TRUE(e2e::eventually(60, [&] { return has(metrics(), "vornrta_processes{"); }))
        << hub->output();
    e2e::Client stalled(http);
    int small = 4096;
    setsockopt(stalled.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_TRUE(stalled.send("GET /api/agents/a/packets HTTP/1.0\r\n\r\n"));
    std::string sleeper = root_b.path + "/vmsleeper";
    std::filesystem::copy_file("/bin/sleep", sleeper);
    e2e::Child sleeping({sleeper, "300"}, root_b.path + "/sleeper.out");
    EXPECT_TRUE(e2e::eventually(40, [&] {
        std::string m = metrics();
        return has(m, "vornrta_processes{instance=\"127.0.0.1:" + to_string(port_a) +
                          "\",host=\"127.0.0.1\",name=\"vmsleeper\"} 1");
    })) << agents();
    auto packets = [&] {
        std::smatch m;
        std::string text = agents();
        return std::regex_search(text, m, std::regex("\"packets\":(\\d+)")) ? std::stol(m[1]) : 0L;
    };
    long before = packets();
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_GE(packets(), before + 2) << "the stalled reader does not stall the agent's connection";
}

}  // namespace
