// Memory/paging and network classes on captured snapshots, on counter resets, and live
// against the kernel's own protocol table.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "collectors/rtdc_metric.h"
#include "collectors/rtdc_net.h"
#include "support/collector_harness.h"

using namespace vorntest;

namespace {

class RateClasses : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        rtdc_metric_reset_for_tests();
        rtdc_net_reset_for_tests();
    }
    void TearDown() override {
        CollectorTest::TearDown();
        rtdc_metric_reset_for_tests();
        rtdc_net_reset_for_tests();
    }
    // Header pass and first data pass on `first` at t=1000 s after boot, then a data pass
    // on `second` two seconds later. Returns the three sets of lines as one text.
    std::string two_snapshots(ClassCollector collector, const char* first, const char* second) {
        use_fixture(first);
        fake_now = 1000;
        EXPECT_EQ(run(collector, 1), 1);
        Lines header = take_lines();
        EXPECT_EQ(run(collector, 0), 1);
        Lines data1 = take_lines();
        use_fixture(second);
        fake_now = 1002;
        EXPECT_EQ(run(collector, 0), 1);
        Lines data2 = take_lines();
        headers = header.headers;
        values1 = values_by_path(headers, data1.data);
        values2 = values_by_path(headers, data2.data);
        EXPECT_TRUE(data1.headers.empty() && data2.headers.empty());
        EXPECT_EQ(data1.data.size(), 1u);  // one data entry for a single-instance class
        return "# header pass, " + std::string(first) + "\n" + header.text() + "# data pass, " +
               first + "\n" + data1.text() + "# data pass, " + second + "\n" + data2.text();
    }
    std::vector<std::string> headers;
    std::map<std::string, std::string> values1, values2;
};

TEST_F(RateClasses, MemoryOnCapturedHost) {
    expect_golden("memory-captured.txt",
                  two_snapshots(GetMetricClassInfo, "captured-1", "captured-2"));
    // MemTotal 24683656 kB: 24105 MB, sent with the header and in every data packet.
    EXPECT_EQ(values1["Memory~^1~^-> System Memory (MB)"], "24105");
    EXPECT_NE(headers[0].find(",0,24105\n"), std::string::npos);
    // First sample: averages since boot (pgfault 3155871 over 1000 s).
    EXPECT_EQ(values1["Memory~^1~^-> Paging by Type-> Total"], "3155.87");
    EXPECT_EQ(values1["Memory~^1~^-> Paging by Type-> Major"], "1.43");
    // Then over the two seconds between the snapshots: 10125 faults, 4 of them major.
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> Total"], "5062.50");
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> Major"], "2.00");
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> As fault"], "5060.50");
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> Cow"], "0.00");
    // MemAvailable 24299984 kB of 24683656 kB.
    EXPECT_EQ(values2["Memory~^1~^-> Allocation(MB)-> Free"], "23730.45");
    EXPECT_EQ(values2["Memory~^1~^-> Allocation(MB)-> Used"], "374.68");
    EXPECT_EQ(values2["Memory~^1~^-> % Memory Utilization"], "1.55");
}

TEST_F(RateClasses, NetworkOnCapturedHost) {
    expect_golden("network-captured.txt",
                  two_snapshots(GetNetClassInfo, "captured-1", "captured-2"));
    ASSERT_EQ(headers.size(), 31u);
    EXPECT_EQ(headers[0].rfind("Network->TCP->Packet Rate->Sent::", 0), 0u);
    // Between the snapshots 20 connections to a closed port were refused.
    EXPECT_EQ(values2["Network->TCP->Connections Opened->Active"], "10");
    EXPECT_EQ(values2["Network->TCP->Connections Aborted->Attempt Fail"], "10");
    EXPECT_EQ(values2["Network->TCP->Packet Rate->Received"], "20");
    EXPECT_EQ(values2["Network->TCP->Data Rate->Received"], "1000");
    EXPECT_EQ(values2["Network->IP->Packet Rate->Sent"], "20");
    EXPECT_EQ(values2["Network->IP->Received Packets Breakdown->Other"], "0");
    EXPECT_EQ(values2["Network->TCP->Connection Establish Rate->Number of Connections"], "0");
    // The first sample averaged 885 segments over the 1000 s since boot.
    EXPECT_EQ(values1["Network->TCP->Packet Rate->Received"], "1");
}

TEST_F(RateClasses, RestartedCountersGiveZeroNotHugeRates) {
    two_snapshots(GetNetClassInfo, "captured-2", "counter-reset");
    const std::string connections =
        "Network->TCP->Connection Establish Rate->Number of Connections";
    ASSERT_EQ(values2.size(), 31u);
    for (const auto& [path, value] : values2)
        if (path != connections) {
            EXPECT_EQ(value, "0") << path;
        }
    EXPECT_EQ(values2[connections], "1");  // a level is reported as it stands
    two_snapshots(GetMetricClassInfo, "captured-2", "counter-reset");
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> Total"], "0.00");
    EXPECT_EQ(values2["Memory~^1~^-> Paging by Type-> Major"], "0.00");
}

TEST_F(RateClasses, StillClockKeepsFiguresAndBaseline) {
    two_snapshots(GetNetClassInfo, "captured-1", "captured-2");
    run(GetNetClassInfo, 0);  // same instant again: nothing to divide by
    Lines again = take_lines();
    EXPECT_EQ(values_by_path(headers, again.data), values2);
    // The baseline did not move either: a later sample still covers the whole interval.
    use_fixture("captured-2");
    fake_now = 1004;
    run(GetNetClassInfo, 0);
    Lines later = take_lines();
    EXPECT_EQ(values_by_path(headers, later.data)["Network->TCP->Connections Opened->Active"], "0");
}

TEST_F(RateClasses, HeaderPassRegistersTreeOnceAndSendsNothingWhenIdle) {
    use_fixture("captured-1");
    start_rtdc = 0;  // no console: the tree is still filled, no line is made
    ASSERT_EQ(run(GetMetricClassInfo, 1), 1);
    ASSERT_EQ(run(GetNetClassInfo, 1), 1);
    Lines none = take_lines();
    EXPECT_TRUE(none.headers.empty());
    treeNode* leaf = find("Network->TCP->Packet Rate->Sent");
    ASSERT_NE(leaf, nullptr);
    EXPECT_STREQ(leaf->data->text, "TCP Segments sent");
    MetricInstance* instance = nullptr;
    GetFirstItem(leaf->data->instances, reinterpret_cast<void**>(&instance));
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(instance->base, &rtdc_net_record);
    ASSERT_NE(find("Memory-> Paging by Type-> Total"), nullptr);
    ASSERT_NE(find("Memory-> % Memory Utilization"), nullptr);

    // Later header passes (a second console) do not add the single-level rows again.
    counter_added = 1;
    run(GetMetricClassInfo, 1);
    treeNode* memory = find("Memory");
    ASSERT_NE(memory, nullptr);
    int utilisation_nodes = 0;
    for (treeNode* c = memory->child; c; c = c->next)
        utilisation_nodes += std::string(c->data->description) == "Memory-> % Memory Utilization";
    EXPECT_EQ(utilisation_nodes, 1);
}

TEST_F(RateClasses, UnreadableSourcesFailTheClassWithoutLines) {
    use_fixture("mounts-1");  // no meminfo, no net/snmp
    EXPECT_EQ(run(GetMetricClassInfo, 1), 0);
    EXPECT_EQ(run(GetMetricClassInfo, 0), 0);
    EXPECT_EQ(run(GetNetClassInfo, 0), 0);
    EXPECT_TRUE(take_lines().data.empty());
    // Memory without paging counters still reports memory.
    use_fixture("short-files");
    fake_now = 10;
    EXPECT_EQ(run(GetMetricClassInfo, 0), 1);
    EXPECT_EQ(take_lines().data.size(), 1u);
    EXPECT_EQ(rtdc_metric_record.free_mb, 420000.0 / 1024.0);
}

// ---- live: the rates agree with the kernel's own table ----

std::map<std::string, long long> read_tcp_table() {
    std::ifstream in("/proc/net/snmp");
    std::string names, values;
    std::map<std::string, long long> out;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("Tcp:", 0) != 0) continue;
        if (names.empty()) {
            names = line;
            continue;
        }
        std::istringstream n(names), v(line);
        std::string name, value;
        n >> name;
        v >> value;
        while (n >> name && v >> value) out[name] = atoll(value.c_str());
        break;
    }
    return out;
}

// Opens `count` loopback connections to a listener of our own and closes them, each step
// bounded by a poll timeout. Returns the number completed.
int loopback_burst(int count) {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (listener >= 0) close(listener);
        return 0;
    }
    int done = 0;
    for (int i = 0; i < count; ++i) {
        int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (client < 0) break;
        connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        pollfd pending{client, POLLOUT, 0};
        pollfd incoming{listener, POLLIN, 0};
        if (poll(&pending, 1, 2000) == 1 && poll(&incoming, 1, 2000) == 1) {
            int server = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (server >= 0) {
                ++done;
                close(server);
            }
        }
        close(client);
    }
    close(listener);
    return done;
}

TEST_F(RateClasses, LiveLoopbackBurstShowsInConnectionRates) {
    platform::set_roots(platform::Roots{});
    fake_now = 500;
    ASSERT_EQ(run(GetNetClassInfo, 1), 1);
    Lines header = take_lines();
    auto before = read_tcp_table();
    ASSERT_EQ(run(GetNetClassInfo, 0), 1);
    take_lines();
    constexpr int kBurst = 50;
    ASSERT_EQ(loopback_burst(kBurst), kBurst);
    fake_now = 501;  // one second: the rates are the counts themselves
    ASSERT_EQ(run(GetNetClassInfo, 0), 1);
    auto after = read_tcp_table();
    auto values = values_by_path(header.headers, take_lines().data);

    // Other programs on the host may add connections, never remove ours: the class must
    // see at least the burst and at most what the kernel's table grew by around it.
    long long active = atoll(values["Network->TCP->Connections Opened->Active"].c_str());
    long long passive = atoll(values["Network->TCP->Connections Opened->Passive"].c_str());
    long long segments = atoll(values["Network->TCP->Packet Rate->Sent"].c_str());
    EXPECT_GE(active, kBurst);
    EXPECT_LE(active, after["ActiveOpens"] - before["ActiveOpens"]);
    EXPECT_GE(passive, kBurst);
    EXPECT_LE(passive, after["PassiveOpens"] - before["PassiveOpens"]);
    EXPECT_GE(segments, 3 * kBurst);  // at least the handshakes
    EXPECT_LE(segments, after["OutSegs"] - before["OutSegs"]);
}

}  // namespace
