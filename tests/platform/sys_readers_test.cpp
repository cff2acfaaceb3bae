// The platform readers on captured and hand-made trees: processors, memory, paging, disks,
// protocols and mounts; the host's platform name; the time-bounded space query.
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/config.h"
#include "platform/cpu.h"
#include "platform/fs.h"
#include "platform/source.h"
#include "support/fixture_roots.h"

using namespace platform;
using namespace std::chrono_literals;
using vorntest::TempTree;
using vorntest::use_fixture;

namespace {

std::string Field(const char* name, uint64_t value) {
    return std::string(" ") + name + "=" + std::to_string(value);
}
#define F(record, field) Field(#field, static_cast<uint64_t>((record).field))

// The readers' view of the current tree, "no ..." where one fails. The sample is kept from
// read to read and the lists start with a stale entry: a read must replace what was there.
std::string ReadAll(bool clocks) {
    std::string out;
    static CpuSample s;
    auto ticks = [](const CpuTicks& t) {
        return F(t, user) + F(t, kernel) + F(t, idle) + F(t, wait);
    };
    utsname u{};  // without DMI data, as in many virtual machines, the machine's type
    const std::string name =
        uname(&u) == 0 && platform_name() == u.machine ? "(machine)" : platform_name();
    out += "platform " + name + "\n";
    if (read_cpu(s, clocks) == ReadStatus::ok) {
        out += "cpu" + ticks(s.total) + "\n";
        for (const auto& p : s.processors)
            out += "processor" + F(p, cpu) + ticks(p.ticks) + F(p, clock_mhz) + "\n";
    } else {
        out += "no cpu\n";
    }
    MemoryInfo m;
    out += read_memory(m) ? "memory" + F(m, total_kb) + F(m, free_kb) + "\n" : "no memory\n";
    PagingCounters p{9, 9, 9, 9};  // a field the file lacks comes back 0
    out += read_paging(p) ? "paging" + F(p, faults) + F(p, major_faults) + F(p, pages_in) +
                                F(p, pages_out) + "\n"
                          : "no paging\n";
    std::vector<DiskDevice> disks(1, DiskDevice{"stale", {}});
    if (!read_disks(disks)) out += "no disks\n";
    for (const DiskDevice& d : disks)
        out += "disk " + std::string(d.name) + F(d.io, reads) + F(d.io, writes) + F(d.io, nread) +
               F(d.io, nwritten) + F(d.io, rcnt) + F(d.io, rtime) + F(d.io, rlentime) + "\n";
    NetProtoCounters n;
    n.tcp_in_order = 9;  // a field the files lack comes back 0
    out += read_net(n)
               ? "tcp" + F(n, tcp_out_segs) + F(n, tcp_in_segs) + F(n, tcp_retrans_segs) +
                     F(n, tcp_active_opens) + F(n, tcp_passive_opens) + F(n, tcp_attempt_fails) +
                     F(n, tcp_estab_resets) + F(n, tcp_curr_estab) + F(n, tcp_in_order) +
                     F(n, tcp_out_of_order) + F(n, tcp_dup_received) + F(n, tcp_acks_received) +
                     F(n, tcp_data_sent) + "\nip" + F(n, ip_out_requests) + F(n, ip_in_receives) +
                     F(n, ip_out_discards) +
                     F(n, ip_in_delivers) + F(n, ip_in_discards) + F(n, ip_in_unknown_protos) +
                     F(n, ip_forw_datagrams) + F(n, ip_in_addr_errors) + F(n, ip_in_hdr_errors) +
                     F(n, ip_in_octets) + F(n, ip_out_octets) + F(n, ip6_in_octets) +
                     F(n, ip6_out_octets) + "\nudp" + F(n, udp_out_datagrams) +
                     F(n, udp_in_datagrams) + "\n"
               : "no net\n";
    std::vector<MountEntry> mounts(1, MountEntry{"stale", "stale", "stale"});
    if (!read_mounts(mounts)) out += "no mounts\n";
    for (const MountEntry& e : mounts)
        out += "mount " + e.dir + " " + e.type + " " + e.source + "\n";
    return out;
}

class Readers : public vorntest::RootsTest {};

// Each tree's readings are kept beside it in readers.txt. cpu-smp-*: a DMI product name with
// a trailing blank. cpu-*: user includes nice, kernel
// is system + irq + softirq + steal, clocks come from cpufreq, else cpuinfo; cpu2 of cpu-smp-1
// is off line; cpu-long-stat has no host-wide line. captured-*: real hosts (free memory is
// MemAvailable, idle loop and zram devices are left out, "\040" in a mount point is a blank).
// short-files: an old kernel's short, cut and malformed lines. net-reordered: protocol
// columns added in front and moved, a UdpLite table with Udp's names, octets past 2^63, an
// IPv6 table with its octets out of order, a name without a value, a negative value and a
// longer name that begins with a wanted one.
// short-files has no IPv6 table at all.
TEST_F(Readers, TreesReadAsRecorded) {
    for (std::string tree :
         {"cpu-smp-1", "cpu-smp-2", "cpu-long-stat", "cpu-captured", "captured-1", "captured-2",
          "short-files", "net-reordered", "mounts-1"}) {
        use_fixture(tree);
        std::ifstream in(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/" + tree +
                         "/readers.txt");
        ASSERT_TRUE(in) << tree;
        const std::string expected(std::istreambuf_iterator<char>(in), {});
        EXPECT_EQ(ReadAll(true), expected) << tree;
        EXPECT_EQ(ReadAll(false),  // clocks are looked up only when asked for
                  std::regex_replace(expected, std::regex("clock_mhz=\\d+"), "clock_mhz=0"))
            << tree;
    }
}

TEST_F(Readers, MissingOrIncompleteFilesAreReported) {
    TempTree tree;
    set_roots(tree.roots());
    CpuSample s;
    std::string error;
    EXPECT_EQ(read_cpu(s, false, &error), ReadStatus::open_failed);
    EXPECT_NE(error.find("/proc/stat"), std::string::npos);
    tree.write("proc/stat", "intr 1 2 3\nctxt 4\n");
    EXPECT_EQ(read_cpu(s, false, &error), ReadStatus::read_failed);
    tree.write("proc/meminfo", "MemFree: 10 kB\n");  // no total
    MemoryInfo m;
    EXPECT_FALSE(read_memory(m));
}

TEST_F(Readers, DiskFileGrowsAndShrinksInPlace) {
    TempTree tree;
    std::string text;
    // Well past the reader's first buffer, so it has to grow and read again.
    for (int i = 0; i < 3000; ++i)
        text += " 8 " + std::to_string(i) + " sd" + std::to_string(i) + " 1 0 8 0 1 0 8 0 0 1 1\n";
    tree.write("proc/diskstats",
               text + " 259 0 " + std::string(60, 'n') + " 5 0 40 0 0 0 0 0 0 0 0\n");
    set_roots(tree.roots());
    std::vector<DiskDevice> disks;
    ASSERT_TRUE(read_disks(disks));
    ASSERT_EQ(disks.size(), 3001u);
    EXPECT_STREQ(disks[2999].name, "sd2999");
    EXPECT_EQ(std::string(disks[3000].name), std::string(31, 'n'));  // cut to its field
    // Rewritten shorter in place: the old tail must not survive in the kept buffer.
    tree.write("proc/diskstats", " 8 0 sda 7 0 8 0 1 0 8 0 0 1 1\n");
    ASSERT_TRUE(read_disks(disks));
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].io.reads, 7u);
}

TEST(FsUsageQuery, RealRootAgreesWithStatvfs) {
    FsUsage usage;
    struct statvfs vfs {};
    ASSERT_EQ(query_fs_usage("/", usage, 5000), FsAnswer::ok);
    ASSERT_EQ(statvfs("/", &vfs), 0);
    EXPECT_EQ(usage.blocks, vfs.f_blocks);
    EXPECT_EQ(usage.fragment_size, vfs.f_frsize);
    EXPECT_NEAR(usage.bavail, vfs.f_bavail, vfs.f_blocks * 0.01 + 16);  // others write meanwhile
    int error = 0;
    EXPECT_EQ(query_fs_usage("/nonexistent/vorn/mount", usage, 5000, &error), FsAnswer::failed);
    EXPECT_EQ(error, ENOENT);
}

// A file system that hangs on "/hung" until the test lets it go.
std::shared_future<void> released;
std::atomic<int> hung_calls{0};

int fake_query(const char* dir, FsUsage* out) {
    if (std::strcmp(dir, "/hung") == 0) ++hung_calls, released.wait();
    if (std::strcmp(dir, "/slow") == 0) std::this_thread::sleep_for(60ms);
    *out = FsUsage{};
    out->blocks = 100;
    return 0;
}

TEST(FsUsageQuery, HungMountIsSkippedUntilItAnswers) {
    std::promise<void> release;
    released = release.get_future().share();
    hung_calls = 0;
    set_fs_usage_for_tests(fake_query);
    FsUsage usage;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(query_fs_usage("/hung", usage, 100), FsAnswer::timed_out);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    // Asked again while the first query still hangs: answered at once, no second query.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(query_fs_usage("/hung", usage, 5000), FsAnswer::stuck);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    EXPECT_EQ(hung_calls.load(), 1);
    // The other mounts are not held up behind it.
    ASSERT_EQ(query_fs_usage("/fine", usage, 5000), FsAnswer::ok);
    EXPECT_EQ(usage.blocks, 100u);
    release.set_value();
    FsAnswer answer = FsAnswer::stuck;
    for (int i = 0; i < 500 && answer == FsAnswer::stuck; ++i) {
        answer = query_fs_usage("/hung", usage, 5000);
        if (answer == FsAnswer::stuck) std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(answer, FsAnswer::ok);
    EXPECT_EQ(hung_calls.load(), 2);
    set_fs_usage_for_tests(nullptr);
}

// One pass hands every mount over at once, yet each keeps its own limit: slow mounts that
// together take longer than one limit all answer, and a hang in the middle costs one limit
// and leaves the mounts after it to a fresh worker.
TEST(FsUsageQuery, APassGivesEveryMountItsOwnLimit) {
    std::promise<void> release;
    released = release.get_future().share();
    hung_calls = 0;
    set_fs_usage_for_tests(fake_query);
    std::vector<FsQuery> pass;
    for (const char* dir : {"/slow", "/slow", "/slow", "/a", "/hung", "/b", "/slow"})
        pass.emplace_back(dir);
    auto start = std::chrono::steady_clock::now();
    query_fs_usage_batch(pass, 100);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    std::string answers;
    for (const FsQuery& q : pass) answers += q.answer == FsAnswer::ok ? "ok " : "-- ";
    EXPECT_EQ(answers, "ok ok ok ok -- ok ok ");
    EXPECT_EQ(pass[4].answer, FsAnswer::timed_out);
    EXPECT_EQ(pass[6].usage.blocks, 100u);
    release.set_value();
    FsAnswer answer = FsAnswer::stuck;
    FsUsage usage;
    for (int i = 0; i < 500 && answer == FsAnswer::stuck; ++i) {
        answer = query_fs_usage("/hung", usage, 5000);
        if (answer == FsAnswer::stuck) std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(answer, FsAnswer::ok);
    set_fs_usage_for_tests(nullptr);
}

}  // namespace
