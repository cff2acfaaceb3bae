// Who may connect and what one address can hold, seen from outside: ADDRESS~ and ALLOW~,
// refusals logged once a minute, 32 connections an address, the listen backlog, the
// descriptor reserve, the data connection's send timeout, ports beyond 65535, and the
// start-up lines of verbose logging.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;
using namespace std::chrono_literals;
const std::string kNoAlerts = "<GETEXP>\n<ALERTS>\n</ALERTS>\n";

int count_of(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

sockaddr_in address(const char* dotted, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, dotted, &a.sin_addr);
    return a;
}

// A connection from `source` to `dest`:port, -1 when refused; a non-blocking one may still
// be under way.
int connect_from(const char* source, const char* dest, int port, bool nonblocking = false) {
    int fd = socket(AF_INET, SOCK_STREAM | (nonblocking ? SOCK_NONBLOCK : 0), 0);
    sockaddr_in local = address(source, 0), remote = address(dest, port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == 0 &&
        (connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0 ||
         (nonblocking && errno == EINPROGRESS)))
        return fd;
    close(fd);
    return -1;
}

// True when the agent has closed the connection without a word.
bool closed_unserved(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    char c;
    return poll(&p, 1, ms) > 0 && recv(fd, &c, 1, 0) <= 0;
}

struct Access : ::testing::Test {
    InstallRoot root;
    int port = free_port();
    std::unique_ptr<Agent> agent;
    std::vector<int> fds;
    void start(const std::string& settings = "", std::vector<std::string> extra = {}) {
        std::ofstream(root.settings_file()) << settings;
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

TEST_F(Access, TheServerBindsItsAddressAndServesOnlyAllowedConsoles) {
    start("ADDRESS~127.0.0.1\nALLOW~127.0.0.2, 127.0.1.0/24\n");
    EXPECT_EQ(connect_from("127.0.0.3", "127.0.0.3", port), -1) << "only 127.0.0.1 is bound";
    for (const char* console : {"127.0.0.2", "127.0.1.7"})
        EXPECT_EQ(request(port, "<GETALERTS>\n", 15000, console), kNoAlerts) << console;
    for (int i = 0; i < 5; ++i) {
        fds.push_back(connect_from("127.0.0.1", "127.0.0.1", port));
        send(fds.back(), "<GETALERTS>\n", 12, MSG_NOSIGNAL);
        EXPECT_TRUE(closed_unserved(fds.back(), 2000));
    }
    ASSERT_TRUE(wait_for_log(root, "refused: not in ALLOW~", 3000));
    std::string log = root.log_text();
    EXPECT_EQ(
        count_of(log, "VORNRTA-W-REFUSED:  connection from 127.0.0.1 refused: not in ALLOW~\n"), 1);
    EXPECT_EQ(count_of(log, "request:  127.0.0.1,"), 0) << "nothing of a refused console is read";
}

TEST(AccessSettings, BadEntriesAreStartUpErrors) {
    for (auto [settings, fatal] :
         {std::pair{"ALLOW~127.0.0.1, 10.0.0.300\n",
                    "FATAL: ALLOW~ entry '10.0.0.300' is neither an IPv4 "
                    "address (a.b.c.d) nor a prefix (a.b.c.d/n, n up to 32)\n"},
          {"ADDRESS~my-host\n",
           "FATAL: ADDRESS~ value 'my-host' is not an IPv4 address (a.b.c.d)\n"}}) {
        InstallRoot root;
        std::ofstream(root.settings_file()) << settings;
        auto run = run_agent(root, {"-nofork", "-port", std::to_string(free_port())});
        EXPECT_EQ(run.exit_code, 1) << settings;
        EXPECT_NE(run.err.find(fatal), std::string::npos) << run.err;
        EXPECT_FALSE(std::filesystem::exists(root.lock_file()));
    }
}

// The 33rd connection of an address and later ones are closed at once, once logged; other
// addresses are served, and a slot that frees is usable again.
TEST_F(Access, OneAddressHoldsAtMost32Connections) {
    start();
    for (int i = 0; i < 40; ++i) fds.push_back(connect_from("127.0.0.5", "127.0.0.1", port));
    std::this_thread::sleep_for(500ms);
    int closed = 0;
    for (int fd : fds) closed += closed_unserved(fd, 0);
    EXPECT_EQ(closed, 8);
    EXPECT_EQ(request(port, "<GETALERTS>\n", 15000, "127.0.0.6"), kNoAlerts);
    EXPECT_EQ(
        count_of(root.log_text(),
                 "connection from 127.0.0.5 refused: too many connections from this address\n"),
        1);
    close(fds[0]);
    std::this_thread::sleep_for(300ms);  // the agent sees it end
    fds[0] = connect_from("127.0.0.5", "127.0.0.1", port);
    EXPECT_FALSE(closed_unserved(fds[0], 500)) << "a freed slot is served";
}

// While the agent is busy (here: stopped), a burst of 150 consoles waits in the listen queue
// instead of having its connections dropped and retried a second later.
TEST_F(Access, TheListenBacklogAbsorbsABurst) {
    start();
    ASSERT_EQ(kill(agent->pid(), SIGSTOP), 0);
    for (int i = 0; i < 150; ++i)
        fds.push_back(connect_from(("127.0.2." + std::to_string(1 + i % 50)).c_str(), "127.0.0.1",
                                   port, true));
    std::this_thread::sleep_for(700ms);
    int connected = 0;
    for (int fd : fds) {
        pollfd p{fd, POLLOUT, 0};
        int err = -1;
        socklen_t len = sizeof err;
        connected += poll(&p, 1, 0) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 &&
                     err == 0;
    }
    kill(agent->pid(), SIGCONT);
    EXPECT_GE(connected, 145);
}

// Idle connections from many addresses under a descriptor limit of 160 leave the scan its
// descriptors: packets keep coming, and no open fails.
TEST_F(Access, DescriptorsAreKeptInReserveForTheScan) {
    start("", {"-collectprocess"});
    Client data(port);
    ASSERT_TRUE(data.send("<DATA>\n1\n"));
    ASSERT_FALSE(data.read_packet(10000).empty());
    rlimit limit{160, 160};
    ASSERT_EQ(prlimit(agent->pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
    for (int i = 0; i < 180; ++i)
        fds.push_back(
            connect_from(("127.0.3." + std::to_string(1 + i % 6)).c_str(), "127.0.0.1", port));
    std::this_thread::sleep_for(1500ms);
    data.read_to_end(100);
    for (int i = 0; i < 3; ++i) ASSERT_FALSE(data.read_packet(5000).empty()) << "packets stopped";
    EXPECT_TRUE(wait_for_log(root, "refused: too many connections\n", 3000));
    EXPECT_EQ(count_of(root.log_text(), "Too many open files"), 0);
}

// SO_SNDTIMEO of the agent's end of a console's data connection (through pidfd_getfd); -1
// when this host does not let us look.
long agent_send_timeout(pid_t agent, int agent_port, const Client& console) {
    sockaddr_in local{};
    socklen_t len = sizeof local;
    getsockname(console.fd(), reinterpret_cast<sockaddr*>(&local), &len);
    unsigned long inode = 0;
    std::ifstream tcp("/proc/net/tcp");
    for (std::string line; inode == 0 && std::getline(tcp, line);) {
        unsigned lport = 0, rport = 0;
        unsigned long ino = 0;
        if (sscanf(line.c_str(),
                   " %*d: %*8s:%4X %*8s:%4X %*2X %*8X:%*8X %*2X:%*8X %*8X %*d %*d %lu", &lport,
                   &rport, &ino) == 3 &&
            int(lport) == agent_port && rport == ntohs(local.sin_port))
            inode = ino;
    }
    const std::string want = "socket:[" + std::to_string(inode) + "]";
    for (auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(agent) + "/fd")) {
        std::error_code ec;
        if (std::filesystem::read_symlink(entry.path(), ec).string() != want) continue;
        int pidfd = static_cast<int>(syscall(SYS_pidfd_open, agent, 0));
        int fd = pidfd < 0 ? -1
                           : static_cast<int>(syscall(SYS_pidfd_getfd, pidfd,
                                                      std::stoi(entry.path().filename()), 0));
        timeval tv{-1, 0};
        len = sizeof tv;
        if (fd >= 0) getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len);
        close(fd);
        close(pidfd);
        return tv.tv_sec;
    }
    return -1;
}

// The interval is the console's to set; the send timeout of the data connection stays a few
// seconds all the same (three intervals made 700000000 s a 66-year stall of the ticks, and
// 1000000000 overflowed).
TEST_F(Access, TheSendTimeoutStaysShortWhateverTheInterval) {
    start();
    for (const char* interval : {"700000000", "1000000000"}) {
        EXPECT_EQ(request(port, std::string("<INTERVAL>\n") + interval + "\n", 5000), "");
        Client console(port);
        ASSERT_TRUE(console.send("<DATA>\n1\n"));
        ASSERT_FALSE(console.read_packet(10000).empty());
        long timeout = agent_send_timeout(agent->pid(), port, console);
        if (timeout < 0) GTEST_SKIP() << "cannot look at the agent's sockets here";
        EXPECT_GE(timeout, 1) << interval;
        EXPECT_LE(timeout, 10) << interval;
    }
}

TEST(AccessSettings, APortBeyond65535IsFatal) {
    InstallRoot root;
    auto run = run_agent(root, {"-nofork", "-port", "70000"});
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_NE(
        run.err.find("FATAL: error creating server socket on port 70000 : Invalid argument\n"),
        std::string::npos)
        << run.err;
}

TEST(AccessSettings, FallbackLinesOnlyWithVerboseLoggingOnceEach) {
    for (bool verbose : {false, true}) {
        InstallRoot root;
        int port = free_port();
        std::vector<std::string> args{"-nofork", "-port", std::to_string(port)};
        if (verbose) args.push_back("-verbose");
        Agent agent(root, args);
        ASSERT_TRUE(agent.wait_listening(port)) << agent.err();
        ASSERT_TRUE(wait_for_log(root, "Waiting for connection request on port", 3000));
        std::this_thread::sleep_for(200ms);
        for (const char* line :
             {"Fallback: Entered...\n", "Fallback:  malloc  for MetricDescription\n"})
            EXPECT_EQ(count_of(root.log_text(), line), verbose ? 1 : 0) << line;
        EXPECT_EQ(agent.stop(), 0);
    }
}

}  // namespace
