// The process reader on a captured tree, and the names it gives terminals and users.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "platform/disk.h"
#include "platform/fs.h"
#include "platform/process.h"
#include "support/fixture_roots.h"

namespace {

using platform::ProcessSample;

void collect(const ProcessSample& s, void* arg) {
    (*static_cast<std::map<int, ProcessSample>*>(arg))[s.pid] = s;
}

using FixtureProcesses = vorntest::RootsTest;

// Every field but the read time, in this order, so that a mismatch prints whole.
auto fields(const ProcessSample& s) {
    return std::make_tuple(s.pid, std::string(s.name), s.ppid, s.tty_nr, s.uid, s.start_time,
                           s.priority, s.rss_kb, s.utime, s.stime, s.minflt, s.majflt, s.has_io,
                           s.rchar, s.wchar, s.syscr, s.syscw, s.read_bytes, s.write_bytes);
}

TEST_F(FixtureProcesses, ReadsWholeProcessesOnly) {
    vorntest::use_fixture("process");
    const int64_t kb = sysconf(_SC_PAGESIZE) / 1024;
    const decltype(fields({})) rows[] = {
        // The resident size is statm's, not stat's lagging one.
        {1, "systemd", 0, 0, 0, 3, 20, 3000 * kb, 58, 179, 30769, 12, true, 1000000, 250000, 4000,
         1500, 5120000, 1024000},
        // The name runs to the last ')': its own parentheses and blanks stay in it and the
        // numbers after it are not shifted.
        {42, "my prog) (x", 1, 34817, 1000, 5000, 25, 850 * kb, 250, 50, 1200, 7, true, 7, 8, 1, 2,
         512, 4096},
        // No io file: the process stays, with no I/O figures; no statm: stat's resident size.
        {777, "kworker/0:1-events", 2, 0, 0, 120, -51, 0, 0, 31, 0, 0, false, 0, 0, 0, 0, 0, 0}};
    // 4242 went before its stat, 4343 between stat and status; "self" and "stat" are not pids.
    std::map<int, ProcessSample> seen;
    EXPECT_EQ(platform::read_processes(collect, &seen), 3);
    for (const auto& want : rows) {
        ASSERT_TRUE(seen.count(std::get<0>(want))) << std::get<0>(want);
        EXPECT_EQ(fields(seen.at(std::get<0>(want))), want);
    }
    ProcessSample s{};
    for (int pid : {4242, 4343, 999999}) EXPECT_FALSE(platform::read_process(pid, s)) << pid;
    ASSERT_TRUE(platform::read_process(42, s));
    EXPECT_EQ(fields(s), rows[1]);
    EXPECT_EQ(platform::online_processors(), 4);

    // A missing root is an error, not a crash.
    platform::set_roots(vorntest::roots_under("/nonexistent-vorntest"));
    seen.clear();
    EXPECT_EQ(platform::read_processes(collect, &seen), -1);
    EXPECT_TRUE(seen.empty());
    // Without the online list the count falls back to the C library's, never 0.
    EXPECT_GE(platform::online_processors(), 1);
}

// Any user can rename a process, a user mount may sit on a path of any bytes and a disk
// name comes from a driver: a control character in any of them would end or split the
// packet or log line the name goes into, so each arrives with '?' in its place.
TEST_F(FixtureProcesses, NamesArriveWithoutControlCharacters) {
    vorntest::TempTree tree;
    tree.write("proc/77/stat", "77 (ab\n999=INJ\nzz) S 1 77 77 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 9 0 5\n");
    tree.write("proc/77/status", "Name:\tab\nUid:\t0\t0\t0\t0\n");
    tree.write("proc/78/stat", "78 (tab\there\r\x7f) S 1 78 78 0 -1 0 0 0 0 0 1 1 0 0 20 0 1 0 9 0 5\n");
    tree.write("proc/78/status", "Uid:\t0\t0\t0\t0\n");
    // The mount table writes a newline in a path as \012, which the reader decodes.
    tree.write("proc/self/mounts", "/dev/x /mnt/a\\012999=INJ ext4 rw 0 0\nsrv\x1b /srv fuse.f\x01s rw 0 0\n");
    tree.write("proc/diskstats", "   8 0 sd\x1b[2J 1 0 8 0 1 0 8 0 0 0 0\n");
    platform::set_roots(tree.roots());

    std::map<int, ProcessSample> seen;
    ASSERT_EQ(platform::read_processes(collect, &seen), 2);
    std::string names = std::string(seen[77].name) + "|" + seen[78].name;
    std::vector<platform::MountEntry> mounts;
    ASSERT_TRUE(platform::read_mounts(mounts));
    for (const auto& m : mounts) names += "|" + m.source + " " + m.dir + " " + m.type;
    std::vector<platform::DiskDevice> disks;
    ASSERT_TRUE(platform::read_disks(disks));
    for (const auto& d : disks) names += "|" + std::string(d.name);
    EXPECT_EQ(names, "ab?999=INJ?zz|tab?here??|/dev/x /mnt/a?999=INJ ext4|srv? /srv fuse.f?s|sd?[2J");
}

// A caller that already knows a process's uid spares its status file; the reader tells it
// the directory's owner, so it can tell when to ask again.
TEST_F(FixtureProcesses, StatusOnlyForUidsTheCallerDoesNotKnow) {
    vorntest::use_fixture("process");
    struct Known {
        std::map<int, uint32_t> asked;  // pid -> the owner it was asked with
        std::map<int, ProcessSample> seen;
    } known;
    auto uid_of = [](const ProcessSample& s, uint32_t& uid, void* arg) {
        static_cast<Known*>(arg)->asked[s.pid] = s.owner;
        if (s.pid != 1 && s.pid != 4343) return false;
        uid = 4321;
        return true;
    };
    auto keep = [](const ProcessSample& s, void* arg) { static_cast<Known*>(arg)->seen[s.pid] = s; };
    // 4343, whose status is gone, is read whole from what the caller knows.
    EXPECT_EQ(platform::read_processes(keep, &known, uid_of), 4);
    EXPECT_EQ(known.seen.at(1).uid, 4321u);
    EXPECT_EQ(known.seen.at(4343).uid, 4321u);
    EXPECT_EQ(known.seen.at(42).uid, 1000u);  // from status
    struct stat dir {};
    ASSERT_EQ(stat((platform::roots().proc + "/42").c_str(), &dir), 0);
    EXPECT_EQ(known.asked.at(42), dir.st_uid);
    EXPECT_EQ(known.seen.at(42).owner, dir.st_uid);
}

// A resident size no machine has (a corrupt or hostile stat) saturates rather than wrapping
// the page-count product into a small or negative figure.
TEST_F(FixtureProcesses, HugeResidentSizeSaturates) {
    vorntest::TempTree tree;
    const char* huge[] = {"4611686018427387904", "9223372036854775000"};
    for (const char* rss : huge) {
        tree.write("proc/7/stat", std::string("7 (big) S 1 7 7 0 -1 0 1 0 2 0 3 4 0 0 20 0 1 0 "
                                              "50 1000 ") +
                                      rss + " 18446744073709551615\n");
        tree.write("proc/7/status", "Name:\tbig\nUid:\t0\t0\t0\t0\n");
        platform::set_roots(tree.roots());
        ProcessSample s{};
        ASSERT_TRUE(platform::read_process(7, s)) << rss;
        EXPECT_EQ(s.rss_kb, INT64_MAX) << rss;
    }
}

TEST(ProcessNames, TerminalsAndUsers) {
    // A terminal's minor number above 255 lives in bits 20-31 (pts/258).
    const int32_t devices[] = {0,          136 << 8 | 1, 137 << 8 | 5, 136 << 8 | 1 << 20 | 2,
                               4 << 8 | 1, 4 << 8 | 64,  5 << 8 | 1,   5 << 8,
                               8 << 8 | 3};
    char out[32];
    std::string names;
    for (int32_t dev : devices)
        platform::tty_name(dev, out, sizeof out), names += out + std::string(" ");
    EXPECT_EQ(names, "? pts/1 pts/261 pts/258 tty1 ttyS0 console tty 8,3 ");
    char tiny[4];
    platform::tty_name(137 << 8 | 200, tiny, sizeof tiny);
    EXPECT_STREQ(tiny, "pts");

    platform::user_name(0, out, sizeof out);
    EXPECT_STREQ(out, "root");
    platform::user_name(3999999, out, sizeof out);  // no passwd entry: the number
    EXPECT_STREQ(out, "3999999");
    platform::user_name(0, tiny, 3);
    EXPECT_STREQ(tiny, "ro");
}

}  // namespace
