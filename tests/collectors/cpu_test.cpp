// The processor classes: their arithmetic, and both classes over captured snapshots.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "collectors/rtdc_config.h"
#include "collectors/rtdc_cpu.h"
#include "platform/config.h"
#include "support/collector_harness.h"

namespace {

// user, system, idle, wait, total; the total exactly within 100 whatever the rounding
template <typename Record>
void ExpectFigures(const Record& r, const std::vector<double>& want) {
    const double got[] = {r.user, r.system, r.idle, r.wait, r.total};
    for (size_t i = 0; i < want.size(); ++i) EXPECT_DOUBLE_EQ(got[i], want[i]) << "figure " << i;
    EXPECT_LE(r.total, 100.0);
}

TEST(Percentages, OfTheTicksThatPassedHostWideAndPerProcessor) {
    // name; idle, user, kernel and wait ticks; user, system, idle, wait and total percent
    for (auto [name, deltas, expected] :
         {std::tuple<const char*, std::array<uint64_t, 4>, std::vector<double>>{
              "no tick passed", {0, 0, 0, 0}, {0, 0, 0, 0, 0}},
          {"wait is not work and stays out of the total", {0, 10, 10, 80}, {10, 10, 0, 80, 20}},
          {"a sum that rounds past 100 is capped",
           {0, 2, 9, 0},
           {200.0 / 11, 900.0 / 11, 0, 0, 100}},
          {"top-bit deltas are large counts",
           {0, 1ull << 63, 1ull << 63, 0},
           {50, 50, 0, 0, 100}}}) {
        SCOPED_TRACE(name);
        CpuRecord r{9, 9, 9, 9, 9};
        EXPECT_EQ(PerfCpu(deltas.data(), &r), 1);
        ExpectFigures(r, expected);
        EXPECT_EQ(CpuUtil, r.total);
    }
    CpuRecord r{9, 9, 9, 9, 9};  // no deltas at all (a header pass): zeroed, and said so
    EXPECT_EQ(PerfCpu(nullptr, &r), 0);
    ExpectFigures(r, {0, 0, 0, 0, 0});

    ProcessorState s;  // the per-processor class: the same arithmetic on its own deltas
    s.number = 3, s.clock_mhz = 2400;
    s.previous = {100, 100, 100, 100};
    s.current = {150, 130, 120, 100};  // idle 50, user 30, kernel 20
    MachineRecord m{};
    CpuUtil = 42.0;  // only the host-wide class publishes it
    EXPECT_EQ(PerfMachine(&s, &m), 1);
    ExpectFigures(m, {30, 20, 50, 0, 50});
    EXPECT_EQ(std::make_tuple(m.cpu_id, m.clock_mhz, CpuUtil), std::make_tuple(3, 2400, 42.0));
    s.current.idle = 90;  // stepped back: no ticks, not a wrapped huge number
    PerfMachine(&s, &m);
    ExpectFigures(m, {60, 40, 0, 0, 100});
}

class ProcessorClasses : public vorntest::CollectorTest {
  protected:
    static void Reset() { rtdc_cpu_reset_for_tests(), rtdc_machine_reset_for_tests(); }
    void SetUp() override { CollectorTest::SetUp(), Reset(); }
    void TearDown() override { Reset(), CollectorTest::TearDown(); }
    static std::string Pass(ClassCollector collector, int header_flag) {
        EXPECT_EQ(run(collector, header_flag), 1);
        vorntest::Lines lines = vorntest::take_lines();
        std::string text;
        for (const auto& h : lines.headers) text += h;
        for (const auto& d : lines.data) text += "[" + d + "]\n";
        return text;
    }
};

TEST_F(ProcessorClasses, HostWidePercentagesFromFixtureDeltas) {
    vorntest::use_fixture("cpu-smp-1");
    std::string text = Pass(GetCPUClassInfo, 1);
    EXPECT_NE(find("Cpu-> Mode Averages->Idle"), nullptr);
    // To smp-2: user 140, kernel 90, idle 170, wait 10 of 410; then again: no tick passed.
    vorntest::use_fixture("cpu-smp-2");
    text += Pass(GetCPUClassInfo, 0);
    vorntest::expect_golden("cpu-host-class.txt", text + Pass(GetCPUClassInfo, 0));
    counter_added = 1;  // as the snapshot pass leaves it after the first header pass
    Pass(GetCPUClassInfo, 1);
    int nodes = 0;  // a single-level counter registered again would show twice
    for (treeNode* c = find("Cpu")->child; c; c = c->next)
        nodes += strcmp(c->data->description, "Cpu->Average Utilization") == 0;
    EXPECT_EQ(nodes, 1);
}

TEST_F(ProcessorClasses, FirstFiguresSinceBootAndNoLinesWithoutConsoleOrStat) {
    vorntest::use_fixture("cpu-smp-1");
    start_rtdc = 0;
    EXPECT_EQ(Pass(GetCPUClassInfo, 0), "");
    EXPECT_NEAR(CpuUtil, 600.0 / 4575.0 * 100.0, 1e-9);  // 390 user + 210 kernel of 4575
    vorntest::TempTree tree;                             // no /proc/stat: both classes fail
    platform::set_roots(tree.roots());
    start_rtdc = 1;
    EXPECT_EQ(run(GetCPUClassInfo, 0) + run(GetMachineClassInfo, 0), 0);
    EXPECT_EQ(n_rtdc_data_buffers, 0);
}

TEST_F(ProcessorClasses, PerProcessorInstancesFollowTheProcessorsPresent) {
    vorntest::use_fixture("cpu-smp-1");  // cpu0, cpu1, cpu3 present: named 0, 1, 2
    std::string text = Pass(GetMachineClassInfo, 1);
    EXPECT_NE(find("Cpu-> 2-> Wait"), nullptr);
    EXPECT_EQ(rtdc_processor_state(1)->record.clock_mhz, 1800);
    EXPECT_EQ(rtdc_processor_state(2), nullptr);
    // Processor 2 is back. It has no ids the console knows until the next header pass, so
    // it sends nothing; the others keep their ids. The next header pass numbers them densely.
    vorntest::use_fixture("cpu-smp-2");
    counter_added = 1;
    text += Pass(GetMachineClassInfo, 0);
    vorntest::expect_golden("cpu-processor-class.txt", text + Pass(GetMachineClassInfo, 1));
    EXPECT_EQ(find("Cpu-> 3-> Idle"), nullptr);  // the tree was filled once, at the start
}

TEST(ConfigClass, HostDescriptionAndIntervals) {
    ConfigRecord rec{};
    rtdc_fill_config(&rec, 3, -15);
    EXPECT_EQ(rec.phymem, static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * getpagesize() / 1024);
    EXPECT_EQ(rec.scan_intvl, 300);                // hundredths of a second
    EXPECT_EQ(rec.dump_intvl, -1);                 // tens of seconds, rounded towards 0
    EXPECT_EQ(strchr(rec.sysname, '.'), nullptr);  // the short host name
    // Consoles expect a dotted IPv4 address; a name that does not resolve fails.
    platform::HostAddress host;
    ASSERT_TRUE(platform::lookup_host("localhost", host));
    EXPECT_EQ(host.address, "127.0.0.1");
    EXPECT_FALSE(platform::lookup_host("no-such-host.invalid", host));
}

}  // namespace
