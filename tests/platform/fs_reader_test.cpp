// Mount table and the time-bounded space query.
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "platform/fs.h"
#include "support/fixture_roots.h"

using namespace platform;
using vorntest::RootsTest;
using vorntest::use_fixture;

class MountTable : public RootsTest {};

TEST_F(MountTable, ReadsEveryEntryInOrderAndDecodesEscapes) {
    use_fixture("mounts-1");
    std::vector<MountEntry> mounts;
    ASSERT_TRUE(read_mounts(mounts));
    ASSERT_EQ(mounts.size(), 11u);
    EXPECT_EQ(mounts[0].dir, "/");
    EXPECT_EQ(mounts[0].type, "ext4");
    EXPECT_EQ(mounts[0].source, "/dev/sda2");
    EXPECT_EQ(mounts[3].type, "nfs");
    EXPECT_EQ(mounts[6].dir, "/srv/media library");  // "\040" in the table
    EXPECT_EQ(mounts[10].type, "fuse.sshfs");
}

TEST_F(MountTable, MissingTableFails) {
    use_fixture("short-files");
    std::vector<MountEntry> mounts{MountEntry{}};
    EXPECT_FALSE(read_mounts(mounts));
    EXPECT_TRUE(mounts.empty());
}

TEST(FsUsageQuery, RealRootAgreesWithStatvfs) {
    FsUsage usage;
    ASSERT_EQ(query_fs_usage("/", usage, 5000), FsAnswer::ok);
    struct statvfs vfs {};
    ASSERT_EQ(statvfs("/", &vfs), 0);
    EXPECT_EQ(usage.blocks, vfs.f_blocks);
    EXPECT_EQ(usage.fragment_size, vfs.f_frsize);
    // Others write to the disk meanwhile: allow a little movement.
    double slack = static_cast<double>(vfs.f_blocks) * 0.01 + 16;
    EXPECT_NEAR(static_cast<double>(usage.bavail), static_cast<double>(vfs.f_bavail), slack);

    int error = 0;
    EXPECT_EQ(query_fs_usage("/nonexistent/vorn/mount", usage, 5000, &error), FsAnswer::failed);
    EXPECT_EQ(error, ENOENT);
}

namespace {
// A file system that hangs on "/hung" until the test lets it go.
std::mutex hang_mutex;
std::condition_variable hang_cv;
bool hang_released = false;
std::atomic<int> hung_calls{0};

int fake_query(const char* dir, FsUsage* out) {
    if (std::strcmp(dir, "/hung") == 0) {
        ++hung_calls;
        std::unique_lock lock(hang_mutex);
        hang_cv.wait(lock, [] { return hang_released; });
    }
    out->blocks = 100;
    out->bfree = 40;
    out->bavail = 30;
    out->fragment_size = 4096;
    return 0;
}
}  // namespace

TEST(FsUsageQuery, HungMountIsSkippedUntilItAnswers) {
    {
        std::lock_guard lock(hang_mutex);
        hang_released = false;
    }
    hung_calls = 0;
    set_fs_usage_for_tests(fake_query);
    FsUsage usage;

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(query_fs_usage("/hung", usage, 100), FsAnswer::timed_out);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_LT(waited, std::chrono::seconds(3));

    // Asked again while the first query still hangs: answered at once, no second query.
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(query_fs_usage("/hung", usage, 5000), FsAnswer::stuck);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_EQ(hung_calls.load(), 1);

    // The other mounts are not held up behind it.
    ASSERT_EQ(query_fs_usage("/fine", usage, 5000), FsAnswer::ok);
    EXPECT_EQ(usage.blocks, 100u);

    {
        std::lock_guard lock(hang_mutex);
        hang_released = true;
    }
    hang_cv.notify_all();
    FsAnswer answer = FsAnswer::stuck;
    for (int i = 0; i < 500 && answer == FsAnswer::stuck; ++i) {
        answer = query_fs_usage("/hung", usage, 5000);
        if (answer == FsAnswer::stuck) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(answer, FsAnswer::ok);
    EXPECT_EQ(hung_calls.load(), 2);
    set_fs_usage_for_tests(nullptr);
}
