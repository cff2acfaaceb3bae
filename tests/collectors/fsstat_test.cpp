// File-system class on captured mount tables with a fake space query, and live with statvfs.
#include <sys/statvfs.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "support/collector_harness.h"

using namespace vorntest;
using namespace std::chrono_literals;

namespace {

const char* kHungDir = "/srv/media library";
constexpr int kLocalMounts = 7;  // in mounts-1, besides two nfs and one autofs
std::atomic<bool> hung{false};

int fake_query(const char* dir, platform::FsUsage* out) {
    while (hung && strcmp(dir, kHungDir) == 0) std::this_thread::sleep_for(1ms);
    if (strcmp(dir, "/boot/efi") == 0) return EACCES;
    if (strcmp(dir, "/proc") != 0) *out = {.blocks = 1000, .bfree = 400, .bavail = 300};
    return 0;  // /proc has no blocks at all
}

class FsClass : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        platform::set_fs_usage_for_tests(fake_query);
    }
    Lines on(const char* name, int header) { return pass(GetFsStatClassInfo, header, 1, name); }
};

TEST_F(FsClass, LocalMountsListedOnceAndUnmountedOnesDroppedOnePassLater) {
    Lines head = on("mounts-1", 1), data = on("mounts-1", 0);
    expect_golden("fs-mounts.txt",
                  head.text("header pass, mounts-1") + data.text("data pass, mounts-1"));
    // Remote and automounted file systems are left out; /run mounted twice is one.
    EXPECT_EQ(GetListCount(fs_list), kLocalMounts);
    EXPECT_EQ(GetfromFsList(fs_list, "/home"), nullptr);  // nfs
    EXPECT_EQ(leaf_base("FileSystem->/->% Space Used"), GetfromFsList(fs_list, "/")->record);
    on("mounts-2", 1);  // the list is made once, at the first header pass
    EXPECT_EQ(on("mounts-2", 0).data.size(), kLocalMounts - 1u);  // /mnt/backup went
    EXPECT_EQ(GetListCount(fs_list), kLocalMounts);               // still listed, marked unseen
    EXPECT_NE(find("FileSystem->/mnt/backup->% Space Used"), nullptr);
    on("mounts-2", 0);
    EXPECT_EQ(GetListCount(fs_list), kLocalMounts - 1);
    EXPECT_EQ(find("FileSystem->/mnt/backup"), nullptr);
    EXPECT_NE(find("FileSystem->/->Total"), nullptr);  // the others stay
    on("mounts-1", 1);  // mounted again: picked up only when the agent starts again
    EXPECT_EQ(GetfromFsList(fs_list, "/mnt/backup"), nullptr);
}

TEST_F(FsClass, HungMountCostsOneTimeoutInAll) {
    const std::string hung_total = std::string("FileSystem~^1~^->") + kHungDir + "->Total";
    const int saved_timeout = std::exchange(rtdc_fs_timeout_ms, 250);
    hung = true;
    auto start = std::chrono::steady_clock::now();
    // Quiet (verbose 0), the first header pass also announces each file system as it is made.
    EXPECT_EQ(pass(GetFsStatClassInfo, 1, 0, "mounts-1").headers.size(), 10u * kLocalMounts);
    EXPECT_NE(GetfromFsList(fs_list, kHungDir), nullptr);  // listed, with no figures yet
    for (int round = 0; round < 4; ++round) {
        auto now = values(on("mounts-1", 0));
        EXPECT_EQ(now.count(hung_total), 0u);
        EXPECT_EQ(now["FileSystem~^1~^->/->Total"], "1000.00");
        // Mounts listed after the hung one are still asked in the same pass.
        EXPECT_EQ(now["FileSystem~^1~^->/run->Total"], "1000.00");
    }
    // Waiting in every pass would take five timeouts; later passes skip the mount at once.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3 * 250ms);
    hung = false;  // once the query ends the mount answers again
    int tries = 0;
    while (values(on("mounts-1", 0)).count(hung_total) == 0 && ++tries < 200)
        std::this_thread::sleep_for(10ms);
    EXPECT_LT(tries, 200);
    rtdc_fs_timeout_ms = saved_timeout;
}

TEST_F(FsClass, LiveFiguresAgreeWithStatvfs) {
    platform::set_fs_usage_for_tests(nullptr);
    platform::set_roots(platform::Roots{});
    pass(GetFsStatClassInfo, 1, 1);
    auto now = values(pass(GetFsStatClassInfo, 0, 1));
    struct statvfs vfs {};
    ASSERT_EQ(statvfs("/", &vfs), 0);
    EXPECT_EQ(now["FileSystem~^1~^->/->Total"], std::to_string(vfs.f_blocks) + ".00");
    // Other programs write meanwhile: allow 1 % of the file system.
    EXPECT_NEAR(atof(now["FileSystem~^1~^->/->Available"].c_str()), double(vfs.f_bavail),
                vfs.f_blocks / 100.0 + 1);
}

}  // namespace
