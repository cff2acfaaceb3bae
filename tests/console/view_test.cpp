#include <gtest/gtest.h>

#include "console/vm_view.h"
#include "test_util.h"

using namespace vornmon;
using vornmon_test::fixture;
using vornmon_test::frame;
using vornmon_test::packet_body;

namespace {

HostView fixture_view(const std::string& extra_data = "") {
    Session session;
    Sample out;
    for (const std::string& framed :
         {fixture("header.pkt"),
          extra_data.empty() ? fixture("data.pkt") : frame(packet_body(2, {}, extra_data))}) {
        Framer f;
        f.feed(framed);
        Packet p;
        std::string err;
        EXPECT_EQ(next_packet(f, p, err), Framer::Result::kPacket) << err;
        EXPECT_TRUE(session.accept(p, out, err)) << err;
    }
    return build_view(out);
}

}  // namespace

TEST(View, FiguresComeFromTheirCounters) {
    HostView v = fixture_view();
    ASSERT_TRUE(v.cpu.present);
    EXPECT_DOUBLE_EQ(v.cpu.idle, 83.5);
    EXPECT_DOUBLE_EQ(v.cpu.system, 4.0);
    EXPECT_DOUBLE_EQ(v.cpu.user, 12.0);
    EXPECT_DOUBLE_EQ(v.cpu.total, 16.5);
    ASSERT_EQ(v.processors.size(), 1u);
    EXPECT_DOUBLE_EQ(v.processors[0].split.total, 20.0);
    EXPECT_DOUBLE_EQ(v.processors[0].split.user, 15.0);
    EXPECT_TRUE(v.memory.present);
    EXPECT_DOUBLE_EQ(v.memory.total_mb, 7954);
    EXPECT_DOUBLE_EQ(v.memory.used_mb, 3211);
    EXPECT_DOUBLE_EQ(v.memory.paging, 120);
    ASSERT_EQ(v.disks.size(), 1u);
    EXPECT_EQ(v.disks[0].name, "sda");
    EXPECT_DOUBLE_EQ(v.disks[0].bytes, 49152);
    ASSERT_EQ(v.filesystems.size(), 1u);
    EXPECT_EQ(v.filesystems[0].mount, "/");
    EXPECT_DOUBLE_EQ(v.filesystems[0].pct_used, 61.2);
    EXPECT_TRUE(v.net.present);
    EXPECT_DOUBLE_EQ(v.net.tcp_in, 12);
    ASSERT_TRUE(v.has_processes);
    ASSERT_EQ(v.processes.size(), 2u);
    EXPECT_EQ(v.processes[0].pid, 4242);  // busiest first
    EXPECT_EQ(v.processes[0].user, "root");
    EXPECT_DOUBLE_EQ(v.processes[0].rss_kb, 5120);
    EXPECT_EQ(v.processes[1].name, "my (odd)  name");
}

TEST(View, BusiestDisksAndFullestFileSystemsComeFirst) {
    Session session;
    Sample out;
    std::string err;
    std::vector<std::string> headers = {"Disk~^1~^->sda->Total Operations::1::x::1,/Sec,1",
                                        "Disk~^1~^->sdb->Total Operations::2::x::1,/Sec,1",
                                        "Disk~^1~^->sdc->Total Operations::3::x::1,/Sec,1",
                                        "FileSystem~^1~^->/->% Space Used::4::x::1,%,1",
                                        "FileSystem~^1~^->/home->% Space Used::5::x::1,%,1"};
    Framer f;
    f.feed(frame(packet_body(1, headers, "1=5.00\n2=50.00\n3=0.00\n4=10.00\n5=90.00\n")));
    Packet p;
    ASSERT_EQ(next_packet(f, p, err), Framer::Result::kPacket) << err;
    ASSERT_TRUE(session.accept(p, out, err)) << err;
    HostView v = build_view(out);
    ASSERT_EQ(v.disks.size(), 3u);
    EXPECT_EQ(v.disks[0].name, "sdb");
    EXPECT_EQ(v.disks[2].name, "sdc");
    EXPECT_EQ(v.filesystems[0].mount, "/home");
    EXPECT_FALSE(v.has_processes);
}

TEST(View, ProcessSortKeys) {
    std::vector<ProcRow> rows(3);
    rows[0] = {30, 1, "zsh", "a", 1.0, 0, 0, 900, 5, 0};
    rows[1] = {10, 1, "bash", "b", 9.0, 0, 0, 100, 50, 0};
    rows[2] = {20, 1, "cron", "c", 5.0, 0, 0, 500, 0, 0};
    auto order = [&](SortKey k) {
        sort_processes(rows, k);
        return std::vector<long>{rows[0].pid, rows[1].pid, rows[2].pid};
    };
    EXPECT_EQ(order(SortKey::kCpu), (std::vector<long>{10, 20, 30}));
    EXPECT_EQ(order(SortKey::kMemory), (std::vector<long>{30, 20, 10}));
    EXPECT_EQ(order(SortKey::kPid), (std::vector<long>{10, 20, 30}));
    EXPECT_EQ(order(SortKey::kName), (std::vector<long>{10, 20, 30}));
    EXPECT_EQ(order(SortKey::kIo), (std::vector<long>{10, 30, 20}));
}

TEST(View, PlainTextHasEverySection) {
    HostView v = fixture_view();
    std::string text = render_text(layout_view(v, "127.0.0.1:2101", SortKey::kCpu, 100, 20), 100);
    for (const char* section : {"\nCPU\n", "\nProcessors\n", "\nMemory\n", "\nDisks\n",
                                "\nFile systems\n", "\nNetwork\n", "\nProcesses (2, by cpu)\n"})
        EXPECT_NE(text.find(section), std::string::npos) << section << "\n" << text;
    EXPECT_NE(text.find("idle  83.5%"), std::string::npos) << text;
    EXPECT_NE(text.find("cpu0    20.0%"), std::string::npos) << text;
    EXPECT_NE(text.find("[########"), std::string::npos) << text;
    EXPECT_NE(text.find("used 3.1GiB of 7.8GiB (40.4%)"), std::string::npos) << text;
    EXPECT_NE(text.find("  bash"), std::string::npos);
    for (std::size_t start = 0, nl; (nl = text.find('\n', start)) != std::string::npos;
         start = nl + 1)
        EXPECT_LE(nl - start, 100u) << text.substr(start, nl - start);
    // Limiting the process rows keeps the busiest.
    std::string one = render_text(layout_view(v, "x", SortKey::kCpu, 100, 1), 100);
    EXPECT_NE(one.find("  bash"), std::string::npos);
    EXPECT_EQ(one.find("my (odd)"), std::string::npos);
}

TEST(View, AgentCaptureTakesTheLaterOfRepeatedValues) {
    // The agent's first tick after a connection sends the start-up pass's lines again
    // ahead of its own: the view must show the later, current values.
    Session session;
    Sample out;
    for (const char* name : {"agent-header.pkt", "agent-data.pkt"}) {
        Framer f;
        f.feed(fixture(name));
        Packet p;
        std::string err;
        ASSERT_EQ(next_packet(f, p, err), Framer::Result::kPacket) << err;
        ASSERT_TRUE(session.accept(p, out, err)) << err;
    }
    HostView v = build_view(out);
    ASSERT_EQ(v.processors.size(), 2u);
    EXPECT_DOUBLE_EQ(v.processors[1].split.total, 100.0);
    ASSERT_FALSE(v.disks.empty());
    EXPECT_EQ(v.disks[0].name, "vda");
    EXPECT_DOUBLE_EQ(v.disks[0].bytes, 4096);
    EXPECT_TRUE(v.net.present);
    bool unnamed = false;
    for (const ProcRow& p : v.processes)
        if (p.pid == 15553) unnamed = p.name.empty() && p.user == "root";
    EXPECT_TRUE(unnamed) << "a process started after the header packet has no name on the wire";
    std::string text = render_text(layout_view(v, "x", SortKey::kPid, 100, -1), 100);
    EXPECT_NE(text.find("  init\n"), std::string::npos) << text;
    EXPECT_NE(text.find("  ?\n"), std::string::npos) << text;
}
