// The counter policy of every class: how a cumulative kernel counter becomes a difference
// and a figure per second.
#pragma once

#include <cmath>
#include <cstdint>

/// Growth of a cumulative counter between two samples. A counter that went backwards was
/// restarted (device re-created, network namespace renewed, 32-bit wrap in the kernel): its
/// growth over this interval is unknown, and 0 is reported rather than a huge number.
inline uint64_t rtdc_counter_delta(uint64_t now, uint64_t before) {
    return now >= before ? now - before : 0;
}

/// `delta` events over `seconds` as a rate; 0 when no time passed.
inline double rtdc_per_second(uint64_t delta, double seconds) {
    return seconds > 0 ? static_cast<double>(delta) / seconds : 0.0;
}

/// The same rounded to a whole number for the integer rows, limited to the int64 range.
inline int64_t rtdc_per_second_ll(uint64_t delta, double seconds) {
    double rate = std::round(rtdc_per_second(delta, seconds));
    return rate >= 9.2e18 ? INT64_MAX : static_cast<int64_t>(rate);
}

/// The measured time between the samples of one instance, on the boot clock
/// (platform::seconds_since_boot). The baseline starts at boot with every counter at 0, so
/// the first figures are averages since boot.
class RtdcInterval {
  public:
    /// Seconds since the baseline; 0 when the clock has not moved, in which case the caller
    /// keeps its previous figures and leaves the baseline where it is.
    double elapsed(double now) const { return now > last_ ? now - last_ : 0.0; }
    void advance(double now) { last_ = now; }
    void reset() { last_ = 0.0; }

  private:
    double last_ = 0.0;
};
