// Processor and host readers on captured trees and on the live host.
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

#include "platform/config.h"
#include "platform/cpu.h"
#include "support/fixture_roots.h"

namespace {

using platform::CpuSample;
using platform::ReadStatus;
using vorntest::RootsTest;
using vorntest::use_fixture;

class CpuReader : public RootsTest {};

TEST_F(CpuReader, MapsKernelFieldsAndSkipsOfflineProcessors) {
    use_fixture("cpu-smp-1");
    CpuSample s;
    ASSERT_EQ(platform::read_cpu(s, true), ReadStatus::ok);
    // cpu  380 10 180 3900 75 5 15 10 3 0: guest time is already inside user
    EXPECT_EQ(s.total.user, 390u);
    EXPECT_EQ(s.total.kernel, 180u + 5 + 15 + 10);
    EXPECT_EQ(s.total.idle, 3900u);
    EXPECT_EQ(s.total.wait, 75u);
    ASSERT_EQ(s.processors.size(), 3u);  // cpu2 is off line
    EXPECT_EQ(s.processors[0].cpu, 0);
    EXPECT_EQ(s.processors[1].cpu, 1);
    EXPECT_EQ(s.processors[2].cpu, 3);
    const auto& p1 = s.processors[1].ticks;  // cpu1 200 0 100 800 40 0 10 10 3 0
    EXPECT_EQ(p1.user, 200u);
    EXPECT_EQ(p1.kernel, 120u);
    EXPECT_EQ(p1.idle, 800u);
    EXPECT_EQ(p1.wait, 40u);
    // cpufreq first, then cpuinfo, else unknown
    EXPECT_EQ(s.processors[0].clock_mhz, 2400);
    EXPECT_EQ(s.processors[1].clock_mhz, 1800);
    EXPECT_EQ(s.processors[2].clock_mhz, 0);

    CpuSample no_clock;
    ASSERT_EQ(platform::read_cpu(no_clock, false), ReadStatus::ok);
    EXPECT_EQ(no_clock.processors[0].clock_mhz, 0);
}

TEST_F(CpuReader, FollowsRootChangesOnTheKeptDescriptor) {
    CpuSample s;
    use_fixture("cpu-smp-1");
    ASSERT_EQ(platform::read_cpu(s, false), ReadStatus::ok);
    EXPECT_EQ(s.processors.size(), 3u);
    use_fixture("cpu-smp-2");
    ASSERT_EQ(platform::read_cpu(s, false), ReadStatus::ok);
    ASSERT_EQ(s.processors.size(), 4u);  // the vector is refilled, not appended to
    EXPECT_EQ(s.processors[2].cpu, 2);
    EXPECT_EQ(s.total.user, 530u);
}

TEST_F(CpuReader, OldShortLinesLargeFileAndNoAggregateLine) {
    use_fixture("cpu-long-stat");
    CpuSample s;
    ASSERT_EQ(platform::read_cpu(s, false), ReadStatus::ok);
    ASSERT_EQ(s.processors.size(), 2u);
    // cpu0 10 2 3 40 and cpu1 1 1 1 1, summed in place of the missing "cpu" line
    EXPECT_EQ(s.total.user, 14u);
    EXPECT_EQ(s.total.kernel, 4u);
    EXPECT_EQ(s.total.idle, 41u);
    EXPECT_EQ(s.total.wait, 0u);
}

TEST_F(CpuReader, MissingOrEmptyFilesAreReported) {
    vorntest::TempTree tree;
    platform::set_roots(tree.roots());
    CpuSample s;
    std::string error;
    EXPECT_EQ(platform::read_cpu(s, false, &error), ReadStatus::open_failed);
    EXPECT_NE(error.find("/proc/stat"), std::string::npos);
    tree.write("proc/stat", "intr 1 2 3\nctxt 4\n");
    platform::set_roots(tree.roots());
    EXPECT_EQ(platform::read_cpu(s, false, &error), ReadStatus::read_failed);
}

TEST_F(CpuReader, CapturedHostUsesCpuinfoClocks) {
    use_fixture("cpu-captured");
    CpuSample s;
    ASSERT_EQ(platform::read_cpu(s, true), ReadStatus::ok);
    ASSERT_EQ(s.processors.size(), 2u);
    for (const auto& p : s.processors) EXPECT_EQ(p.clock_mhz, 2599);
    uint64_t idle = 0;
    for (const auto& p : s.processors) idle += p.ticks.idle;
    EXPECT_EQ(idle, s.total.idle);
}

TEST_F(CpuReader, LiveHostCountsForward) {
    CpuSample a, b;
    ASSERT_EQ(platform::read_cpu(a, true), ReadStatus::ok);
    ASSERT_FALSE(a.processors.empty());
    EXPECT_LE(static_cast<long>(a.processors.size()), sysconf(_SC_NPROCESSORS_CONF));
    usleep(50000);
    ASSERT_EQ(platform::read_cpu(b, false), ReadStatus::ok);
    uint64_t before = a.total.idle + a.total.user + a.total.kernel + a.total.wait;
    uint64_t after = b.total.idle + b.total.user + b.total.kernel + b.total.wait;
    EXPECT_GE(after, before);
    EXPECT_GT(before, 0u);
}

class HostReader : public RootsTest {};

TEST_F(HostReader, PlatformFromProductNameElseMachine) {
    use_fixture("cpu-smp-1");
    EXPECT_EQ(platform::platform_name(), "Vorn Test Box");
    use_fixture("cpu-captured");  // no DMI data, as in many virtual machines
    utsname u{};
    ASSERT_EQ(uname(&u), 0);
    EXPECT_EQ(platform::platform_name(), u.machine);
}

TEST_F(HostReader, LiveValues) {
    EXPECT_EQ(platform::physical_memory_kb(),
              static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * getpagesize() / 1024);
    EXPECT_GT(platform::physical_memory_kb(), 0);
    EXPECT_EQ(platform::configured_processors(), sysconf(_SC_NPROCESSORS_CONF));
    platform::SystemNames names;
    ASSERT_TRUE(platform::system_names(names));
    EXPECT_EQ(names.sysname, "Linux");
    EXPECT_FALSE(names.nodename.empty());
    platform::HostAddress host;
    ASSERT_TRUE(platform::lookup_host("localhost", host));
    EXPECT_EQ(host.address, "127.0.0.1");
    EXPECT_FALSE(host.canonical.empty());
    EXPECT_FALSE(platform::lookup_host("no-such-host.invalid", host));
}

}  // namespace
