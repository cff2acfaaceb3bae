// Raw block-device I/O counters.
#pragma once

#include <cstdint>
#include <vector>

namespace platform {

/// Cumulative I/O counters of one device, in the shape the disk class works on. Times are
/// in milliseconds. Fields the host does not keep stay 0.
struct DiskIo {
    uint64_t nread = 0;                                 // bytes read
    uint64_t nwritten = 0;                              // bytes written
    uint64_t reads = 0;                                 // read operations completed
    uint64_t writes = 0;                                // write operations completed
    uint64_t wtime = 0, wlentime = 0, wlastupdate = 0;  // wait queue (none on this host)
    uint64_t rtime = 0, rlentime = 0, rlastupdate = 0;  // run queue: busy and weighted time
    uint64_t wcnt = 0;                                  // requests waiting
    uint64_t rcnt = 0;                                  // requests in flight
};

struct DiskDevice {
    char name[32];
    DiskIo io;
};

/// Every block device and partition in the kernel's order, except ram and loop devices
/// that never did any I/O. False (errno set) when the source cannot be read.
bool read_disks(std::vector<DiskDevice>& out);

}  // namespace platform
