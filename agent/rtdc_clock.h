// The wall-clock second that packets and log entries are stamped with.
#pragma once

#include <ctime>

/// The current second of the real-time clock, read exactly. time() on this C library reads
/// the kernel's coarse clock, which moves only at the scheduler tick and so still shows the
/// previous second for a few milliseconds after the second turns; the collection thread
/// wakes exactly on the whole second, and a packet or log line stamped then must name the
/// second it was made in.
inline time_t rtdc_now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}
