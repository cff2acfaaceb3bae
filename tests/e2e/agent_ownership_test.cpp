// Which agent a command acts on: a lock belongs to the agent that wrote it, -status and -stop
// see only the agent of their own install root, a relative root means where it was typed,
// and root can stop an agent that runs under another account, which still reads every
// process's counters.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "agent_harness.h"

extern char** environ;

namespace {
using namespace e2e;
namespace fs = std::filesystem;

bool exists(const std::string& path) { return fs::exists(path); }

// What a one-shot command said after the banner every run prints first.
std::string said(const RunResult& r) {
    std::string all = r.out + r.err;
    size_t build = all.find("Build: ");
    return build == std::string::npos ? all : all.substr(all.find('\n', build) + 1);
}

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TEST(AgentOwnership, LockAndLookupsStayWithTheirOwnRoot) {
    InstallRoot mine, other;
    int port = free_port();
    Agent agent(mine, {"-nofork", "-port", std::to_string(port)});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
    ASSERT_TRUE(exists(mine.lock_file()));

    // An agent without a lock that fails on the busy port leaves the holder's lock alone.
    RunResult loser = run_agent(mine, {"-nofork", "-nolock", "-port", std::to_string(port)});
    EXPECT_NE(loser.err.find("Address already in use"), std::string::npos) << loser.err;
    EXPECT_TRUE(exists(mine.lock_file()));

    // Another root has no agent, whatever runs elsewhere under the same name.
    RunResult status = run_agent(other, {"-status"});
    EXPECT_EQ(said(status), "vornrta is not running.\n");
    RunResult stop = run_agent(other, {"-stop"});
    EXPECT_EQ(said(stop), "\nvornrta is not running\n");
    EXPECT_EQ(kill(agent.pid(), 0), 0) << "stopped from another root";

    // Without its lock our own agent is still found, by name and root.
    fs::remove(mine.lock_file());
    status = run_agent(mine, {"-status"});
    EXPECT_EQ(status.err, "vornrta: unable to open lockfile, " + mine.lock_file() + "\nvornrta: running as pid " +
                              std::to_string(agent.pid()) + " \n");
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentOwnership, RelativeRootNamesWhereItWasTyped) {
    InstallRoot root;
    const std::string relative = fs::relative(root.path).string();
    ASSERT_NE(relative[0], '/');
    int port = free_port();
    Agent agent(root, {"-rootdir", relative, "-nofork", "-port", std::to_string(port)});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
    EXPECT_NE(slurp(root.lock_file()).find("PID~" + std::to_string(agent.pid()) + "\n"),
              std::string::npos);
    RunResult status = run_agent(root, {"-rootdir", relative, "-status"});
    EXPECT_NE(status.out.find("vornrta is running (pid " + std::to_string(agent.pid()) + ")"), std::string::npos)
        << status.out << status.err;
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_FALSE(exists(root.lock_file()));
}

// The value of a process's counter in a data packet, found through its id in the header.
std::string process_value(const std::string& header, const std::string& data, pid_t pid, const std::string& row) {
    std::smatch m;
    std::regex id_re("\\(" + std::to_string(pid) + "\\)->" + row + "::(\\d+)::");
    if (!std::regex_search(header, m, id_re)) return "no row";
    std::regex value_re("\n" + m[1].str() + "=([^\n]*)\n");
    return std::regex_search(data, m, value_re) ? m[1].str() : "no value";
}

TEST(AgentOwnership, RootStopsAnAgentOfAnotherAccountThatReadsEveryProcess) {
    if (geteuid() != 0) GTEST_SKIP() << "switching accounts needs root";
    InstallRoot root;
    chmod(root.path.c_str(), 0755);
    for (const char* dir : {"/logs", "/tmp"}) chmod((root.path + dir).c_str(), 0777);
    // A root process, of another account than the agent's: its I/O so far is the reads of
    // starting up.
    pid_t sleeper = -1;
    char* argv[] = {const_cast<char*>("sleep"), const_cast<char*>("60"), nullptr};
    ASSERT_EQ(posix_spawn(&sleeper, "/bin/sleep", nullptr, nullptr, argv, environ), 0);

    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port), "-scan", "1", "-collectprocess", "-user", "nobody"});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    std::string header = console.read_packet(60000), data = console.read_packet(10000);
    data += console.read_packet(10000);
    kill(sleeper, SIGKILL);
    waitpid(sleeper, nullptr, 0);
    const std::string io = process_value(header, data, sleeper, "IO Chars");
    EXPECT_NE(io, "0") << "another account's I/O reads as nothing";
    EXPECT_NE(io.find_first_of("123456789"), std::string::npos) << io;

    RunResult stop = run_agent(root, {"-stop"});
    EXPECT_EQ(said(stop), "\nStopping vornrta (pid " + std::to_string(agent.pid()) + ")\n");
    EXPECT_EQ(agent.wait_exit(10000), 0) << "the agent outlived -stop";
}

}  // namespace
