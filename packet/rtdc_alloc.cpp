// Zeroed allocation helpers for the collectors.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"

void* rtdc_alloc(size_t size) {
    // A transient shortage is retried a few times at once before the caller is told.
    void* block = malloc(size);
    for (int retry = 0; !block && retry < 5; ++retry) block = malloc(size);
    if (!block) {
        RTDCAppendLog("Malloc failed. Unable to allocate memory.\n");
        return nullptr;
    }
    memset(block, 0, size);
    return block;
}

int rtdc_alloc64(size_t size, void** out_pointer) {
    *out_pointer = nullptr;
    long page = sysconf(_SC_PAGESIZE);
    if (page <= 0) page = 4096;
    void* block = nullptr;
    if (posix_memalign(&block, static_cast<size_t>(page), size ? size : 1) != 0) return 0;
    memset(block, 0, size);
    *out_pointer = block;
    return 1;
}
