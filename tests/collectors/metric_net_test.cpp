// Memory/paging and network classes on captured snapshots, and live with connections of ours.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "support/collector_harness.h"

using namespace vorntest;

namespace {

const std::string kEstablished = "Network->TCP->Connection Establish Rate->Number of Connections";

class RateClasses : public CollectorTest {
  protected:
    // Header and data pass on `first` 1000 s after boot (rates since boot), a data pass on
    // `second` two seconds later (rates over those); returns all their lines as one text.
    std::string two_snapshots(ClassCollector collector, std::string first, std::string second) {
        Offset = 0;
        fake_now = 1000;
        Lines head = pass(collector, 1, 0, first.c_str()), data1 = pass(collector, 0);
        fake_now = 1002;
        Lines data2 = pass(collector, 0, 0, second.c_str());
        last = values(data2);
        return head.text("header pass, " + first) + data1.text("data pass, " + first) +
               data2.text("data pass, " + second);
    }
    std::map<std::string, std::string> last;
};

TEST_F(RateClasses, CapturedHostSinceBootThenOverTheInterval) {
    const std::pair<ClassCollector, const char*> rows[] = {
        {GetMetricClassInfo, "memory-captured.txt"}, {GetNetClassInfo, "network-captured.txt"}};
    for (auto [collector, golden] : rows) {
        SCOPED_TRACE(golden);
        expect_golden(golden, two_snapshots(collector, "captured-1", "captured-2"));
        // The clock standing still leaves the figures as they were: nothing to divide by.
        EXPECT_EQ(values(pass(collector, 0)), last);
    }
    // The tree reads the records the lines were made from.
    EXPECT_EQ(leaf_base("Network->TCP->Packet Rate->Sent"), &rtdc_net_record);
    EXPECT_EQ(leaf_base("Memory-> Paging by Type-> Total"), &rtdc_metric_record);
}

TEST_F(RateClasses, RestartedCountersGiveZeroNotHugeRates) {
    for (ClassCollector collector : {GetMetricClassInfo, GetNetClassInfo}) {
        two_snapshots(collector, "captured-2", "counter-reset");
        ASSERT_FALSE(last.empty());
        for (const auto& [path, value] : last) {  // levels are reported as they stand
            bool rate = path.find("Paging") != std::string::npos || path[0] == 'N';
            EXPECT_TRUE(!rate || path == kEstablished || std::stod(value) == 0) << path;
        }
    }
    EXPECT_EQ(last[kEstablished], "1");
}

TEST_F(RateClasses, LaterHeaderPassesAddNothingAndUnreadableSourcesFail) {
    start_rtdc = 0;  // no console: no line is made, the tree is filled all the same
    EXPECT_EQ(run(GetMetricClassInfo, 1, 0, "captured-1"), 1);
    counter_added = 1;  // a second console: the single-level rows are not added again
    run(GetMetricClassInfo, 1);
    EXPECT_TRUE(take_lines().headers.empty());
    int utilisation = 0;
    for (treeNode* c = find("Memory") ? find("Memory")->child : nullptr; c; c = c->next)
        utilisation += std::string(c->data->description) == "Memory-> % Memory Utilization";
    EXPECT_EQ(utilisation, 1);
    EXPECT_EQ(run(GetMetricClassInfo, 0, 0, "mounts-1") + run(GetNetClassInfo, 0), 0);
}

// Opens `count` connections to a loopback listener of our own, each bounded by a poll
// timeout; returns how many were accepted.
int loopback_burst(int count) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), done = 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* any = reinterpret_cast<sockaddr*>(&addr);
    socklen_t len = sizeof addr;
    if (bind(listener, any, len) == 0 && listen(listener, 64) == 0 &&
        getsockname(listener, any, &len) == 0)
        for (int i = 0; i < count; ++i) {
            int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (client < 0) break;
            connect(client, any, len);
            pollfd incoming{listener, POLLIN, 0};
            int server = poll(&incoming, 1, 2000) == 1 ? accept(listener, nullptr, nullptr) : -1;
            if (server >= 0) done += close(server) == 0;
            close(client);
        }
    close(listener);
    return done;
}

TEST_F(RateClasses, LiveLoopbackBurstShowsInConnectionRates) {
    platform::set_roots(platform::Roots{});
    fake_now = 500;
    pass(GetNetClassInfo, 1);
    pass(GetNetClassInfo, 0);
    ASSERT_EQ(loopback_burst(50), 50);
    fake_now = 501;  // one second: the rates are the counts themselves
    auto now = values(pass(GetNetClassInfo, 0));
    // Other programs may add connections, never take ours away.
    EXPECT_GE(atoi(now["Network->TCP->Connections Opened->Active"].c_str()), 50);
    EXPECT_GE(atoi(now["Network->TCP->Connections Opened->Passive"].c_str()), 50);
    EXPECT_GE(atoi(now["Network->TCP->Packet Rate->Sent"].c_str()), 3 * 50);  // the handshakes
}

// Streams `bytes` over one TCP connection of ours on ::1, in one thread with bounded polls;
// returns how many arrived, 0 when the host has no IPv6 loopback.
size_t loopback6_stream(size_t bytes) {
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    auto* any = reinterpret_cast<sockaddr*>(&addr);
    socklen_t len = sizeof addr;
    int listener = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0), server = -1, client = -1;
    if (listener >= 0 && bind(listener, any, len) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, any, &len) == 0) {
        client = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (client >= 0) connect(client, any, len);
        pollfd incoming{listener, POLLIN, 0};
        if (client >= 0 && poll(&incoming, 1, 2000) == 1)
            server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    }
    std::vector<char> chunk(1 << 16, 'v');
    size_t sent = 0, arrived = 0;
    while (server >= 0 && arrived < bytes) {
        pollfd ends[2] = {{client, static_cast<short>(sent < bytes ? POLLOUT : 0), 0},
                          {server, POLLIN, 0}};
        if (poll(ends, 2, 2000) <= 0) break;
        if (ends[0].revents & POLLOUT) {
            ssize_t n =
                send(client, chunk.data(), std::min(chunk.size(), bytes - sent), MSG_NOSIGNAL);
            if (n > 0) sent += static_cast<size_t>(n);
        }
        if (ends[1].revents & POLLIN) {
            ssize_t n = recv(server, chunk.data(), chunk.size(), 0);
            if (n <= 0) break;
            arrived += static_cast<size_t>(n);
        }
    }
    for (int fd : {server, client, listener})
        if (fd >= 0) close(fd);
    return arrived;
}

TEST_F(RateClasses, LiveIpv6StreamShowsInByteAndDataSegmentRates) {
    platform::set_roots(platform::Roots{});
    fake_now = 500;
    pass(GetNetClassInfo, 1);
    pass(GetNetClassInfo, 0);
    constexpr size_t kBytes = 4u << 20;
    const size_t arrived = loopback6_stream(kBytes);
    if (arrived == 0) GTEST_SKIP() << "this host has no IPv6 loopback";
    ASSERT_EQ(arrived, kBytes);
    fake_now = 501;  // one second: the rates are the counts themselves
    auto now = values(pass(GetNetClassInfo, 0));
    // Loopback: every byte is counted once going out and once coming in, headers on top.
    EXPECT_GE(std::stoull(now["Network->TCP->Data Rate->Sent"]), kBytes);
    EXPECT_GE(std::stoull(now["Network->TCP->Data Rate->Received"]), kBytes);
    // Segments of new data; even the largest loopback segments are fewer than 128 kB each.
    EXPECT_GE(std::stoull(now["Network->TCP->Sent Packets Breakdown->Data"]), kBytes >> 17);
}

}  // namespace
