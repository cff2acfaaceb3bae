// Memory/paging and network classes on captured snapshots, and live with connections of ours.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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

}  // namespace
