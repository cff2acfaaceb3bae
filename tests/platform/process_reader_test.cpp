// The process reader on a captured tree and on the live host.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "platform/process.h"
#include "platform/roots.h"

namespace {

using platform::ProcessSample;

const std::string kFixture = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/process";

void collect(const ProcessSample& sample, void* arg) {
    (*static_cast<std::map<int, ProcessSample>*>(arg))[sample.pid] = sample;
}

std::map<int, ProcessSample> read_all() {
    std::map<int, ProcessSample> seen;
    platform::read_processes(collect, &seen);
    return seen;
}

int open_descriptors() {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    while (dirent* e = readdir(dir))
        if (e->d_name[0] != '.') ++n;
    closedir(dir);
    return n;
}

class FixtureProcesses : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = platform::roots();
        platform::Roots r;
        r.proc = kFixture + "/proc";
        r.sys = kFixture + "/sys";
        platform::set_roots(r);
    }
    void TearDown() override { platform::set_roots(saved_); }
    platform::Roots saved_;
};

TEST_F(FixtureProcesses, ReadsOnlyProcessesThatCouldBeReadWhole) {
    auto seen = read_all();
    // 4242 vanished before its stat, 4343 before its status; "self" is not a pid.
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_TRUE(seen.count(1) && seen.count(42) && seen.count(777));
    EXPECT_EQ(platform::read_processes(collect, &seen), 3);
}

TEST_F(FixtureProcesses, StatStatusAndIoFields) {
    auto seen = read_all();
    const int64_t page_kb = sysconf(_SC_PAGESIZE) / 1024;

    const ProcessSample& init = seen.at(1);
    EXPECT_STREQ(init.name, "systemd");
    EXPECT_EQ(init.ppid, 0);
    EXPECT_EQ(init.tty_nr, 0);
    EXPECT_EQ(init.minflt, 30769u);
    EXPECT_EQ(init.majflt, 12u);
    EXPECT_EQ(init.utime, 58u);
    EXPECT_EQ(init.stime, 179u);
    EXPECT_EQ(init.priority, 20);
    EXPECT_EQ(init.start_time, 3u);
    EXPECT_EQ(init.rss_kb, 3492 * page_kb);
    EXPECT_EQ(init.uid, 0u);
    ASSERT_TRUE(init.has_io);
    EXPECT_EQ(init.rchar, 1000000u);
    EXPECT_EQ(init.wchar, 250000u);
    EXPECT_EQ(init.syscr, 4000u);
    EXPECT_EQ(init.syscw, 1500u);
    EXPECT_EQ(init.read_bytes, 5120000u);
    EXPECT_EQ(init.write_bytes, 1024000u);

    // The name runs to the last ')', so its own parentheses and blanks stay in it and the
    // numbers after it are not shifted.
    const ProcessSample& odd = seen.at(42);
    EXPECT_STREQ(odd.name, "my prog) (x");
    EXPECT_EQ(odd.ppid, 1);
    EXPECT_EQ(odd.tty_nr, 34817);
    EXPECT_EQ(odd.utime, 250u);
    EXPECT_EQ(odd.stime, 50u);
    EXPECT_EQ(odd.majflt, 7u);
    EXPECT_EQ(odd.priority, 25);
    EXPECT_EQ(odd.start_time, 5000u);
    EXPECT_EQ(odd.rss_kb, 900 * page_kb);
    EXPECT_EQ(odd.uid, 1000u);
    EXPECT_EQ(odd.write_bytes, 4096u);

    // No io file: the process stays, with no I/O figures.
    const ProcessSample& worker = seen.at(777);
    EXPECT_STREQ(worker.name, "kworker/0:1-events");
    EXPECT_EQ(worker.priority, -51);
    EXPECT_EQ(worker.rss_kb, 0);
    EXPECT_FALSE(worker.has_io);
    EXPECT_EQ(worker.rchar + worker.wchar + worker.syscr + worker.syscw + worker.read_bytes +
                  worker.write_bytes,
              0u);
}

TEST_F(FixtureProcesses, SingleLookupAndProcessorCount) {
    ProcessSample s{};
    ASSERT_TRUE(platform::read_process(42, s));
    EXPECT_STREQ(s.name, "my prog) (x");
    EXPECT_FALSE(platform::read_process(4242, s));
    EXPECT_FALSE(platform::read_process(4343, s));
    EXPECT_FALSE(platform::read_process(999999, s));
    EXPECT_EQ(platform::online_processors(), 4);
}

TEST_F(FixtureProcesses, MissingRootIsAnErrorNotACrash) {
    platform::Roots r;
    r.proc = kFixture + "/no-such-dir";
    r.sys = kFixture + "/no-such-dir";
    platform::set_roots(r);
    std::map<int, ProcessSample> seen;
    EXPECT_EQ(platform::read_processes(collect, &seen), -1);
    EXPECT_TRUE(seen.empty());
    // Without the online list the count falls back to the C library's, never 0.
    EXPECT_GE(platform::online_processors(), 1);
}

TEST(ProcessNames, TerminalDeviceNumbers) {
    char out[32];
    platform::tty_name(0, out, sizeof out);
    EXPECT_STREQ(out, "?");
    platform::tty_name(136 << 8 | 1, out, sizeof out);
    EXPECT_STREQ(out, "pts/1");
    platform::tty_name(137 << 8 | 5, out, sizeof out);
    EXPECT_STREQ(out, "pts/261");
    // Minor numbers above 255 live in bits 20-31.
    platform::tty_name(136 << 8 | (1 << 20) | 2, out, sizeof out);
    EXPECT_STREQ(out, "pts/258");
    platform::tty_name(4 << 8 | 1, out, sizeof out);
    EXPECT_STREQ(out, "tty1");
    platform::tty_name(4 << 8 | 64, out, sizeof out);
    EXPECT_STREQ(out, "ttyS0");
    platform::tty_name(5 << 8 | 1, out, sizeof out);
    EXPECT_STREQ(out, "console");
    char tiny[4];
    platform::tty_name(136 << 8 | 12345 % 256, tiny, sizeof tiny);
    EXPECT_EQ(strlen(tiny), 3u);
}

TEST(ProcessNames, UserNamesThroughTheCache) {
    char out[32];
    platform::user_name(0, out, sizeof out);
    EXPECT_STREQ(out, "root");
    platform::user_name(3999999, out, sizeof out);  // no passwd entry: the number
    EXPECT_STREQ(out, "3999999");
    platform::user_name(3999999, out, sizeof out);  // remembered miss, same answer
    EXPECT_STREQ(out, "3999999");
    char tiny[3];
    platform::user_name(0, tiny, sizeof tiny);
    EXPECT_STREQ(tiny, "ro");
}

TEST(LiveProcesses, OwnProcessAndNoDescriptorLeft) {
    const int before = open_descriptors();
    auto seen = read_all();
    EXPECT_EQ(open_descriptors(), before);

    ASSERT_TRUE(seen.count(getpid()));
    const ProcessSample& self = seen.at(getpid());
    EXPECT_EQ(self.ppid, getppid());
    EXPECT_EQ(self.uid, getuid());
    EXPECT_GT(self.start_time, 0u);
    EXPECT_TRUE(seen.count(getppid()));

    // Resident size against the kernel's own status line, read right after.
    std::ifstream status("/proc/self/status");
    std::string line;
    long vmrss = -1;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) vmrss = std::atol(line.c_str() + 6);
    ASSERT_GT(vmrss, 0);
    EXPECT_NEAR(static_cast<double>(self.rss_kb), static_cast<double>(vmrss), vmrss * 0.1 + 256);
}

TEST(LiveProcesses, WritesShowInTheIoCounters) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const std::string file = std::string(VORN_BINARY_DIR) + "/process_reader_io.tmp";
    const size_t kBytes = 1 << 20;
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(ready[0]);
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        static char block[64 * 1024];
        memset(block, 'x', sizeof block);
        for (size_t done = 0; fd >= 0 && done < kBytes; done += sizeof block)
            if (write(fd, block, sizeof block) != static_cast<ssize_t>(sizeof block)) _exit(2);
        if (fd < 0 || fsync(fd) != 0) _exit(3);
        close(fd);
        char c = 'r';
        if (write(ready[1], &c, 1) != 1) _exit(4);
        pause();
        _exit(0);
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    close(ready[0]);

    ProcessSample s{};
    bool found = platform::read_process(child, s);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    unlink(file.c_str());
    ASSERT_TRUE(found);
    EXPECT_EQ(s.ppid, getpid());
    ASSERT_TRUE(s.has_io);
    EXPECT_GE(s.wchar, kBytes);
    EXPECT_GE(s.syscw, kBytes / (64 * 1024));
    // Written bytes are charged when the pages are dirtied; fsync made sure they were.
    EXPECT_GE(s.write_bytes, kBytes);
}

}  // namespace
