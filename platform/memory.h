// Raw memory and paging counters.
#pragma once

#include <cstdint>

namespace platform {

/// Physical memory, in KiB.
struct MemoryInfo {
    uint64_t total_kb = 0;
    /// Memory that programs can still get without the host swapping.
    uint64_t free_kb = 0;
};

/// Cumulative paging event counts since boot.
struct PagingCounters {
    uint64_t faults = 0;        // every page fault
    uint64_t major_faults = 0;  // faults that needed I/O
    uint64_t pages_in = 0;      // pages read back from swap
    uint64_t pages_out = 0;     // pages written to swap
};

/// Fills `out`; false (with errno set) when the source cannot be read or gives no total.
bool read_memory(MemoryInfo& out);
/// Fills `out`; false (with errno set) when the source cannot be read. Counters the
/// kernel does not publish stay 0.
bool read_paging(PagingCounters& out);

}  // namespace platform
