// Process collection seen from a console: per-process header lines with pid-derived ids,
// and a process that exits leaves the tree, closing its open rule with an alert.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <thread>

#include "agent_harness.h"

extern char** environ;

namespace {
using namespace e2e;
namespace fs = std::filesystem;

// A sleeping process whose short name no other process on the host has.
struct Sleeper {
    static constexpr const char* kName = "vorntestsleeper";
    pid_t pid = -1;
    explicit Sleeper(const std::string& dir) {
        std::string path = dir + "/" + kName;
        fs::copy_file("/bin/sleep", path);
        char* argv[] = {const_cast<char*>(kName), const_cast<char*>("60"), nullptr};
        if (posix_spawn(&pid, path.c_str(), nullptr, nullptr, argv, environ) != 0) pid = -1;
    }
    void end() {
        if (pid <= 0) return;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    ~Sleeper() { end(); }
};

TEST(ProcessCollection, HeaderLinesRulesAndAVanishingProcess) {
    InstallRoot root;
    Sleeper sleeper(root.path);
    ASSERT_GT(sleeper.pid, 0);
    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port), "-scan", "1", "-collectprocess"});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();

    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    std::string header = console.read_packet(60000);
    ASSERT_FALSE(header.empty());
    // Ids of process counters come from the pid: row + pid * rows-per-table + 65536.
    const long pid_id = 1 + static_cast<long>(sleeper.pid) * 18 + 65536;
    std::string prefix = std::string("Process~^1~^->") + Sleeper::kName + "  (" + std::to_string(sleeper.pid) + ")->";
    EXPECT_NE(header.find("\n" + prefix + "PID::" + std::to_string(pid_id) + "::Process Id::1, ,0," +
                          std::to_string(sleeper.pid) + "\n"),
              std::string::npos);
    EXPECT_NE(header.find("\n" + prefix + "% CPU Utilization::" + std::to_string(pid_id + 4) +
                          "::% CPU Utilization::1,%,1\n"),
              std::string::npos);
    std::string data = console.read_packet(10000);
    EXPECT_NE(data.find("\n" + std::to_string(pid_id) + "=" + std::to_string(sleeper.pid) + "\n"),
              std::string::npos);

    // The console's order: alert interval, descriptions (which restart the countdown), rules.
    request(port, "<ALERT_INTERVAL>\n1\n</ALERT_INTERVAL>\n");
    EXPECT_NE(request(port, "<DESC>\n", 20000).find(std::string("\nProcess->") + Sleeper::kName + "->"),
              std::string::npos);
    std::string leaf = std::string("Process->") + Sleeper::kName + "->% CPU Utilization";
    request(port, "<EXPDEF>\nsleeper:" + leaf + ":>=:0:0:0:sleeper seen\n</EXPDEF>\n");
    // Each <GETALERTS> hands over what was queued: ask until the rule's alert comes, on a
    // slow host too, within a bound.
    const std::string alert = "\nsleeper::" + leaf + "::>=::";
    auto alert_comes = [&] {
        std::string got;
        for (int tries = 0; tries < 30 && got.find(alert) == std::string::npos; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            got = request(port, "<GETALERTS>\n");
        }
        return got.find(alert) != std::string::npos;
    };
    EXPECT_TRUE(alert_comes()) << "the rule raises an alert on the live process";

    sleeper.end();
    EXPECT_TRUE(alert_comes()) << "the vanished process closes its rule with an alert";
    std::string desc = request(port, "<DESC>\n", 20000);
    EXPECT_NE(desc.find("</HEADER>\n"), std::string::npos);
    EXPECT_EQ(desc.find(std::string("Process->") + Sleeper::kName), std::string::npos)
        << "the process left the tree";
    EXPECT_EQ(agent.stop(), 0);
}

// Any user may name a process as they like. A name holding newlines must stay inside its
// own header lines instead of adding lines of its own to the packet.
TEST(ProcessCollection, ARenamedProcessCannotAddPacketLines) {
    static const char kForged[] = "ab\n999=INJ\nzz";
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        prctl(PR_SET_NAME, kForged, 0, 0, 0);
        alarm(60);  // ends by itself should the test die before killing it
        pause();
        _exit(0);
    }
    InstallRoot root;
    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port), "-scan", "1", "-collectprocess"});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    std::string header = console.read_packet(60000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ASSERT_FALSE(header.empty());
    EXPECT_NE(header.find("->ab?999=INJ?zz  (" + std::to_string(child) + ")->"), std::string::npos);
    EXPECT_EQ(header.find("\n999=INJ\n"), std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
}

}  // namespace
