// Processor classes: the percentage arithmetic, and both classes run over two captured
// snapshots of a host whose processor 2 was off line in the first.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "alerts/rtal_tree.h"
#include "collectors/rtdc_config.h"
#include "collectors/rtdc_cpu.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"
#include "support/fixture_roots.h"

namespace {

TEST(PerfCpu, NoTickPassedGivesZeroes) {
    const uint64_t d[4] = {0, 0, 0, 0};
    CpuRecord r{9, 9, 9, 9, 9};
    EXPECT_EQ(PerfCpu(d, &r), 1);
    EXPECT_EQ(r.total, 0.0);
    EXPECT_EQ(r.idle, 0.0);
    EXPECT_EQ(CpuUtil, 0.0);
    // No deltas at all (a header pass): the record is zeroed and the result says so.
    EXPECT_EQ(PerfCpu(nullptr, &r), 0);
}

TEST(PerfCpu, WaitStaysOutOfTheTotal) {
    const uint64_t d[4] = {0, 10, 10, 80};  // idle, user, kernel, wait
    CpuRecord r{};
    PerfCpu(d, &r);
    EXPECT_DOUBLE_EQ(r.user, 10.0);
    EXPECT_DOUBLE_EQ(r.system, 10.0);
    EXPECT_DOUBLE_EQ(r.wait, 80.0);
    EXPECT_DOUBLE_EQ(r.total, 20.0);
    EXPECT_DOUBLE_EQ(CpuUtil, 20.0);
}

TEST(PerfCpu, TotalIsCappedAndHugeDeltasStayPositive) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 20000; ++i) {
        const uint64_t d[4] = {rng() % 7, rng() % 1000003, rng() % 999983, rng() % 5};
        CpuRecord r{};
        PerfCpu(d, &r);
        ASSERT_LE(r.total, 100.0);
        ASSERT_GE(r.total, 0.0);
        ASSERT_EQ(r.total, std::min(100.0, r.user + r.system));
    }
    // A delta with the top bit set is a large unsigned count, not a negative one.
    const uint64_t d[4] = {0, uint64_t{1} << 63, uint64_t{1} << 63, 0};
    CpuRecord r{};
    PerfCpu(d, &r);
    EXPECT_DOUBLE_EQ(r.user, 50.0);
    EXPECT_DOUBLE_EQ(r.total, 100.0);
}

TEST(PerfMachine, SameArithmeticPerProcessorWithNumberAndClock) {
    ProcessorState s;
    s.number = 3;
    s.clock_mhz = 2400;
    s.previous = {100, 100, 100, 100};
    s.current = {150, 130, 120, 100};  // idle 50, user 30, kernel 20
    MachineRecord r{};
    CpuUtil = 42.0;
    EXPECT_EQ(PerfMachine(&s, &r), 1);
    EXPECT_DOUBLE_EQ(r.idle, 50.0);
    EXPECT_DOUBLE_EQ(r.user, 30.0);
    EXPECT_DOUBLE_EQ(r.system, 20.0);
    EXPECT_DOUBLE_EQ(r.total, 50.0);
    EXPECT_EQ(r.cpu_id, 3);
    EXPECT_EQ(r.clock_mhz, 2400);
    EXPECT_EQ(CpuUtil, 42.0);  // only the host-wide class publishes it
    // A counter that stepped back counts as no ticks, not as a wrapped huge number.
    s.current.idle = 90;
    PerfMachine(&s, &r);
    EXPECT_DOUBLE_EQ(r.user, 60.0);
    EXPECT_DOUBLE_EQ(r.idle, 0.0);
}

// Runs the real classes on the fixture trees with fresh line arrays, ids and tree.
class ProcessorClasses : public vorntest::RootsTest {
  protected:
    void SetUp() override {
        rtdc_cpu_reset_for_tests();
        rtdc_machine_reset_for_tests();
        Offset = 0;
        start_rtdc = 1;
        counter_added = 0;
        ASSERT_EQ(rtal_create_root("testnode"), 1);
    }
    void TearDown() override {
        Clear();
        RemoveNode(Metric_Tree);
        rtdc_cpu_reset_for_tests();
        rtdc_machine_reset_for_tests();
        start_rtdc = 0;
        counter_added = 0;
        Offset = 0;
        RootsTest::TearDown();
    }
    void Clear() {
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
    }
    int Run(ClassCollector collector, int header_flag) {
        return collector(rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                         &n_rtdc_data_buffers, header_flag, 0);
    }
    std::vector<std::string> Headers() const {
        return {rtdc_data_headers, rtdc_data_headers + n_rtdc_data_headers};
    }
    std::vector<std::string> Data() const {
        return {rtdc_data_buffers, rtdc_data_buffers + n_rtdc_data_buffers};
    }
    treeNode* Find(const char* path) {
        treeNode* found = nullptr;
        return SearchDescription1(path, Metric_Tree, &found, 0) ? found : nullptr;
    }
};

TEST_F(ProcessorClasses, HostWidePercentagesFromFixtureDeltas) {
    vorntest::use_fixture("cpu-smp-1");
    ASSERT_EQ(Run(GetCPUClassInfo, 1), 1);
    EXPECT_EQ(Headers(),
              (std::vector<std::string>{
                  "Cpu~^1~^-> Mode Averages->Idle::1::CPU in Idle mode::1,%,1\n",
                  "Cpu~^1~^-> Mode Averages->System::2::CPU  Utilizatoin in System mode::1,%,1\n",
                  "Cpu~^1~^-> Mode Averages->User::3::CPU Utilization in User mode::1,%,1\n",
                  "Cpu~^1~^-> Mode Averages->Wait::4::CPU Utilizatoin in Wait mode::1,%,1\n",
                  "Cpu~^1~^->Average Utilization::5::Overall CPU Utilzation::1,%,1\n"}));
    ASSERT_NE(Find("Cpu-> Mode Averages->Idle"), nullptr);
    Clear();

    // Host deltas: user 140, kernel 90, idle 170, wait 10 over 410 ticks.
    vorntest::use_fixture("cpu-smp-2");
    ASSERT_EQ(Run(GetCPUClassInfo, 0), 1);
    EXPECT_EQ(Data(), std::vector<std::string>{"1=41.46\n2=21.95\n3=34.15\n4=2.44\n5=56.10\n"});
    EXPECT_NEAR(CpuUtil, 56.0976, 1e-3);

    // The same sample again: no tick passed.
    Clear();
    ASSERT_EQ(Run(GetCPUClassInfo, 0), 1);
    EXPECT_EQ(Data(), std::vector<std::string>{"1=0.00\n2=0.00\n3=0.00\n4=0.00\n5=0.00\n"});
}

TEST_F(ProcessorClasses, FirstFiguresAverageSinceBootAndNothingBufferedWithoutConsole) {
    vorntest::use_fixture("cpu-smp-1");
    start_rtdc = 0;
    ASSERT_EQ(Run(GetCPUClassInfo, 0), 1);
    EXPECT_EQ(n_rtdc_data_buffers, 0);
    // 390 user + 210 kernel of 4575 ticks since boot
    EXPECT_NEAR(CpuUtil, 600.0 / 4575.0 * 100.0, 1e-9);
}

TEST_F(ProcessorClasses, PerProcessorInstancesFollowTheProcessorsPresent) {
    vorntest::use_fixture("cpu-smp-1");  // cpu0, cpu1, cpu3 present
    ASSERT_EQ(Run(GetMachineClassInfo, 1), 1);
    std::vector<std::string> h = Headers();
    ASSERT_EQ(h.size(), 18u);
    EXPECT_EQ(h[0], "Cpu~^1~^-> 0-> Processor ID::1::Processor ID::1, ,0,0\n");
    EXPECT_EQ(h[1], "Cpu~^1~^-> 0-> Idle::2::Cpu State in Idle::1,%,1\n");
    EXPECT_EQ(h[5], "Cpu~^1~^-> 0->Total::6::CPU Utilization::1,%,1\n");
    EXPECT_EQ(h[12], "Cpu~^1~^-> 2-> Processor ID::13::Processor ID::1, ,0,2\n");  // kernel cpu3
    EXPECT_NE(Find("Cpu-> 2-> Wait"), nullptr);
    EXPECT_EQ(rtdc_processor_state(0)->record.clock_mhz, 2400);
    EXPECT_EQ(rtdc_processor_state(1)->record.clock_mhz, 1800);
    EXPECT_EQ(rtdc_processor_state(3)->record.clock_mhz, 0);
    EXPECT_EQ(rtdc_processor_state(2), nullptr);
    Clear();

    // Processor 2 is back. It has no ids the console knows until the next header pass, so
    // it sends nothing; the others keep their ids.
    vorntest::use_fixture("cpu-smp-2");
    counter_added = 1;
    ASSERT_EQ(Run(GetMachineClassInfo, 0), 1);
    EXPECT_EQ(Data(), (std::vector<std::string>{"2=52.63\n3=10.53\n4=31.58\n5=5.26\n6=42.11\n",
                                                "8=11.76\n9=41.18\n10=47.06\n11=0.00\n12=88.24\n",
                                                "14=0.00\n15=0.00\n16=0.00\n17=0.00\n18=0.00\n"}));
    Clear();

    // The next header pass numbers them densely again.
    ASSERT_EQ(Run(GetMachineClassInfo, 1), 1);
    h = Headers();
    ASSERT_EQ(h.size(), 24u);
    EXPECT_EQ(h[12], "Cpu~^1~^-> 2-> Processor ID::31::Processor ID::1, ,0,2\n");
    EXPECT_EQ(h[18], "Cpu~^1~^-> 3-> Processor ID::37::Processor ID::1, ,0,3\n");
    EXPECT_EQ(Find("Cpu-> 3-> Idle"), nullptr);  // the tree was filled once, at the start
}

TEST_F(ProcessorClasses, SecondHeaderPassDoesNotRegisterAgain) {
    vorntest::use_fixture("cpu-smp-1");
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    ctrl_sock = fds[0];  // the header packets go to a console that does not read them
    RtaCmdline settings{};
    settings.class_cpu = 1;
    SnapshotHeader(&settings, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                   &n_rtdc_data_buffers);
    ASSERT_EQ(counter_added, 1);
    SnapshotHeader(&settings, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                   &n_rtdc_data_buffers);
    treeNode* cls = Find("Cpu");
    ASSERT_NE(cls, nullptr);
    int total_nodes = 0;
    for (treeNode* c = cls->child; c; c = c->next)
        if (strcmp(c->data->description, "Cpu->Average Utilization") == 0) ++total_nodes;
    EXPECT_EQ(total_nodes, 1);  // a single-level counter would have been added twice
    EXPECT_EQ(n_rtdc_data_headers, 10);
    ctrl_sock = 0;
    close(fds[0]);
    close(fds[1]);
}

TEST_F(ProcessorClasses, UnreadableStatFailsTheClassWithoutLines) {
    vorntest::TempTree tree;
    platform::set_roots(tree.roots());
    EXPECT_EQ(Run(GetCPUClassInfo, 0), 0);
    EXPECT_EQ(Run(GetMachineClassInfo, 0), 0);
    EXPECT_EQ(n_rtdc_data_buffers, 0);
}

TEST_F(ProcessorClasses, LiveHostPercentagesAddUp) {
    ASSERT_EQ(Run(GetCPUClassInfo, 1), 1);
    ASSERT_EQ(Run(GetMachineClassInfo, 1), 1);
    Clear();
    ASSERT_EQ(Run(GetCPUClassInfo, 0), 1);
    ASSERT_EQ(Run(GetMachineClassInfo, 0), 1);
    const CpuRecord& r = rtdc_cpu_record;
    double sum = r.idle + r.user + r.system + r.wait;
    EXPECT_TRUE(sum == 0.0 || std::abs(sum - 100.0) < 1e-6) << sum;
    EXPECT_GE(n_rtdc_data_buffers, 2);
}

TEST(ConfigClass, MemoryProcessorsAndIntervals) {
    EXPECT_EQ(GetConfigInfo(), 1);
    EXPECT_EQ(phymem, static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * getpagesize() / 1024);
    EXPECT_EQ(GetNoCPUs(), sysconf(_SC_NPROCESSORS_CONF));
    EXPECT_GT(strlen(GetPlatform()), 0u);

    scan_intvl = 3;
    dump_intvl = -15;
    ConfigRecord rec{};
    int ok = rtdc_fill_config(&rec);
    scan_intvl = 2;
    dump_intvl = 2;
    EXPECT_STREQ(rec.coll_name, "Korrin for Sun SOLARIS");
    EXPECT_STREQ(rec.coll_ver, "V60");
    EXPECT_EQ(rec.phymem, phymem);
    EXPECT_EQ(rec.scan_intvl, 300);
    EXPECT_EQ(rec.dump_intvl, -1);
    EXPECT_STREQ(rec.osname, "Linux");
    EXPECT_EQ(strchr(rec.sysname, '.'), nullptr);
    if (ok) {
        EXPECT_GT(strlen(rec.ipaddr), 0u);
    }
}

}  // namespace
