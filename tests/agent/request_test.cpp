// How the request server reads a console: the one line reader (NUL bytes, over-long lines),
// the deadline of a request connection, the bounded logging of what a console sends.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/rtdc_lineread.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_event.h"
#include "control/rta_cmdline.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::vector<std::string> read_all(const std::string& input, size_t cap, bool text) {
    std::string copy = input;
    FILE* f = fmemopen(copy.data(), copy.size(), "r");
    std::vector<std::string> lines;
    std::vector<char> buf(cap);
    size_t n = 0;
    while (text ? rtdc_read_text_line(f, buf.data(), cap, &n)
                : rtdc_read_line(f, buf.data(), cap, &n)) {
        EXPECT_EQ(buf[n], '\0');
        lines.emplace_back(buf.data(), n);
    }
    fclose(f);
    return lines;
}

TEST(LineReader, ALineIsEverythingUpToItsNewlineCutAtTheBuffer) {
    using S = std::string;
    const S nul("R\0X:a:b\n</EXPDEF>\n", 18);
    struct Case {
        S input;
        size_t cap;
        std::vector<S> raw, text;
    } cases[] = {
        {"a\nbb\n", 8, {"a\n", "bb\n"}, {"a\n", "bb\n"}},
        // A NUL is a byte of its line: the end tag on the next line is still a line of its own.
        {nul, 512, {S("R\0X:a:b\n", 8), "</EXPDEF>\n"}, {"R\n", "</EXPDEF>\n"}},
        // Over-long: the first cap - 1 bytes, then the rest as the following lines.
        {"abcdefgh\nz\n", 4, {"abc", "def", "gh\n", "z\n"}, {"abc", "def", "gh\n", "z\n"}},
        {S("ab\0de\0gh\n", 9), 4, {S("ab\0", 3), S("de\0", 3), "gh\n"}, {"ab", "de", "gh\n"}},
        {"last line without newline",
         512,
         {"last line without newline"},
         {"last line without newline"}},
        {"\n\n", 512, {"\n", "\n"}, {"\n", "\n"}},
        {"", 512, {}, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(read_all(c.input, c.cap, false), c.raw) << c.input;
        EXPECT_EQ(read_all(c.input, c.cap, true), c.text) << c.input;
    }
}

// Ends the console's side when a test leaves, so that a server still reading lets go and
// the test fails instead of waiting on it for ever.
struct Hangup {
    int fd;
    ~Hangup() { shutdown(fd, SHUT_RDWR); }
};

// Serves one request on one end of a socketpair; the test plays the console on the other.
struct RequestServer : ::testing::Test {
    char dir[32] = "/tmp/vornreqXXXXXX";
    int console = -1, agent = -1;

    void SetUp() override {
        ASSERT_NE(mkdtemp(dir), nullptr);
        snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", dir);
        snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "reqhost");
        rtdc_log_reset_for_tests();
        no_events = 0;
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        console = sv[0];
        agent = sv[1];
    }
    void TearDown() override {
        if (console >= 0) close(console);
        no_events = 0;
        rtdc_log_reset_for_tests();
        std::string cmd = std::string("rm -rf ") + dir;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
    // Runs the request on its own thread; the result is ready when the server let go.
    std::future<void> serve(Clock::duration lifetime) {
        auto deadline = Clock::now() + lifetime;
        int fd = agent;
        return std::async(std::launch::async,
                          [fd, deadline] { rtdc_serve_request(fd, " 127.0.0.9", deadline); });
    }
    void say(const std::string& text) const {
        ASSERT_EQ(send(console, text.data(), text.size(), MSG_NOSIGNAL), ssize_t(text.size()));
    }
    std::string log() const {
        std::ifstream in(logfilec);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    static int count(const std::string& hay, const std::string& needle) {
        int n = 0;
        for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
        return n;
    }
};

// A client that trickles one event every 100 ms would hold the event store for ever with an
// idle limit alone; the deadline ends it, and the lines read until then are kept. (A silent
// client is the simpler case of the same read.)
TEST_F(RequestServer, ATricklingClientIsCutOffAtTheDeadlineKeepingWhatItSent) {
    auto start = Clock::now();
    auto done = serve(1500ms);
    Hangup hangup{console};
    say("<EVENT>\n");
    int sent = 0;
    while (done.wait_for(100ms) != std::future_status::ready && Clock::now() - start < 6s) {
        say("event " + std::to_string(sent++) + "\n");
    }
    ASSERT_EQ(done.wait_for(0s), std::future_status::ready) << "the request outlived its deadline";
    EXPECT_LT(Clock::now() - start, 2500ms) << "not even the linger after a request outlasts it";
    EXPECT_GE(no_events, 5);
    EXPECT_LE(no_events, sent);
    EXPECT_STREQ(eventlist[0], "event 0\n");
    // The connection was closed (reset, as events sent after the deadline went unread).
    char c;
    EXPECT_LE(recv(console, &c, 1, 0), 0);
}

// An event line holding a NUL keeps its newline, so the reply stays one event a line.
TEST_F(RequestServer, AnEventWithANulByteIsItsTextBeforeTheNul) {
    auto done = serve(5s);
    Hangup hangup{console};
    say(std::string("<EVENT>\nab\0cd\nnext\n", 19));
    shutdown(console, SHUT_WR);
    ASSERT_EQ(done.wait_for(5s), std::future_status::ready);
    ASSERT_EQ(no_events, 2);
    EXPECT_STREQ(eventlist[0], "ab\n");
    EXPECT_STREQ(eventlist[1], "next\n");
}

// Every line before a tag is logged up to the first twenty; the rest are counted in one line.
TEST_F(RequestServer, AConnectionsFirstLinesAreLoggedAndTheRestCounted) {
    auto done = serve(5s);
    Hangup hangup{console};
    std::string garbage;
    for (int i = 0; i < 500; ++i) garbage += "garbage line " + std::to_string(i) + "\n";
    say(garbage);
    shutdown(console, SHUT_WR);
    ASSERT_EQ(done.wait_for(5s), std::future_status::ready);
    std::string text = log();
    EXPECT_EQ(count(text, "VORNRTA-I-REQDET: request:  127.0.0.9,  garbage line "), 20);
    EXPECT_NE(text.find("VORNRTA-I-REQDET: request:  127.0.0.9,  garbage line 19\n"),
              std::string::npos);
    EXPECT_EQ(count(text, "VORNRTA-I-REQDET: request:  127.0.0.9,  480 more lines not logged\n"),
              1);
}

}  // namespace
