// /proc/diskstats.
#include "platform/disk.h"

#include <cerrno>
#include <string_view>

#include "platform/linux/proc_file.h"

namespace platform {
namespace {

using procfs::next_line;
using procfs::next_token;
using procfs::parse_u64;

constexpr uint64_t kSectorBytes = 512;  // diskstats counts 512-byte sectors whatever the device

procfs::ProcFile& diskstats_file() {
    static procfs::ProcFile file("diskstats");
    return file;
}

// Parses "major minor name f1 f2 ...". Kernels since 2.6.25 print at least 11 fields for
// every device (4.18 added discards, 5.5 flushes, which we do not use); older kernels
// printed only reads, sectors read, writes and sectors written for partitions.
bool parse_line(std::string_view line, DiskDevice& device) {
    uint64_t major, minor;
    if (!parse_u64(next_token(line), major) || !parse_u64(next_token(line), minor)) return false;
    std::string_view name = next_token(line);
    if (name.empty()) return false;
    uint64_t f[11] = {};
    int count = 0;
    for (std::string_view token = next_token(line); !token.empty() && count < 11;
         token = next_token(line)) {
        if (!parse_u64(token, f[count])) return false;
        ++count;
    }
    device = DiskDevice{};
    procfs::copy_name(device.name, sizeof device.name, name);
    DiskIo& io = device.io;
    if (count == 4) {
        io.reads = f[0];
        io.nread = f[1] * kSectorBytes;
        io.writes = f[2];
        io.nwritten = f[3] * kSectorBytes;
        return true;
    }
    if (count < 11) return false;  // a cut line: better no sample than a wrong one
    io.reads = f[0];
    io.nread = f[2] * kSectorBytes;
    io.writes = f[4];
    io.nwritten = f[6] * kSectorBytes;
    io.rcnt = f[8];
    io.rtime = f[9];
    io.rlentime = f[10];
    return true;
}

// Devices made of memory or of a file rather than a disk: the kernel lists them all as soon
// as their driver is loaded (16 ram disks, 8 loop devices, a zram device set up for
// compressed swap), whether or not anything uses them.
constexpr std::string_view kMemoryBackedPrefixes[] = {"ram", "loop", "zram"};

// An idle one is noise; a used one (an image mounted from a file, swap in zram) is a disk.
bool idle_pseudo_device(const DiskDevice& device) {
    if (device.io.reads != 0 || device.io.writes != 0) return false;
    std::string_view name(device.name);
    for (std::string_view prefix : kMemoryBackedPrefixes)
        if (name.starts_with(prefix)) return true;
    return false;
}

}  // namespace

bool read_disks(std::vector<DiskDevice>& out) {
    out.clear();
    std::string_view text;
    if (!diskstats_file().read(text)) {
        errno = diskstats_file().error();
        return false;
    }
    while (!text.empty()) {
        DiskDevice device;
        if (parse_line(next_line(text), device) && !idle_pseudo_device(device))
            out.push_back(device);
    }
    return true;
}

}  // namespace platform
