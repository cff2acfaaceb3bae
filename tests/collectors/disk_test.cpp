// Disk class over fixture snapshots: per-interval counts, devices coming and going,
// restarted counters, queue changes.
#include "collectors/rtdc_disk.h"
#include "support/collector_harness.h"

using namespace vorntest;

namespace {

class DiskClass : public CollectorTest {
  protected:
    void SetUp() override {
        CollectorTest::SetUp();
        rtdc_disk_reset_for_tests();
    }
    void TearDown() override {
        CollectorTest::TearDown();  // empties the tree before the records go
        rtdc_disk_reset_for_tests();
    }
    Lines header(const char* fixture) {
        use_fixture(fixture);
        EXPECT_EQ(run(GetDiskClassInfo, 1), 1);
        Lines lines = take_lines();
        last_headers = lines.headers;
        return lines;
    }
    std::map<std::string, std::string> data(const char* fixture, Lines* raw = nullptr) {
        use_fixture(fixture);
        EXPECT_EQ(run(GetDiskClassInfo, 0), 1);
        Lines lines = take_lines();
        EXPECT_TRUE(lines.headers.empty());
        if (raw) *raw = lines;
        return values_by_path(last_headers, lines.data);
    }
    std::vector<std::string> last_headers;
};

std::vector<std::string> announced(const std::vector<std::string>& headers) {
    std::vector<std::string> devices;
    for (const std::string& h : headers) {
        size_t start = h.find("~^1~^->") + 7, end = h.find("->Name::");
        if (end != std::string::npos) devices.push_back(h.substr(start, end - start));
    }
    return devices;
}

TEST_F(DiskClass, CapturedHostCountsPerInterval) {
    Lines head = header("captured-1");
    Lines raw1, raw2;
    auto first = data("captured-1", &raw1);
    auto second = data("captured-2", &raw2);
    expect_golden("disk-captured.txt", "# header pass, captured-1\n" + head.text() +
                                           "# data pass, captured-1\n" + raw1.text() +
                                           "# data pass, captured-2\n" + raw2.text());
    EXPECT_EQ(announced(head.headers), (std::vector<std::string>{"vda", "zram0"}));
    // The Name attribute goes out empty; the device is named by the counter path.
    EXPECT_EQ(head.headers[0], "Disk~^1~^->vda->Name::1::Disk name::1,0,0,\n");
    EXPECT_EQ(raw1.data.size(), 2u);  // one entry per device
    // The header pass set the baseline, so the same snapshot again shows no activity.
    EXPECT_EQ(first["Disk~^1~^->vda->Total Operations"], "0.00");
    // 22 reads and 8 writes; 952 sectors read and 16384 written between the snapshots;
    // not divided by the interval.
    EXPECT_EQ(second["Disk~^1~^->vda->Total Operations"], "30.00");
    EXPECT_EQ(second["Disk~^1~^->vda->Total Transfers"], "8876032.00");
    EXPECT_EQ(second["Disk~^1~^->vda->Waiting Elements"], "0");
    EXPECT_EQ(second["Disk~^1~^->zram0->Total Operations"], "0.00");
}

TEST_F(DiskClass, DataPassBeforeAnyHeaderReportsTotalsSinceBoot) {
    use_fixture("captured-1");
    ASSERT_EQ(run(GetDiskClassInfo, 0), 1);
    Lines lines = take_lines();
    ASSERT_EQ(lines.data.size(), 2u);
    // Ids are still the compiled 1s; the values are what counts: 54140 + 5281 operations.
    EXPECT_EQ(lines.data[0].substr(0, 10), "1=59421.00");
}

TEST_F(DiskClass, NewDeviceWaitsForTheNextHeaderPass) {
    header("captured-1");
    Lines raw;
    data("new-disk", &raw);
    EXPECT_EQ(raw.data.size(), 2u);  // sdb, sdb1 and the now-used loop1 are not announced yet

    Lines head = header("new-disk");
    EXPECT_EQ(announced(head.headers),
              (std::vector<std::string>{"loop1", "vda", "sdb", "sdb1", "zram0"}));
    auto values = data("new-disk");
    EXPECT_EQ(values["Disk~^1~^->sdb->Total Operations"], "0.00");
    EXPECT_EQ(values.size(), 5u * 4u);
}

TEST_F(DiskClass, VanishedDeviceReportsNothingThenDropsOut) {
    header("new-disk");
    Lines raw;
    auto values = data("captured-2", &raw);  // sdb, sdb1 and loop1 are gone
    EXPECT_EQ(raw.data.size(), 5u);          // still announced: zero activity
    EXPECT_EQ(values["Disk~^1~^->sdb->Total Operations"], "0.00");
    EXPECT_EQ(values["Disk~^1~^->sdb->Run State Elements"], "0");
    Lines head = header("captured-2");
    EXPECT_EQ(announced(head.headers), (std::vector<std::string>{"vda", "zram0"}));
}

TEST_F(DiskClass, RestartedCountersGiveZero) {
    header("captured-2");
    auto values = data("counter-reset");  // vda re-created: every counter far lower
    EXPECT_EQ(values["Disk~^1~^->vda->Total Operations"], "0.00");
    EXPECT_EQ(values["Disk~^1~^->vda->Total Transfers"], "0.00");
    values = data("captured-2");  // and from that new baseline onward, real figures again
    EXPECT_EQ(values["Disk~^1~^->vda->Total Operations"], "59301.00");
}

TEST_F(DiskClass, QueueLengthChangesNeverGoNegative) {
    TempTree tree;
    platform::set_roots(tree.roots());
    auto write_in_flight = [&](int n) {
        tree.write("proc/diskstats",
                   " 8 0 sda 10 0 80 1 10 0 80 1 " + std::to_string(n) + " 5 5\n");
    };
    write_in_flight(5);
    ASSERT_EQ(run(GetDiskClassInfo, 1), 1);
    last_headers = take_lines().headers;
    write_in_flight(2);
    ASSERT_EQ(run(GetDiskClassInfo, 0), 1);
    EXPECT_EQ(values_by_path(last_headers, take_lines().data)["Disk~^1~^->sda->Run State Elements"],
              "0");
    write_in_flight(6);
    ASSERT_EQ(run(GetDiskClassInfo, 0), 1);
    EXPECT_EQ(values_by_path(last_headers, take_lines().data)["Disk~^1~^->sda->Run State Elements"],
              "4");
}

TEST_F(DiskClass, TreeLeavesPointAtTheDeviceRecords) {
    header("captured-1");
    counter_added = 1;  // later header passes leave the tree alone
    header("captured-1");
    treeNode* leaf = find("Disk->vda->Total Operations");
    ASSERT_NE(leaf, nullptr);
    ASSERT_EQ(GetListCount(leaf->data->instances), 1);
    MetricInstance* instance = nullptr;
    GetFirstItem(leaf->data->instances, reinterpret_cast<void**>(&instance));
    EXPECT_EQ(instance->base, rtdc_disk_record("vda"));
    EXPECT_EQ(find("Disk->vda->Name"), nullptr);  // attributes are not watched
    // The record the tree reads follows the data passes.
    data("captured-2");
    EXPECT_EQ(rtdc_disk_record("vda")->total_ops, 30.0);
}

TEST_F(DiskClass, NoDevicesAndNoFile) {
    TempTree tree;
    tree.write("proc/diskstats", "");
    platform::set_roots(tree.roots());
    EXPECT_EQ(run(GetDiskClassInfo, 1), 1);
    EXPECT_EQ(run(GetDiskClassInfo, 0), 1);
    Lines lines = take_lines();
    EXPECT_TRUE(lines.headers.empty());
    EXPECT_TRUE(lines.data.empty());
    use_fixture("mounts-1");
    EXPECT_EQ(run(GetDiskClassInfo, 0), 0);
}

}  // namespace
