// Who may connect and what one address can hold, seen from outside: the bind address and
// the allowed consoles of the settings file, refusals logged once a minute, the connections
// one address may hold, the listen backlog, the descriptor reserve, the send timeout of the
// data connection, ports TCP has no room for, and the start-up log lines.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

int count_of(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

// A connection from `source` to `dest`:port; -1 when it could not be made. Non-blocking
// ones return at once with the connection under way.
int connect_from(const char* source, const char* dest, int port, bool nonblocking = false) {
    int fd = socket(AF_INET, SOCK_STREAM | (nonblocking ? SOCK_NONBLOCK : 0), 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, source, &local.sin_addr);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, dest, &remote.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0 ||
        (connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) < 0 &&
         !(nonblocking && errno == EINPROGRESS))) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the agent closed the connection within `ms` without a word.
bool closed_unserved(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return false;
    char c;
    return recv(fd, &c, 1, 0) <= 0;
}

void write_settings(const InstallRoot& root, const std::string& text) {
    std::ofstream(root.settings_file()) << text;
}

TEST(WhoMayConnect, TheServerBindsItsAddressAndServesOnlyAllowedConsoles) {
    InstallRoot root;
    int port = free_port();
    write_settings(root, "ADDRESS~127.0.0.1\nALLOW~127.0.0.2, 127.0.1.0/24\n");
    Agent agent(root, {"-nofork", "-port", std::to_string(port)});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();

    EXPECT_EQ(connect_from("127.0.0.3", "127.0.0.3", port), -1) << "only 127.0.0.1 is bound";
    for (const char* console : {"127.0.0.2", "127.0.1.7"})
        EXPECT_EQ(request(port, "<GETALERTS>\n", 15000, console), "<GETEXP>\n<ALERTS>\n</ALERTS>\n")
            << console;

    for (int i = 0; i < 5; ++i) {
        int fd = connect_from("127.0.0.1", "127.0.0.1", port);
        ASSERT_GE(fd, 0);
        send(fd, "<GETALERTS>\n", 12, MSG_NOSIGNAL);
        EXPECT_TRUE(closed_unserved(fd, 2000));
        close(fd);
    }
    ASSERT_TRUE(wait_for_log(root, "refused: not in ALLOW~", 3000));
    std::string log = root.log_text();
    EXPECT_EQ(
        count_of(log, "VORNRTA-W-REFUSED:  connection from 127.0.0.1 refused: not in ALLOW~\n"), 1)
        << "a refused address is logged once a minute";
    EXPECT_EQ(count_of(log, "request:  127.0.0.1,"), 0) << "nothing of a refused console is read";
    EXPECT_EQ(agent.stop(), 0);
}

TEST(WhoMayConnect, BadEntriesAreStartUpErrors) {
    const std::pair<const char*, const char*> cases[] = {
        {"ALLOW~127.0.0.1, 10.0.0.300\n",
         "FATAL: ALLOW~ entry '10.0.0.300' is neither an IPv4 address (a.b.c.d) nor a prefix"
         " (a.b.c.d/n, n up to 32)\n"},
        {"ALLOW~10.0.0.0/33\n", "FATAL: ALLOW~ entry '10.0.0.0/33' is neither"},
        {"ADDRESS~my-host\n",
         "FATAL: ADDRESS~ value 'my-host' is not an IPv4 address (a.b.c.d)\n"}};
    for (auto [settings, fatal] : cases) {
        InstallRoot root;
        write_settings(root, settings);
        auto run = run_agent(root, {"-nofork", "-port", std::to_string(free_port())});
        EXPECT_EQ(run.exit_code, 1) << settings;
        EXPECT_NE(run.err.find(fatal), std::string::npos) << run.err;
        EXPECT_FALSE(std::filesystem::exists(root.lock_file()));
    }
}

struct Limits : ::testing::Test {
    InstallRoot root;
    int port = free_port();
    std::unique_ptr<Agent> agent;
    std::vector<int> fds;
    void start(std::vector<std::string> extra = {}) {
        std::vector<std::string> args{"-nofork", "-port", std::to_string(port), "-scan", "1"};
        args.insert(args.end(), extra.begin(), extra.end());
        agent = std::make_unique<Agent>(root, args);
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    }
    void TearDown() override {
        for (int fd : fds) close(fd);
        if (agent) {
            EXPECT_EQ(agent->stop(), 0);
        }
    }
};

// 32 connections an address; the 33rd and later are closed at once, other addresses are
// served, and a slot that frees is usable again.
TEST_F(Limits, OneAddressHoldsAtMost32Connections) {
    start();
    for (int i = 0; i < 40; ++i) fds.push_back(connect_from("127.0.0.5", "127.0.0.1", port));
    std::this_thread::sleep_for(500ms);
    int closed = 0;
    for (int fd : fds) closed += closed_unserved(fd, 0);
    EXPECT_EQ(closed, 8);
    EXPECT_EQ(request(port, "<GETALERTS>\n", 15000, "127.0.0.6"),
              "<GETEXP>\n<ALERTS>\n</ALERTS>\n");
    EXPECT_TRUE(wait_for_log(
        root, "connection from 127.0.0.5 refused: too many connections from this address\n", 3000));
    EXPECT_EQ(count_of(root.log_text(), "connection from 127.0.0.5 refused"), 1);
    for (int i = 0; i < 5; ++i) close(fds[i]);
    fds.erase(fds.begin(), fds.begin() + 5);
    std::this_thread::sleep_for(300ms);
    int again = connect_from("127.0.0.5", "127.0.0.1", port);
    EXPECT_FALSE(closed_unserved(again, 500)) << "a freed slot is served";
    close(again);
}

// While the agent is busy (here: stopped), a burst of consoles waits in the listen queue
// instead of having its connection attempts dropped and retried a second later.
TEST_F(Limits, TheListenBacklogAbsorbsABurst) {
    start();
    ASSERT_EQ(kill(agent->pid(), SIGSTOP), 0);
    for (int i = 0; i < 150; ++i) {
        std::string source = "127.0.2." + std::to_string(1 + i % 50);
        fds.push_back(connect_from(source.c_str(), "127.0.0.1", port, true));
    }
    std::this_thread::sleep_for(700ms);
    int connected = 0;
    for (int fd : fds) {
        pollfd p{fd, POLLOUT, 0};
        int err = -1;
        socklen_t len = sizeof err;
        if (fd >= 0 && poll(&p, 1, 0) == 1 &&
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0)
            ++connected;
    }
    kill(agent->pid(), SIGCONT);
    EXPECT_GE(connected, 145);
}

// A flood of idle connections from many addresses leaves the scan its descriptors: packets
// keep coming with the process class in them.
TEST_F(Limits, DescriptorsAreKeptInReserveForTheScan) {
    start({"-collectprocess"});
    Client data(port);
    ASSERT_TRUE(data.send("<DATA>\n1\n"));
    ASSERT_FALSE(data.read_packet(10000).empty());
    rlimit limit{160, 160};
    ASSERT_EQ(prlimit(agent->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    for (int a = 1; a <= 6; ++a)
        for (int i = 0; i < 30; ++i) {
            std::string source = "127.0.3." + std::to_string(a);
            int fd = connect_from(source.c_str(), "127.0.0.1", port);
            if (fd >= 0) fds.push_back(fd);
        }
    std::this_thread::sleep_for(1500ms);
    data.read_to_end(100);  // what came before the flood
    int with_processes = 0;
    for (int i = 0; i < 3; ++i) {
        std::string packet = data.read_packet(5000);
        ASSERT_FALSE(packet.empty()) << "packets stopped";
        with_processes += packet.find("\nProcess~^") != std::string::npos ||
                          packet.find("\n1") != std::string::npos;
    }
    EXPECT_EQ(with_processes, 3);
    EXPECT_TRUE(wait_for_log(root, "refused: too many connections\n", 3000));
    EXPECT_EQ(count_of(root.log_text(), "Too many open files"), 0)
        << root.log_text().substr(0, 3000);
}

// The socket inode of the agent's end of the connection from a console's local port.
unsigned long agent_end_inode(int agent_port, int console_port) {
    std::ifstream in("/proc/net/tcp");
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        unsigned local_port = 0, remote_port = 0;
        unsigned long inode = 0;
        if (sscanf(line.c_str(),
                   " %*d: %*8s:%4X %*8s:%4X %*2X %*8X:%*8X %*2X:%*8X %*8X %*d %*d %lu", &local_port,
                   &remote_port, &inode) == 3 &&
            int(local_port) == agent_port && int(remote_port) == console_port)
            return inode;
    }
    return 0;
}

// The send timeout, in seconds, the agent set on its end of a console's connection; -1 when
// this host does not let us look (pidfd_getfd needs ptrace rights over the agent).
long agent_send_timeout(pid_t agent, int agent_port, int console_port) {
    const std::string want =
        "socket:[" + std::to_string(agent_end_inode(agent_port, console_port)) + "]";
    const std::string dir = "/proc/" + std::to_string(agent) + "/fd";
    for (auto& entry : std::filesystem::directory_iterator(dir)) {
        std::error_code ec;
        if (std::filesystem::read_symlink(entry.path(), ec).string() != want) continue;
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, agent, 0));
        if (pidfd < 0) return -1;
        int fd = static_cast<int>(
            syscall(SYS_pidfd_getfd, pidfd, std::stoi(entry.path().filename()), 0));
        close(pidfd);
        if (fd < 0) return -1;
        timeval tv{};
        socklen_t len = sizeof tv;
        getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len);
        close(fd);
        return tv.tv_sec;
    }
    return -1;
}

// The console sets the interval; the send timeout of the data connection stays a few seconds
// all the same, so a console that stops reading cannot hold the ticks for long (700000000 s
// made it 66 years; 1000000000 overflowed the product).
TEST_F(Limits, TheSendTimeoutStaysShortWhateverTheInterval) {
    start();
    for (const char* interval : {"700000000", "1000000000"}) {
        EXPECT_EQ(request(port, std::string("<INTERVAL>\n") + interval + "\n", 5000), "");
        Client console(port);
        ASSERT_TRUE(console.send("<DATA>\n1\n"));
        ASSERT_FALSE(console.read_packet(10000).empty());
        sockaddr_in addr{};
        socklen_t len = sizeof addr;
        getsockname(console.fd(), reinterpret_cast<sockaddr*>(&addr), &len);
        long timeout = agent_send_timeout(agent->pid(), port, ntohs(addr.sin_port));
        if (timeout < 0) GTEST_SKIP() << "cannot look at the agent's sockets here";
        EXPECT_GE(timeout, 1) << interval;
        EXPECT_LE(timeout, 10) << interval;
    }
}

TEST(Port, APortBeyondTcpsRangeIsFatal) {
    InstallRoot root;
    auto run = run_agent(root, {"-nofork", "-port", "70000"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_NE(
        run.err.find("FATAL: error creating server socket on port 70000 : Invalid argument\n"),
        std::string::npos)
        << run.err;
    EXPECT_NE(root.log_text().find("ERROR: binding socket to  port 70000\n"), std::string::npos);
}

TEST(StartUpLog, FallbackLinesOnlyWithVerboseLoggingOnceEach) {
    for (bool verbose : {false, true}) {
        InstallRoot root;
        int port = free_port();
        std::vector<std::string> args{"-nofork", "-port", std::to_string(port)};
        if (verbose) args.push_back("-verbose");
        Agent agent(root, args);
        ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
        ASSERT_TRUE(wait_for_log(root, "Waiting for connection request on port", 3000));
        std::this_thread::sleep_for(200ms);
        std::string log = root.log_text();
        EXPECT_EQ(count_of(log, "Fallback: Entered...\n"), verbose ? 1 : 0);
        EXPECT_EQ(count_of(log, "Fallback:  malloc  for MetricDescription\n"), verbose ? 1 : 0);
        EXPECT_EQ(agent.stop(), 0);
    }
}

}  // namespace
