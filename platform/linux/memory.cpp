// /proc/meminfo and /proc/vmstat.
#include "platform/memory.h"

#include <cerrno>
#include <string_view>

#include "platform/linux/proc_file.h"

namespace platform {
namespace {

using procfs::next_line;
using procfs::next_token;
using procfs::parse_u64;

procfs::ProcFile& meminfo_file() {
    static procfs::ProcFile file("meminfo");
    return file;
}

procfs::ProcFile& vmstat_file() {
    static procfs::ProcFile file("vmstat");
    return file;
}

}  // namespace

bool read_memory(MemoryInfo& out) {
    std::string_view text;
    if (!meminfo_file().read(text)) {
        errno = meminfo_file().error();
        return false;
    }
    uint64_t total = 0, available = 0, mem_free = 0, buffers = 0, cached = 0;
    bool have_total = false, have_available = false;
    while (!text.empty()) {
        std::string_view line = next_line(text);
        std::string_view key = next_token(line);  // "MemTotal:" etc.
        uint64_t value;
        if (!parse_u64(next_token(line), value)) continue;
        if (key == "MemTotal:") {
            total = value;
            have_total = true;
        } else if (key == "MemAvailable:") {
            available = value;
            have_available = true;
        } else if (key == "MemFree:") {
            mem_free = value;
        } else if (key == "Buffers:") {
            buffers = value;
        } else if (key == "Cached:") {
            cached = value;
        }
    }
    if (!have_total) {
        errno = ENODATA;
        return false;
    }
    out.total_kb = total;
    // MemAvailable exists since 3.14; before it, free plus the page and buffer caches is
    // the closest estimate of what the kernel would hand out without swapping.
    uint64_t free_kb = have_available ? available : mem_free + buffers + cached;
    out.free_kb = free_kb < total ? free_kb : total;
    return true;
}

bool read_paging(PagingCounters& out) {
    std::string_view text;
    if (!vmstat_file().read(text)) {
        errno = vmstat_file().error();
        return false;
    }
    PagingCounters counters;
    while (!text.empty()) {
        std::string_view line = next_line(text);
        std::string_view key = next_token(line);
        uint64_t value;
        if (!parse_u64(next_token(line), value)) continue;
        if (key == "pgfault")
            counters.faults = value;
        else if (key == "pgmajfault")
            counters.major_faults = value;
        else if (key == "pswpin")
            counters.pages_in = value;
        else if (key == "pswpout")
            counters.pages_out = value;
    }
    out = counters;
    return true;
}

}  // namespace platform
