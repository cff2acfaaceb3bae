// File-system class on hand-made mount tables with a fake space query, and live against
// statvfs of every reported mount point.
#include <sys/statvfs.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "collectors/rtdc_fsstat.h"
#include "support/collector_harness.h"

using namespace vorntest;

namespace {

std::mutex hang_mutex;
std::condition_variable hang_cv;
bool hang_released = true;
const char* hang_dir = "/srv/media library";

int fake_query(const char* dir, platform::FsUsage* out) {
    if (strcmp(dir, hang_dir) == 0) {
        std::unique_lock lock(hang_mutex);
        hang_cv.wait(lock, [] { return hang_released; });
    }
    if (strcmp(dir, "/proc") == 0) return 0;  // zero blocks
    if (strcmp(dir, "/boot/efi") == 0) return EACCES;
    out->blocks = 1000;
    out->bfree = 400;
    out->bavail = 300;
    out->fragment_size = 4096;
    return 0;
}

void release_hang() {
    {
        std::lock_guard lock(hang_mutex);
        hang_released = true;
    }
    hang_cv.notify_all();
}

class FsClass : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        rtdc_fs_reset_for_tests();
        platform::set_fs_usage_for_tests(fake_query);
        saved_timeout = rtdc_fs_timeout_ms;
    }
    void TearDown() override {
        release_hang();
        // Let an abandoned query finish so the next test does not find the mount stuck.
        platform::FsUsage usage;
        for (int i = 0; i < 500 && platform::query_fs_usage(hang_dir, usage, 1000) ==
                                       platform::FsAnswer::stuck;
             ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        CollectorTest::TearDown();
        rtdc_fs_reset_for_tests();
        platform::set_fs_usage_for_tests(nullptr);
        rtdc_fs_timeout_ms = saved_timeout;
    }
    std::vector<std::string> list_names() {
        std::vector<std::string> names;
        for (ListItem* i = fs_list ? fs_list->first : nullptr; i; i = i->next)
            names.emplace_back(static_cast<FsNode*>(i->data)->mount_point);
        return names;
    }
    int saved_timeout = 0;
};

const std::vector<std::string> kLocalMounts = {
    "/",          "/proc",
    "/boot/efi",  "/srv/media library",
    "/run",       "/var/lib/containers/storage/overlay/0123456789abcdef0123456789abcdef/merged",
    "/mnt/backup"};

TEST_F(FsClass, FirstHeaderPassListsLocalMountsOnce) {
    use_fixture("mounts-1");
    ASSERT_EQ(run(GetFsStatClassInfo, 1, /*verbose*/ 1), 1);
    // nfs, nfs4 and autofs mounts are left out; the second /run mount is the same point.
    EXPECT_EQ(list_names(), kLocalMounts);
    Lines lines = take_lines();
    EXPECT_EQ(lines.headers.size(), kLocalMounts.size() * 5);
    EXPECT_EQ(lines.headers[0], "FileSystem~^1~^->/->Name::1::File system name::1, ,0,/\n");
    // The record name is cut to its field; the node keeps the whole mount point.
    FsNode* overlay = GetfromFsList(fs_list, kLocalMounts[5].c_str());
    ASSERT_NE(overlay, nullptr);
    EXPECT_EQ(strlen(overlay->record->name), sizeof overlay->record->name - 1);
    EXPECT_EQ(GetfromFsList(fs_list, "/home"), nullptr);

    // The list is made once: a later header pass on another table changes nothing.
    use_fixture("mounts-2");
    run(GetFsStatClassInfo, 1, 1);
    EXPECT_EQ(list_names(), kLocalMounts);
}

TEST_F(FsClass, QuietFirstHeaderPassAnnouncesTwice) {
    // With the sixth value 0 each new file system writes its header lines as it is made,
    // and the header pass writes them all again with fresh ids.
    use_fixture("mounts-1");
    ASSERT_EQ(run(GetFsStatClassInfo, 1, 0), 1);
    Lines lines = take_lines();
    ASSERT_EQ(lines.headers.size(), kLocalMounts.size() * 10);
    EXPECT_EQ(lines.headers[0], "FileSystem~^1~^->/->Name::1::File system name::1, ,0,/\n");
    size_t second_round = kLocalMounts.size() * 5;
    EXPECT_EQ(lines.headers[second_round],
              "FileSystem~^1~^->/->Name::" + std::to_string(second_round + 1) +
                  "::File system name::1, ,0,/\n");
}

TEST_F(FsClass, DataPassFiguresAndGolden) {
    use_fixture("mounts-1");
    run(GetFsStatClassInfo, 1, 1);
    Lines head = take_lines();
    run(GetFsStatClassInfo, 0, 1);
    Lines data = take_lines();
    expect_golden("fs-mounts.txt", "# header pass, mounts-1\n" + head.text() +
                                       "# data pass, mounts-1\n" + data.text());
    auto values = values_by_path(head.headers, data.data);
    EXPECT_EQ(data.data.size(), kLocalMounts.size());
    EXPECT_EQ(values["FileSystem~^1~^->/->% Space Used"], "70.00");  // 1 - 300/1000
    EXPECT_EQ(values["FileSystem~^1~^->/->Available"], "300.00");
    EXPECT_EQ(values["FileSystem~^1~^->/->Used"], "600.00");
    EXPECT_EQ(values["FileSystem~^1~^->/->Total"], "1000.00");
    EXPECT_EQ(values["FileSystem~^1~^->/proc->% Space Used"], "0.00");      // no blocks at all
    EXPECT_EQ(values["FileSystem~^1~^->/boot/efi->% Space Used"], "0.00");  // answered an error
}

TEST_F(FsClass, UnmountedFileSystemLeavesListAndTreeOnePassLater) {
    use_fixture("mounts-1");
    run(GetFsStatClassInfo, 1, 1);
    Lines head = take_lines();
    ASSERT_NE(find("FileSystem->/mnt/backup->% Space Used"), nullptr);

    use_fixture("mounts-2");  // /mnt/backup was unmounted
    run(GetFsStatClassInfo, 0, 1);
    EXPECT_EQ(take_lines().data.size(), kLocalMounts.size() - 1);
    EXPECT_EQ(list_names().size(), kLocalMounts.size());  // still listed, marked unseen
    EXPECT_NE(find("FileSystem->/mnt/backup"), nullptr);

    run(GetFsStatClassInfo, 0, 1);
    EXPECT_EQ(GetfromFsList(fs_list, "/mnt/backup"), nullptr);
    EXPECT_EQ(list_names().size(), kLocalMounts.size() - 1);
    EXPECT_EQ(find("FileSystem->/mnt/backup"), nullptr);
    EXPECT_NE(find("FileSystem->/->Total"), nullptr);  // the others stay

    // Mounted again: not picked up until the agent starts again.
    use_fixture("mounts-1");
    run(GetFsStatClassInfo, 1, 1);
    EXPECT_EQ(GetfromFsList(fs_list, "/mnt/backup"), nullptr);
}

TEST_F(FsClass, TreeReadsTheRecord) {
    use_fixture("mounts-1");
    run(GetFsStatClassInfo, 1, 1);
    counter_added = 1;
    run(GetFsStatClassInfo, 1, 1);  // the header pass registers again; nothing doubles
    treeNode* leaf = find("FileSystem->/->% Space Used");
    ASSERT_NE(leaf, nullptr);
    ASSERT_EQ(GetListCount(leaf->data->instances), 1);
    MetricInstance* instance = nullptr;
    GetFirstItem(leaf->data->instances, reinterpret_cast<void**>(&instance));
    FsNode* node = GetfromFsList(fs_list, "/");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(instance->base, node->record);
    EXPECT_EQ(*reinterpret_cast<double*>(static_cast<char*>(instance->base) + leaf->data->offset),
              70.0);
}

TEST_F(FsClass, HungMountIsSkippedWithoutStallingThePass) {
    rtdc_fs_timeout_ms = 100;
    {
        std::lock_guard lock(hang_mutex);
        hang_released = false;
    }
    use_fixture("mounts-1");
    auto start = std::chrono::steady_clock::now();
    run(GetFsStatClassInfo, 1, 1);  // listed all the same, with no figures yet
    Lines head = take_lines();
    EXPECT_EQ(list_names(), kLocalMounts);
    for (int pass = 0; pass < 3; ++pass) {
        run(GetFsStatClassInfo, 0, 1);
        auto values = values_by_path(head.headers, take_lines().data);
        EXPECT_EQ(values.count("FileSystem~^1~^->/srv/media library->Total"), 0u);
        EXPECT_EQ(values["FileSystem~^1~^->/->Total"], "1000.00");
    }
    // One timeout in all: later passes skip the stuck mount at once.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(list_names(), kLocalMounts);  // still mounted, so still listed

    release_hang();
    bool answered = false;
    for (int i = 0; i < 200 && !answered; ++i) {
        run(GetFsStatClassInfo, 0, 1);
        answered = values_by_path(head.headers, take_lines().data)
                       .count("FileSystem~^1~^->/srv/media library->Total") == 1;
        if (!answered) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(answered);
}

TEST_F(FsClass, UnreadableMountTable) {
    use_fixture("short-files");  // no mount table there
    EXPECT_EQ(run(GetFsStatClassInfo, 1, 1), 1);
    EXPECT_EQ(run(GetFsStatClassInfo, 0, 1), 1);
    Lines lines = take_lines();
    EXPECT_TRUE(lines.headers.empty());
    EXPECT_TRUE(lines.data.empty());
}

// ---- live: what the class reports is what statvfs says ----

class LiveFs : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        rtdc_fs_reset_for_tests();
    }
    void TearDown() override {
        CollectorTest::TearDown();
        rtdc_fs_reset_for_tests();
    }
};

TEST_F(LiveFs, EveryReportedMountAgreesWithStatvfs) {
    platform::set_roots(platform::Roots{});
    ASSERT_EQ(run(GetFsStatClassInfo, 1, 1), 1);
    Lines head = take_lines();
    ASSERT_EQ(run(GetFsStatClassInfo, 0, 1), 1);
    Lines data = take_lines();
    auto values = values_by_path(head.headers, data.data);
    ASSERT_FALSE(values.empty());
    int checked = 0;
    for (ListItem* i = fs_list->first; i; i = i->next) {
        auto* node = static_cast<FsNode*>(i->data);
        std::string prefix = std::string("FileSystem~^1~^->") + node->mount_point;
        if (!values.count(prefix + "->Total")) continue;  // did not answer in time
        struct statvfs vfs {};
        ASSERT_EQ(statvfs(node->mount_point, &vfs), 0) << node->mount_point;
        double total = atof(values[prefix + "->Total"].c_str());
        double avail = atof(values[prefix + "->Available"].c_str());
        EXPECT_DOUBLE_EQ(total, static_cast<double>(vfs.f_blocks)) << node->mount_point;
        // Other programs write meanwhile: allow 1 % of the file system.
        EXPECT_NEAR(avail, static_cast<double>(vfs.f_bavail),
                    static_cast<double>(vfs.f_blocks) / 100 + 1)
            << node->mount_point;
        ++checked;
    }
    EXPECT_GT(checked, 0);
    EXPECT_NE(GetfromFsList(fs_list, "/"), nullptr);
}

}  // namespace
