// Disk class on captured snapshots: counts per interval, devices coming and going.
#include "support/collector_harness.h"

using namespace vorntest;

namespace {

const std::string kVda = "Disk~^1~^->vda->", kSdb = "Disk~^1~^->sdb->";

class DiskClass : public CollectorTest {
  protected:
    Lines on(const char* name, int header) { return pass(GetDiskClassInfo, header, 0, name); }
};

TEST_F(DiskClass, CapturedHostCountsPerIntervalIntoTheRecordTheTreeReads) {
    Lines head = on("captured-1", 1), data1 = on("captured-1", 0), data2 = on("captured-2", 0);
    expect_golden("disk-captured.txt", head.text("header pass, captured-1") +
                                           data1.text("data pass, captured-1") +
                                           data2.text("data pass, captured-2"));
    EXPECT_EQ(leaf_base("Disk->vda->Total Operations"), rtdc_disk_record("vda"));
    EXPECT_EQ(rtdc_disk_record("vda")->total_ops, 30.0);  // 22 reads and 8 writes, not per second
}

TEST_F(DiskClass, DevicesComeAtAHeaderPassAndLeaveAtTheNext) {
    // Before any header pass the list is made and the totals since boot go out.
    EXPECT_EQ(on("captured-1", 0).data.at(0).substr(0, 10), "1=59421.00");
    EXPECT_EQ(on("captured-1", 1).headers.size(), 5u);  // vda, five lines; idle zram0 is left out
    EXPECT_EQ(DiskCount, 1);
    EXPECT_EQ(on("new-disk", 0).data.size(), 1u);  // sdb, sdb1 and loop1 wait for a header
    EXPECT_EQ(on("new-disk", 1).headers.size(), 4 * 5u);
    EXPECT_EQ(DiskCount, 4);
    EXPECT_EQ(values(on("new-disk", 0))[kSdb + "Total Operations"], "0.00");
    Lines gone = on("captured-2", 0);  // sdb, sdb1 and loop1 are gone
    EXPECT_EQ(gone.data.size(), 4u);   // still announced, with no activity
    EXPECT_EQ(values(gone)[kSdb + "Total Operations"], "0.00");
    EXPECT_EQ(on("captured-2", 1).headers.size(), 5u);
    EXPECT_EQ(DiskCount, 1);
    EXPECT_EQ(values(on("captured-2", 0)).count(kSdb + "Total Operations"), 0u);
    EXPECT_EQ(run(GetDiskClassInfo, 0, 0, "mounts-1"), 0);  // no diskstats at all
}

TEST_F(DiskClass, IdleDevicesOfMemoryOrFilesAreLeftOutUsedOnesAreDisks) {
    TempTree tree;
    platform::set_roots(tree.roots());
    struct Device {
        std::string name;
        bool did_io, listed;
    };
    const Device devices[] = {{"ram0", false, false},  {"loop0", false, false},
                              {"zram0", false, false}, {"ram1", true, true},
                              {"loop1", true, true},   {"zram1", true, true},
                              {"sda", false, true},    {"nvme0n1", false, true}};
    std::string text, expected;
    for (const Device& d : devices) {
        text +=
            " 1 0 " + d.name + (d.did_io ? " 1 0 8 0 1 0 8 0 0 1 1\n" : " 0 0 0 0 0 0 0 0 0 0 0\n");
        if (d.listed) expected += d.name + ";";
    }
    tree.write("proc/diskstats", text);
    const std::string prefix = "Disk~^1~^->", name_row = "->Name::";
    std::string names;
    for (const std::string& h : on(nullptr, 1).headers)
        if (size_t end = h.find(name_row); end != std::string::npos)
            names += h.substr(prefix.size(), end - prefix.size()) + ";";
    EXPECT_EQ(names, expected);
    EXPECT_EQ(DiskCount, 5);
}

TEST_F(DiskClass, CountersAndQueuesThatStepBackGiveZero) {
    on("captured-2", 1);
    auto reset = values(on("counter-reset", 0));  // vda re-created: counters far lower
    EXPECT_EQ(reset[kVda + "Total Operations"], "0.00");
    EXPECT_EQ(reset[kVda + "Total Transfers"], "0.00");
    EXPECT_EQ(values(on("captured-2", 0))[kVda + "Total Operations"], "59301.00");
    TempTree tree;
    platform::set_roots(tree.roots());
    std::string queue;
    for (int in_flight : {5, 2, 6}) {  // the queue shrinks by 3, then grows by 4
        tree.write("proc/diskstats",
                   " 8 0 sda 10 0 80 1 10 0 80 1 " + std::to_string(in_flight) + " 5 5\n");
        queue += values(on(nullptr, in_flight == 5))["Disk~^1~^->sda->Run State Elements"] + ";";
    }
    EXPECT_EQ(queue, ";0;4;");
}

}  // namespace
