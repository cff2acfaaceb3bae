// Waiting for the wall clock to turn to a new second, as the collection thread does.
#pragma once

#include <chrono>
#include <ctime>
#include <thread>

namespace vorntest {

/// The current second of the precise real-time clock.
inline time_t precise_second() {
    using namespace std::chrono;
    return system_clock::to_time_t(floor<seconds>(system_clock::now()));
}

/// Sleeps until the next whole second, exactly as the collection thread's tick does, and
/// returns that second. Right after the wake-up the kernel's coarse clock usually still
/// shows the second before.
inline time_t wake_on_next_second() {
    using namespace std::chrono;
    std::this_thread::sleep_until(floor<seconds>(system_clock::now()) + seconds(1));
    return precise_second();
}

}  // namespace vorntest
