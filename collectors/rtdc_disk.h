// Disk class ("Disk"): one instance per block device, named by the device, with per-interval
// operation and byte counts.
#pragma once

#include "collectors/rtdc_output.h"
#include "collectors/rtdc_tables.h"
#include "platform/disk.h"

/// One disk's values: the current counters in a header pass, their growth since the last
/// sample in a data pass.
struct DiskState {
    // Never filled: consoles identify a disk by its counter paths ("sda->Total Operations")
    // and have always received the Name attribute empty.
    char name[32];
    platform::DiskIo io;
};

/// How many disks the last header pass announced.
extern int DiskCount;

/// Fills one disk record: operations and bytes of the interval (not divided by its
/// length), queue lengths; nothing below 0. Returns 1.
int PerfDisk(const DiskState* state, DiskRecord* record);

/// The record of a device announced by the last header pass (tests, alerting), or null.
const DiskRecord* rtdc_disk_record(const char* device);

/// The class's pass (header_flag 1: announce, 0: report), through `out`. 1 on success,
/// 0 when the device counters cannot be read.
int rtdc_collect_disk(ClassOutput& out, int header_flag);

/// Test hook: forget every device. Only while no metric tree refers to their records.
void rtdc_disk_reset_for_tests();
