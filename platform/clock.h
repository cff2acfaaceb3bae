// The time base for every per-second rate.
#pragma once

namespace platform {

/// Seconds since the host booted, from a clock that never steps backwards and that keeps
/// counting while the host is suspended, so that it matches the kernel's cumulative
/// counters: a counter divided by this value is its average since boot.
double seconds_since_boot();

/// Test hook: replace the clock (null restores the real one).
void set_clock_for_tests(double (*clock)());

}  // namespace platform
