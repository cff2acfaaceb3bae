// Memory, paging, disk and protocol readers on captured and hand-made /proc trees.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <fstream>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/source.h"
#include "support/fixture_roots.h"

using namespace platform;
using vorntest::RootsTest;
using vorntest::TempTree;
using vorntest::use_fixture;

namespace {

std::vector<std::string> names(const std::vector<DiskDevice>& disks) {
    std::vector<std::string> out;
    for (const DiskDevice& d : disks) out.emplace_back(d.name);
    return out;
}

const DiskDevice* find_disk(const std::vector<DiskDevice>& disks, const std::string& name) {
    for (const DiskDevice& d : disks)
        if (name == d.name) return &d;
    return nullptr;
}

}  // namespace

class MemoryReader : public RootsTest {};

TEST_F(MemoryReader, CapturedHostUsesAvailableMemory) {
    use_fixture("captured-1");
    MemoryInfo mem;
    ASSERT_TRUE(read_memory(mem));
    EXPECT_EQ(mem.total_kb, 24683656u);
    EXPECT_EQ(mem.free_kb, 24284140u);  // MemAvailable, not MemFree (24175960)

    PagingCounters paging;
    ASSERT_TRUE(read_paging(paging));
    EXPECT_EQ(paging.faults, 3155871u);
    EXPECT_EQ(paging.major_faults, 1434u);
    EXPECT_EQ(paging.pages_in, 0u);
    EXPECT_EQ(paging.pages_out, 0u);
}

TEST_F(MemoryReader, OldKernelWithoutAvailableFallsBackToFreePlusCaches) {
    use_fixture("short-files");
    MemoryInfo mem;
    ASSERT_TRUE(read_memory(mem));
    EXPECT_EQ(mem.total_kb, 2048000u);
    EXPECT_EQ(mem.free_kb, 100000u + 20000u + 300000u);

    PagingCounters paging;  // a vmstat without swap lines leaves them 0
    paging.pages_in = 99;
    ASSERT_TRUE(read_paging(paging));
    EXPECT_EQ(paging.faults, 400000u);
    EXPECT_EQ(paging.pages_in, 0u);
}

TEST_F(MemoryReader, MissingOrTotallessFileFails) {
    use_fixture("mounts-1");  // a tree without meminfo or vmstat
    MemoryInfo mem;
    errno = 0;
    EXPECT_FALSE(read_memory(mem));
    EXPECT_EQ(errno, ENOENT);
    PagingCounters paging;
    EXPECT_FALSE(read_paging(paging));

    TempTree tree;
    tree.write("proc/meminfo", "MemFree: 10 kB\n");
    set_roots(tree.roots());
    EXPECT_FALSE(read_memory(mem));
}

class DiskReader : public RootsTest {};

TEST_F(DiskReader, CapturedHostSkipsIdleLoopDevicesAndMapsFields) {
    use_fixture("captured-1");
    std::vector<DiskDevice> disks;
    ASSERT_TRUE(read_disks(disks));
    // loop0-7 never did I/O; zram0 is neither ram nor loop and stays although idle.
    EXPECT_EQ(names(disks), (std::vector<std::string>{"vda", "zram0"}));
    const DiskIo& vda = disks[0].io;
    EXPECT_EQ(vda.reads, 54140u);
    EXPECT_EQ(vda.writes, 5281u);
    EXPECT_EQ(vda.nread, 3340178ull * 512);
    EXPECT_EQ(vda.nwritten, 1345736ull * 512);
    EXPECT_EQ(vda.rcnt, 0u);
    EXPECT_EQ(vda.wcnt, 0u);
    EXPECT_EQ(vda.rtime, 5704u);
    EXPECT_EQ(vda.rlentime, 17775u);
}

TEST_F(DiskReader, OldFormatsCutLinesAndUsedLoopDevices) {
    use_fixture("short-files");
    std::vector<DiskDevice> disks;
    ASSERT_TRUE(read_disks(disks));
    // sdb is cut after three fields and sdc holds a non-number: both dropped, not misread.
    EXPECT_EQ(names(disks), (std::vector<std::string>{"sda", "sda1", "loop0"}));
    const DiskDevice* sda = find_disk(disks, "sda");
    ASSERT_TRUE(sda);
    EXPECT_EQ(sda->io.rcnt, 2u);
    EXPECT_EQ(sda->io.rtime, 700u);
    EXPECT_EQ(sda->io.rlentime, 900u);
    const DiskDevice* part = find_disk(disks, "sda1");  // old four-field partition line
    ASSERT_TRUE(part);
    EXPECT_EQ(part->io.reads, 900u);
    EXPECT_EQ(part->io.nread, 12000ull * 512);
    EXPECT_EQ(part->io.writes, 150u);
    EXPECT_EQ(part->io.nwritten, 2400ull * 512);
}

TEST_F(DiskReader, LongNamesAreCutAndLargeFilesReadWhole) {
    TempTree tree;
    std::string text;
    // Well past the reader's first buffer, so it has to grow and read again.
    for (int i = 0; i < 3000; ++i)
        text += "   8 " + std::to_string(i) + " sd" + std::to_string(i) +
                " 1 0 8 0 1 0 8 0 0 1 1 0 0 0 0 0 0\n";
    text += " 259 0 " + std::string(60, 'n') + " 5 0 40 0 0 0 0 0 0 0 0\n";
    tree.write("proc/diskstats", text);
    set_roots(tree.roots());
    std::vector<DiskDevice> disks;
    ASSERT_TRUE(read_disks(disks));
    ASSERT_EQ(disks.size(), 3001u);
    EXPECT_STREQ(disks[2999].name, "sd2999");
    EXPECT_EQ(std::string(disks[3000].name), std::string(31, 'n'));
}

TEST_F(DiskReader, RereadsTheSameFileAndFollowsRootChanges) {
    TempTree tree;
    tree.write("proc/diskstats",
               " 8 0 sda 1 0 8 0 1 0 8 0 0 1 1\n 8 16 sdb 1 0 8 0 1 0 8 0 0 1 1\n");
    set_roots(tree.roots());
    std::vector<DiskDevice> disks;
    ASSERT_TRUE(read_disks(disks));
    ASSERT_EQ(disks.size(), 2u);
    // Rewritten shorter in place: the old tail must not survive in the kept buffer.
    tree.write("proc/diskstats", " 8 0 sda 7 0 8 0 1 0 8 0 0 1 1\n");
    ASSERT_TRUE(read_disks(disks));
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].io.reads, 7u);

    use_fixture("new-disk");
    ASSERT_TRUE(read_disks(disks));
    EXPECT_EQ(disks.size(), 5u);

    use_fixture("mounts-1");  // no diskstats there
    errno = 0;
    EXPECT_FALSE(read_disks(disks));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(disks.empty());
}

class NetReader : public RootsTest {};

TEST_F(NetReader, CapturedHostBothTables) {
    use_fixture("captured-2");
    NetProtoCounters net;
    ASSERT_TRUE(read_net(net));
    EXPECT_EQ(net.tcp_active_opens, 33u);
    EXPECT_EQ(net.tcp_attempt_fails, 20u);
    EXPECT_EQ(net.tcp_in_segs, 925u);
    EXPECT_EQ(net.ip_out_requests, 587u);
    EXPECT_EQ(net.udp_out_datagrams, 27u);
    EXPECT_EQ(net.ip_out_octets, 39302u);        // from the extension table
    EXPECT_EQ(net.tcp_acks_received, 17u + 7u);  // pure + fast-path ACKs
}

TEST_F(NetReader, ColumnsFoundByNameWhateverTheirOrder) {
    TempTree tree;
    // A kernel that adds columns in front and reorders the rest; UdpLite shares Udp's names.
    tree.write("proc/net/snmp",
               "Ip: NewThing OutRequests InReceives Forwarding\n"
               "Ip: 77 11 22 1\n"
               "Tcp: MaxConn CurrEstab ActiveOpens\n"
               "Tcp: -1 5 9\n"
               "UdpLite: InDatagrams OutDatagrams\n"
               "UdpLite: 1000 2000\n"
               "Udp: OutDatagrams InDatagrams\n"
               "Udp: 3 4\n");
    tree.write("proc/net/netstat",
               "TcpExt: TCPDSACKOfoSent TCPHPAcks TCPDSACKOldSent TCPPureAcks TCPOFOQueue\n"
               "TcpExt: 1 10 2 20 6\n"
               "IpExt: OutOctets InOctets\n"
               "IpExt: 18446744073709551615 5\n");
    set_roots(tree.roots());
    NetProtoCounters net;
    ASSERT_TRUE(read_net(net));
    EXPECT_EQ(net.ip_out_requests, 11u);
    EXPECT_EQ(net.ip_in_receives, 22u);
    EXPECT_EQ(net.tcp_curr_estab, 5u);
    EXPECT_EQ(net.tcp_active_opens, 9u);
    EXPECT_EQ(net.udp_out_datagrams, 3u);
    EXPECT_EQ(net.udp_in_datagrams, 4u);
    EXPECT_EQ(net.tcp_dup_received, 3u);    // DSACK old + out-of-order
    EXPECT_EQ(net.tcp_acks_received, 30u);  // pure + fast-path ACKs
    EXPECT_EQ(net.tcp_out_of_order, 6u);
    EXPECT_EQ(net.ip_out_octets, UINT64_MAX);  // full unsigned range
    EXPECT_EQ(net.ip_in_octets, 5u);
}

TEST_F(NetReader, ShortValuesLineAndMissingExtensionTable) {
    use_fixture("short-files");
    NetProtoCounters net;
    net.tcp_in_order = 42;  // must be reset, not kept from before
    ASSERT_TRUE(read_net(net));
    EXPECT_EQ(net.ip_in_receives, 1000u);
    EXPECT_EQ(net.ip_in_hdr_errors, 1u);
    EXPECT_EQ(net.ip_in_addr_errors, 2u);
    EXPECT_EQ(net.ip_forw_datagrams, 3u);
    EXPECT_EQ(net.ip_in_unknown_protos, 4u);
    EXPECT_EQ(net.ip_in_discards, 5u);
    EXPECT_EQ(net.ip_out_discards, 6u);
    EXPECT_EQ(net.tcp_active_opens, 40u);
    EXPECT_EQ(net.tcp_curr_estab, 3u);
    EXPECT_EQ(net.tcp_in_segs, 0u);  // past the cut
    EXPECT_EQ(net.tcp_in_order, 0u);
    EXPECT_EQ(net.udp_out_datagrams, 60u);

    use_fixture("mounts-1");
    EXPECT_FALSE(read_net(net));
}

TEST(Clock, BootClockIsMonotonicAndMatchesUptime) {
    double first = seconds_since_boot();
    double uptime = 0;
    std::ifstream("/proc/uptime") >> uptime;
    double second = seconds_since_boot();
    EXPECT_LE(first, second);
    EXPECT_NEAR(first, uptime, 2.0);

    set_clock_for_tests([] { return 1234.5; });
    EXPECT_EQ(seconds_since_boot(), 1234.5);
    set_clock_for_tests(nullptr);
    EXPECT_GE(seconds_since_boot(), second);
}
