// The agent as an administrator meets it: settings written, start, status, a refused second
// start, stop, a stale lock, an occupied port, daemon mode.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;
namespace fs = std::filesystem;

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int pid_from_started_line(const std::string& out) {
    std::smatch m;
    std::regex re("vornrta started \\(pid (\\d+)\\)\n");
    return std::regex_search(out, m, re) ? std::stoi(m[1]) : -1;
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms) {
    for (int waited = 0; waited < timeout_ms; waited += 50) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return pred();
}

TEST(AgentControl, WriteConfigStartStatusRefusedSecondStartStop) {
    InstallRoot root;
    int port = free_port();
    auto written = run_agent(root, {"-write_config", "-port", std::to_string(port), "-scan", "1",
                                    "-collectprocess", "-priority", "3"});
    EXPECT_EQ(written.exit_code, 0);
    EXPECT_NE(written.out.find("Writing config file...\n"), std::string::npos) << written.out;
    EXPECT_EQ(slurp(root.settings_file()),
              "PRIORITY~3\nVERBOSE~0\nUSER~root\nRTA_PORT~" + std::to_string(port) +
                  "\nSCAN_RATE~1\nALERTS~1\nPROCESSES~1\n");

    // The settings file alone now decides port, scan rate and process collection.
    Agent agent(root, {"-nofork"});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
    ASSERT_TRUE(wait_until([&] { return pid_from_started_line(agent.out()) > 0; }, 5000));
    EXPECT_EQ(pid_from_started_line(agent.out()), agent.pid());

    std::string log = root.log_text();
    EXPECT_NE(log.find("Build: V10.0-001 (Feb 23 2012)\n"), std::string::npos) << log;
    EXPECT_NE(log.find("\n pid:    " + std::to_string(agent.pid()) + "\n"), std::string::npos);
    EXPECT_NE(log.find(" Port:     " + std::to_string(port) + " \n"), std::string::npos);
    EXPECT_NE(log.find(" Interval: 1 \n"), std::string::npos);
    EXPECT_NE(log.find(" Verbose Logging: OFF\n"), std::string::npos);
    EXPECT_TRUE(std::regex_search(log, std::regex(" Time:     \\S+ \\d\\d:\\d\\d:\\d\\d \\d\\d-\\w{3}-\\d{4} \n\n")));

    std::string lock = slurp(root.lock_file());
    std::string pid = std::to_string(agent.pid());
    EXPECT_TRUE(std::regex_search(
        lock, std::regex("^" + pid + "@-1@" + std::to_string(port) + "@\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}PID~" + pid + "\nSTARTED~")))
        << lock;
    EXPECT_NE(lock.find("\nVERSION~V10.0-001:Feb 23 2012\nINSTALL_DIR~" + root.path + "\n"), std::string::npos);
    EXPECT_NE(lock.find("\nPROCESSES~1\nSCAN_RATE~1\nUSER~root\n"), std::string::npos) << lock;
    EXPECT_EQ(fs::status(root.lock_file()).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);

    auto status = run_agent(root, {"-status"});
    EXPECT_EQ(status.exit_code, 0);
    EXPECT_NE(status.out.find("\nvornrta is running (pid " + pid + ") \n\n"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("Data port\t\t\t:\t" + std::to_string(port) + "\n"), std::string::npos);
    EXPECT_NE(status.out.find("Scan rate (sec)\t\t\t:\t1 \n"), std::string::npos);
    EXPECT_NE(status.out.find("Install directory\t\t:\t" + root.path + "\n"), std::string::npos);
    EXPECT_NE(status.out.find("Alerts\t\t\t\t:\tOn\nProcesses\t\t\t:\tOn\n"), std::string::npos);
    EXPECT_EQ(status.out.find("Priority"), std::string::npos) << "the lock reader has no priority key";

    auto second = run_agent(root, {"-nofork"});
    EXPECT_EQ(second.exit_code, 0);
    EXPECT_NE(second.out.find("vornrta is running (pid " + pid + ")"), std::string::npos) << second.out;
    EXPECT_EQ(second.out.find("started (pid"), std::string::npos);
    EXPECT_TRUE(fs::exists(root.lock_file())) << "a refused start leaves the running agent's lock";

    auto stop = run_agent(root, {"-stop"});
    EXPECT_EQ(stop.exit_code, 1);
    EXPECT_NE(stop.out.find("\nStopping vornrta (pid " + pid + ")\n"), std::string::npos) << stop.out;
    EXPECT_EQ(agent.wait_exit(10000), 0);
    EXPECT_FALSE(fs::exists(root.lock_file()));

    auto after = run_agent(root, {"-status"});
    EXPECT_NE(after.out.find("vornrta is not running.\n"), std::string::npos) << after.out << after.err;
}

TEST(AgentControl, StaleLockIsReplacedOnStatusAndOnStart) {
    InstallRoot root;
    int port = free_port();
    {
        Agent agent(root, {"-nofork", "-port", std::to_string(port)});
        ASSERT_TRUE(agent.wait_listening(port));
        kill(agent.pid(), SIGKILL);
        agent.wait_exit(5000);
    }
    ASSERT_TRUE(fs::exists(root.lock_file()));
    auto status = run_agent(root, {"-status"});
    EXPECT_EQ(status.exit_code, 0);
    EXPECT_NE(status.out.find("vornrta is not running.\n"), std::string::npos) << status.out << status.err;
    EXPECT_FALSE(fs::exists(root.lock_file())) << "-status with the lock switch deletes a stale lock";

    {
        Agent agent(root, {"-nofork", "-port", std::to_string(port)});
        ASSERT_TRUE(agent.wait_listening(port));
        kill(agent.pid(), SIGKILL);
        agent.wait_exit(5000);
    }
    Agent again(root, {"-nofork", "-port", std::to_string(port)});
    ASSERT_TRUE(again.wait_listening(port));
    EXPECT_NE(again.err().find(" Found old lockfile, deleting...\n"), std::string::npos) << again.err();
    EXPECT_NE(slurp(root.lock_file()).find("PID~" + std::to_string(again.pid()) + "\n"), std::string::npos);
    EXPECT_EQ(again.stop(), 0);
}

TEST(AgentControl, OccupiedPortIsFatalAndRemovesTheLock) {
    InstallRoot root;
    int blocker = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    socklen_t len = sizeof addr;
    getsockname(blocker, reinterpret_cast<sockaddr*>(&addr), &len);
    listen(blocker, 1);
    int port = ntohs(addr.sin_port);

    auto run = run_agent(root, {"-nofork", "-port", std::to_string(port)});
    close(blocker);
    EXPECT_EQ(run.exit_code, 0);
    std::string fatal = "FATAL: error creating server socket on port " + std::to_string(port) +
                        " : Address already in use\n";
    EXPECT_NE(run.err.find(fatal), std::string::npos) << run.err;
    EXPECT_NE(root.log_text().find(fatal), std::string::npos);
    EXPECT_FALSE(fs::exists(root.lock_file()));
}

TEST(AgentControl, DaemonModeParentExitsAndLockNamesTheChild) {
    InstallRoot root;
    int port = free_port();
    auto parent = run_agent(root, {"-port", std::to_string(port)});
    EXPECT_EQ(parent.exit_code, 0);
    int child = -1;
    ASSERT_TRUE(wait_until([&] {
        child = pid_from_started_line(slurp(root.path + "/run.out"));
        return child > 0;
    }, 10000));
    EXPECT_TRUE(wait_until([&] { return fs::exists(root.lock_file()); }, 5000));
    EXPECT_NE(slurp(root.lock_file()).find("PID~" + std::to_string(child) + "\n"), std::string::npos);
    EXPECT_NE(root.log_text().find("\n pid:    " + std::to_string(child) + "\n"), std::string::npos);

    auto stop = run_agent(root, {"-stop"});
    EXPECT_EQ(stop.exit_code, 1);
    EXPECT_TRUE(wait_until([&] { return kill(child, 0) != 0; }, 10000)) << "daemon did not stop";
    EXPECT_FALSE(fs::exists(root.lock_file()));
}

TEST(AgentControl, UsageAndArgumentErrors) {
    InstallRoot root;
    auto usage = run_agent(root, {"-bogus"});
    EXPECT_EQ(usage.exit_code, 0);
    EXPECT_NE(usage.out.find("\nUsage\t:\n\n"), std::string::npos) << usage.out;
    // An update with no root starts nothing, even with the options that start an agent.
    auto update = run_agent(root, {"-nofork", "-port", std::to_string(free_port()), "-update"}, 5);
    EXPECT_EQ(update.exit_code, 0);
    EXPECT_NE(update.out.find("\nUsage\t:\n\n"), std::string::npos) << update.out;
    auto missing = run_agent(root, {"-logdir"});
    EXPECT_EQ(missing.exit_code, 0);
    EXPECT_NE(missing.err.find("-logdir option requires an argument\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(root.lock_file()));
}

TEST(AgentControl, SilentAndFloodingClientsDoNotDisturbOthers) {
    InstallRoot root;
    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port)});
    ASSERT_TRUE(agent.wait_listening(port));
    Client silent(port);
    Client flood(port);
    ASSERT_TRUE(silent.ok() && flood.ok());
    std::thread flooder([&] { flood.send(std::string(3 << 20, 'x')); });
    bool eof = false;
    Client probe(port);
    probe.send("hello\n<INTERVAL>\n4\n");
    probe.read_to_end(10000, &eof);
    EXPECT_TRUE(eof) << "the interval request must be served and closed while others hang";
    shutdown(flood.fd(), SHUT_RDWR);  // unblocks the flooder; the descriptor closes after it
    flooder.join();
    EXPECT_TRUE(wait_for_log(root, "VORNRTA-I-REQDET: request:  127.0.0.1,  hello\n", 5000));
    EXPECT_NE(root.log_text().find("<INTERVAL> tag \n"), std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_FALSE(fs::exists(root.lock_file()));
}

}  // namespace
