// The process reader on a captured tree, and the names it gives terminals and users.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <tuple>

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
        {1, "systemd", 0, 0, 0, 3, 20, 3492 * kb, 58, 179, 30769, 12, true, 1000000, 250000, 4000,
         1500, 5120000, 1024000},
        // The name runs to the last ')': its own parentheses and blanks stay in it and the
        // numbers after it are not shifted.
        {42, "my prog) (x", 1, 34817, 1000, 5000, 25, 900 * kb, 250, 50, 1200, 7, true, 7, 8, 1, 2,
         512, 4096},
        // No io file: the process stays, with no I/O figures.
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
