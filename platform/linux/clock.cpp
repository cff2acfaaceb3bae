#include "platform/clock.h"

#include <atomic>
#include <ctime>

namespace platform {
namespace {
std::atomic<double (*)()> test_clock{nullptr};
}  // namespace

double seconds_since_boot() {
    if (auto* fake = test_clock.load(std::memory_order_relaxed)) return fake();
    timespec ts{};
    // CLOCK_BOOTTIME rather than CLOCK_MONOTONIC: the kernel counters keep their totals
    // across a suspend, so the elapsed time must include it too.
    if (clock_gettime(CLOCK_BOOTTIME, &ts) != 0) clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void set_clock_for_tests(double (*clock)()) {
    test_clock.store(clock, std::memory_order_relaxed);
}

}  // namespace platform
