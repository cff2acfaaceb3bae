// What each class tells its output, captured: which instances it announces on a header
// pass, with which table and record and which variations, and what it reports on a data
// pass. No console, line array or metric tree is involved.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "collectors/rtdc_cpu.h"
#include "collectors/rtdc_disk.h"
#include "collectors/rtdc_fsstat.h"
#include "collectors/rtdc_metric.h"
#include "collectors/rtdc_net.h"
#include "collectors/rtdc_process.h"
#include "control/rta_cmdline.h"
#include "platform/clock.h"
#include "support/captured_output.h"
#include "support/fixture_roots.h"

using namespace vorntest;

namespace {

double now = 0;

class Announced : public RootsTest {
  protected:
    void SetUp() override {
        reset();
        platform::set_clock_for_tests([] { return now; });
    }
    void TearDown() override {
        reset();
        platform::set_clock_for_tests(nullptr);
        platform::set_fs_usage_for_tests(nullptr);
        RootsTest::TearDown();
    }
    static void reset() {
        rtdc_cpu_reset_for_tests();
        rtdc_machine_reset_for_tests();
        rtdc_metric_reset_for_tests();
        rtdc_fs_reset_for_tests();
        rtdc_disk_reset_for_tests();
        rtdc_net_reset_for_tests();
        rtdc_process_reset();
        now = 0;
    }
    static std::vector<std::string> sorted(std::vector<std::string> v) {
        std::sort(v.begin(), v.end());
        return v;
    }
    static std::vector<std::string> first_rows(const CapturedOutput& out) {
        std::vector<std::string> rows;
        for (const auto& a : out.announced) rows.push_back(a.first_row());
        return rows;
    }
};

TEST_F(Announced, SingleInstanceClassesAnnounceTheirTableAndReportTheirRecord) {
    use_fixture("cpu-smp-1");
    CapturedOutput head, data;
    ASSERT_EQ(rtdc_collect_cpu(head, 1), 1);
    ASSERT_EQ(head.announced.size(), 1u);
    const auto& cpu = head.announced[0];
    EXPECT_EQ(cpu.class_name, "Cpu");
    EXPECT_EQ(cpu.table, CPUCounters);
    EXPECT_EQ(cpu.record, &rtdc_cpu_record);
    EXPECT_EQ(cpu.lines, HeaderLines::when_sending);
    EXPECT_EQ(cpu.tree, TreeCounters::until_registered);
    EXPECT_TRUE(head.reported.empty());

    use_fixture("cpu-smp-2");  // user 140, kernel 90, idle 170, wait 10 of 410 ticks
    ASSERT_EQ(rtdc_collect_cpu(data, 0), 1);
    ASSERT_EQ(data.reported.size(), 1u);
    EXPECT_TRUE(data.announced.empty());
    EXPECT_EQ(data.reported[0].table, CPUCounters);
    EXPECT_DOUBLE_EQ(data.reported[0].as<CpuRecord>().user, 140.0 / 410 * 100);

    use_fixture("captured-1");
    CapturedOutput memory;
    ASSERT_EQ(rtdc_collect_metric(memory, 1), 1);
    ASSERT_EQ(memory.announced.size(), 1u);
    EXPECT_EQ(memory.announced[0].class_name, "Memory");
    EXPECT_EQ(memory.announced[0].table, MetricCounters);
    EXPECT_NE(std::string(rtdc_metric_record.sysmem), "");  // sent with the headers
}

TEST_F(Announced, ProcessorsAreAnnouncedByTheirCurrentNumber) {
    use_fixture("cpu-smp-1");  // cpu0, cpu1 and cpu3 present
    CapturedOutput head, data;
    ASSERT_EQ(rtdc_collect_machine(head, 1), 1);
    EXPECT_EQ(first_rows(head), (std::vector<std::string>{" 0-> Processor ID", " 1-> Processor ID",
                                                          " 2-> Processor ID"}));
    for (const auto& a : head.announced) EXPECT_EQ(a.class_name, "Cpu");
    use_fixture("cpu-smp-2");  // cpu2 is back: it reports only after the next header pass
    ASSERT_EQ(rtdc_collect_machine(data, 0), 1);
    EXPECT_EQ(data.reported.size(), 3u);
    EXPECT_EQ(data.reported[2].as<MachineRecord>().cpu_id, 3);
}

TEST_F(Announced, DisksAndTheNetworkAnnounceOnHeaderPassesOnly) {
    use_fixture("captured-1");
    CapturedOutput head, data;
    ASSERT_EQ(rtdc_collect_disk(head, 1) + rtdc_collect_net(head, 1), 2);
    ASSERT_GE(head.announced.size(), 2u);
    EXPECT_EQ(head.announced.back().class_name, "Network");
    EXPECT_EQ(head.announced.back().table, NetCounters);
    for (size_t i = 0; i + 1 < head.announced.size(); ++i) {
        EXPECT_EQ(head.announced[i].class_name, "Disk");
        EXPECT_NE(head.announced[i].table, DiskCounters);  // each disk has its own copy
    }
    now = 1;
    use_fixture("captured-2");
    ASSERT_EQ(rtdc_collect_disk(data, 0) + rtdc_collect_net(data, 0), 2);
    EXPECT_TRUE(data.announced.empty());
    EXPECT_EQ(data.reported.size(), head.announced.size());
    TempTree empty;  // no counters at all: both fail and say nothing
    platform::set_roots(empty.roots());
    CapturedOutput none;
    EXPECT_EQ(rtdc_collect_disk(none, 0) + rtdc_collect_net(none, 0), 0);
    EXPECT_TRUE(none.reported.empty());
}

int answer_all(const char*, platform::FsUsage* out) {
    *out = {.blocks = 1000, .bfree = 400, .bavail = 300};
    return 0;
}

TEST_F(Announced, FileSystemsVaryWhenTheyWriteHeadersAndRegister) {
    platform::set_fs_usage_for_tests(answer_all);
    use_fixture("mounts-1");
    // The sixth value of the class call decides whether the list's making writes headers;
    // the announcement of every listed file system that follows writes them in any case and
    // registers on every header pass.
    for (int x : {0, 1}) {
        SCOPED_TRACE(x);
        reset();
        CapturedOutput head;
        ASSERT_EQ(rtdc_collect_fs(head, 1, x), 1);
        const size_t n = head.announced.size() / 2;
        ASSERT_EQ(n, 7u);  // local mounts, /run once
        for (size_t i = 0; i < n; ++i) {
            const auto& made = head.announced[i];
            const auto& listed = head.announced[n + i];
            EXPECT_EQ(made.class_name, "FileSystem");
            EXPECT_EQ(made.lines, x == 0 ? HeaderLines::when_sending : HeaderLines::never);
            EXPECT_EQ(made.tree, TreeCounters::until_registered);
            EXPECT_EQ(listed.record, made.record);
            EXPECT_EQ(listed.lines, HeaderLines::when_sending);
            EXPECT_EQ(listed.tree, TreeCounters::always);
        }
    }
    CapturedOutput again;  // the list is made once
    rtdc_collect_fs(again, 1, 0);
    EXPECT_EQ(again.announced.size(), 7u);

    CapturedOutput data, gone, after;
    rtdc_collect_fs(data, 0, 0);
    ASSERT_EQ(data.reported.size(), 7u);
    EXPECT_EQ(data.reported[0].registers_as, "FileSystem");  // registers when nobody listens
    EXPECT_DOUBLE_EQ(data.reported[0].as<FsRecord>().pct_used, 70.0);
    use_fixture("mounts-2");  // /mnt/backup unmounted: it stops reporting at once...
    rtdc_collect_fs(gone, 0, 0);
    EXPECT_EQ(gone.reported.size(), 6u);
    EXPECT_TRUE(gone.withdrawn.empty());
    rtdc_collect_fs(after, 0, 0);  // ...and is withdrawn one data pass later
    EXPECT_EQ(after.withdrawn, std::vector<std::string>{"FileSystem->/mnt/backup"});
}

TEST_F(Announced, ProcessesAreAnnouncedRegisteredReportedAndWithdrawnByPid) {
    TempTree tree;
    std::filesystem::copy(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/process",
                          tree.root(), std::filesystem::copy_options::recursive);
    platform::set_roots(tree.roots());
    const int saved = std::exchange(rta_cmdline.class_process, 1);
    CapturedOutput head, data, later;
    // A header pass before any scan scans first: the console learns the processes of now.
    ASSERT_EQ(rtdc_collect_process(head, 1), 1);
    const std::vector<std::string> known = {"kworker/0:1-events 777", "my prog) (x 42",
                                            "systemd 1"};
    EXPECT_EQ(sorted(head.processes_announced), known);
    EXPECT_EQ(sorted(head.processes_registered), known);
    EXPECT_TRUE(head.reported.empty());  // a header pass reports nothing

    now = 5;
    ASSERT_EQ(rtdc_collect_process(data, 0), 1);
    ASSERT_EQ(data.reported.size(), 3u);
    for (const auto& r : data.reported)  // by pid: the order is the directory's
        EXPECT_EQ(r.as<ProcessRecord>().pid, atoi(r.registers_as.c_str()));
    EXPECT_TRUE(data.processes_registered.empty());  // each is registered once

    std::filesystem::remove_all(tree.root() + "/proc/42");  // it ended
    now = 10;
    ASSERT_EQ(rtdc_collect_process(later, 0), 1);
    EXPECT_EQ(later.withdrawn, std::vector<std::string>{"my prog) (x 42"});
    EXPECT_EQ(later.reported.size(), 2u);
    rta_cmdline.class_process = saved;
}

}  // namespace
