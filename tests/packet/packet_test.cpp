// Packet framing and sending over a local socket pair.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"

namespace {

struct Parsed {
    std::string prefix_number;
    std::string body;
};

Parsed Parse(const std::string& packet) {
    Parsed p;
    const std::string lead = " \nBUFFERSIZE=";
    EXPECT_EQ(packet.compare(0, lead.size(), lead), 0) << packet.substr(0, 40);
    size_t eol = packet.find('\n', lead.size());
    p.prefix_number = packet.substr(lead.size(), eol - lead.size());
    p.body = packet.substr(eol + 1);
    return p;
}

class Framing : public ::testing::Test {
  protected:
    void SetUp() override {
        PacketNumber = 5;
        FirstBuffer = 1;
        scan_intvl = 2;
    }
    void TearDown() override {
        PacketNumber = 1;
        FirstBuffer = 1;
    }
    // Packetizes the given lines into a buffer sized as the snapshot pass sizes it.
    std::string Pack(std::vector<std::string> headers, std::vector<std::string> data) {
        std::vector<char*> h, d;
        int hint = 0;
        for (auto& s : headers) {
            h.push_back(s.data());
            hint += static_cast<int>(s.size() + 1);
        }
        for (auto& s : data) {
            d.push_back(s.data());
            hint += static_cast<int>(s.size() + 1);
        }
        std::vector<char> out(static_cast<size_t>(hint) + 8192, '\0');
        EXPECT_EQ(rtdc_packetize_data(h.data(), static_cast<int>(h.size()), d.data(),
                                      static_cast<int>(d.size()), out.data(), hint),
                  1);
        return out.data();
    }
};

TEST_F(Framing, EmptyPacketHasBlankSectionsAndCountsEveryBodyByte) {
    Parsed p = Parse(Pack({}, {}));
    std::smatch m;
    const std::regex shape(
        "<START>\n<PACKET>\n5\n</PACKET>\n<TIME>\n(.*)\n</TIME>\n<INTERVAL>\n2\n</INTERVAL>\n"
        "<HEADER>\n </HEADER>\n<DATA>\n </DATA>\n</START>\n");
    ASSERT_TRUE(std::regex_match(p.body, m, shape)) << p.body;
    // zone, hours:minutes:seconds, day-month-year
    EXPECT_TRUE(
        std::regex_match(m[1].str(), std::regex(".* \\d\\d:\\d\\d:\\d\\d \\d\\d-\\w+-\\d{4}")))
        << m[1];
    EXPECT_EQ(std::stoul(p.prefix_number), p.body.size());
    EXPECT_EQ(p.prefix_number.size(), 6u);
    EXPECT_EQ(PacketNumber, 6);
}

TEST_F(Framing, SectionsHoldTheLinesInOrder) {
    Parsed p = Parse(Pack({"h1\n", "h2\n"}, {"1=5\n2=6\n", "3=7\n"}));
    EXPECT_NE(
        p.body.find(
            "</INTERVAL>\n<HEADER>\nh1\nh2\n</HEADER>\n<DATA>\n1=5\n2=6\n3=7\n</DATA>\n</START>\n"),
        std::string::npos)
        << p.body;
    EXPECT_EQ(std::stoul(p.prefix_number), p.body.size());
}

TEST_F(Framing, LengthPrefixIsZeroPaddedAndNeverTruncated) {
    // The packet number and time keep their length, so a probe packet gives the fixed part.
    const size_t fixed = Parse(Pack({}, {"x\n"})).body.size() - 2;
    for (size_t want : {size_t{987}, size_t{1234567}}) {
        PacketNumber = 5;
        std::string line(want - fixed - 1, 'v');
        line += '\n';
        Parsed p = Parse(Pack({}, {line}));
        ASSERT_EQ(p.body.size(), want);
        EXPECT_EQ(p.prefix_number, want == 987 ? "000987" : "1234567");
    }
}

TEST_F(Framing, PacketNumberWrapsAfterOneBillion) {
    PacketNumber = 1000000000;
    EXPECT_NE(Pack({}, {}).find("<PACKET>\n1000000000\n"), std::string::npos);
    EXPECT_NE(Pack({}, {}).find("<PACKET>\n1\n"), std::string::npos);
    EXPECT_EQ(PacketNumber, 2);
}

TEST_F(Framing, SecondPrefixFormAndRefusedOverflow) {
    FirstBuffer = 0;
    std::string packet = Pack({}, {});
    EXPECT_EQ(packet.rfind("BUFFERSIZE=", 0), 0u);
    EXPECT_EQ(packet.find('\n'), 17u);

    // A buffer too small for the lines is refused, not overrun.
    std::string big(10000, 'z');
    char* lines[1] = {big.data()};
    std::vector<char> out(100 + 8192, 'q');
    PacketNumber = 9;
    EXPECT_EQ(rtdc_packetize_data(nullptr, 0, lines, 1, out.data(), 100), 0);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(PacketNumber, 9);
}

// A socket pair whose every write arrives as one record, so the test sees how the text
// was cut into writes.
class Sending : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        int size = 1 << 20;
        setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
        setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        start_rtdc = 1;
        exit_recieved = 0;
        collect_started = 1;
    }
    void TearDown() override {
        if (fds[0] >= 0) close(fds[0]);
        if (fds[1] >= 0) close(fds[1]);
        ctrl_sock = 0;
        start_rtdc = 0;
        exit_recieved = 0;
        collect_started = 0;
    }
    std::vector<size_t> Records() {
        std::vector<size_t> sizes;
        std::vector<char> buf(65536);
        for (;;) {
            ssize_t n = recv(fds[1], buf.data(), buf.size(), MSG_DONTWAIT);
            if (n <= 0) break;
            sizes.push_back(static_cast<size_t>(n));
        }
        return sizes;
    }
    int fds[2] = {-1, -1};
};

TEST_F(Sending, SmallTextGoesInOneWriteLargeInKilobyteChunks) {
    std::string small(8192, 's');
    EXPECT_EQ(rtdc_send_packet(fds[0], small.c_str(), 0), 1);
    EXPECT_EQ(Records(), std::vector<size_t>{8192});

    std::string large(8193, 'l');
    EXPECT_EQ(rtdc_send_packet(fds[0], large.c_str(), 0), 1);
    std::vector<size_t> expected(8, 1024);
    expected.push_back(1);
    EXPECT_EQ(Records(), expected);
    EXPECT_EQ(start_rtdc, 1);
}

TEST_F(Sending, WhatTheConsoleSentBackIsDrained) {
    ASSERT_EQ(send(fds[1], "ack", 3, 0), 3);
    EXPECT_EQ(rtdc_send_packet(fds[0], "hello", 0), 1);
    char c;
    EXPECT_EQ(recv(fds[0], &c, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

struct SendArgs {
    int fd;
    const char* text;
    bool returned = false;
};

void* SendOnThread(void* arg) {
    auto* a = static_cast<SendArgs*>(arg);
    rtdc_send_packet(a->fd, a->text, 0);
    a->returned = true;
    return nullptr;
}

TEST_F(Sending, FailedSmallWriteEndsTheThreadAndReleasesTheDataConnection) {
    close(fds[1]);
    fds[1] = -1;
    ctrl_sock = fds[0];
    SendArgs args{fds[0], "<START>\n"};
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, SendOnThread, &args), 0);
    ASSERT_EQ(pthread_join(t, nullptr), 0);
    EXPECT_FALSE(args.returned);  // the collection thread does not come back
    EXPECT_EQ(start_rtdc, 0);
    EXPECT_EQ(exit_recieved, 1);
    EXPECT_EQ(collect_started, 0);
    EXPECT_EQ(ctrl_sock, 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);  // closed
    fds[0] = -1;
}

TEST_F(Sending, FailedLargeWriteOnlyStopsSending) {
    close(fds[1]);
    fds[1] = -1;
    ctrl_sock = fds[0];
    std::string large(20000, 'l');
    EXPECT_EQ(rtdc_send_packet(fds[0], large.c_str(), 0), 1);
    EXPECT_EQ(start_rtdc, 0);
    EXPECT_EQ(exit_recieved, 0);
    EXPECT_EQ(ctrl_sock, 0);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    fds[0] = -1;
}

TEST_F(Sending, DescriptorThatIsNotTheDataConnectionStaysOpen) {
    close(fds[1]);
    fds[1] = -1;
    ctrl_sock = 0;
    std::string large(20000, 'l');
    EXPECT_EQ(rtdc_send_packet(fds[0], large.c_str(), 0), 1);
    EXPECT_EQ(start_rtdc, 0);
    EXPECT_NE(fcntl(fds[0], F_GETFD), -1);
}

TEST_F(Sending, ConsoleThatStopsReadingTimesOut) {
    // The peer never reads; with a send timeout the chunked write gives up instead of
    // retrying for ever.
    int tiny = 4096;
    setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &tiny, sizeof tiny);
    timeval tv{0, 200000};
    setsockopt(fds[0], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    ctrl_sock = fds[0];
    std::string large(4 << 20, 'l');
    EXPECT_EQ(rtdc_send_packet(fds[0], large.c_str(), 0), 1);
    EXPECT_EQ(start_rtdc, 0);
    EXPECT_EQ(ctrl_sock, 0);
    fds[0] = -1;
}

}  // namespace
