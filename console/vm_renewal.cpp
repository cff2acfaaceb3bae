#include "console/vm_renewal.h"

#include <algorithm>

#include "console/vm_model.h"

namespace vornmon {
namespace {

constexpr size_t kHeaderEntries = 65536;
constexpr std::chrono::seconds kLongestPause{3600};

}  // namespace

bool RenewalPace::due(Clock::time_point now) {
    if (last_ != Clock::time_point{} && now - last_ < pause_) return false;
    last_ = now;
    return true;
}

void RenewalPace::header_arrived(size_t lines) {
    const bool full = lines + (kProcessFields - 1) > kHeaderEntries;
    pause_ = full ? std::min(pause_ * 2, std::max(kLongestPause, base_)) : base_;
}

}  // namespace vornmon
