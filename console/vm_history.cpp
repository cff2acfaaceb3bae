#include "console/vm_history.h"

#include <cmath>
#include <limits>

namespace vornmon {

void History::add(std::int64_t unix_ms, const Sample& sample) {
    if (capacity_ == 0) return;
    std::size_t slot = next_;
    times_[slot] = unix_ms;
    // A path missing from this sample has no value at this time.
    for (auto& [path, ring] : values_) ring[slot] = std::numeric_limits<float>::quiet_NaN();
    for (const Reading& r : sample.readings) {
        const Metric& m = *r.metric;
        if (m.is_process || !r.numeric) continue;
        auto it = values_.find(m.path);
        if (it == values_.end()) {
            if (values_.size() >= max_paths_) continue;
            it = values_
                     .emplace(m.path, std::vector<float>(capacity_,
                                                         std::numeric_limits<float>::quiet_NaN()))
                     .first;
        }
        it->second[slot] = static_cast<float>(r.number);
    }
    next_ = (next_ + 1) % capacity_;
    if (count_ < capacity_) ++count_;
}

std::vector<History::Point> History::points(const std::string& path) const {
    std::vector<Point> out;
    auto it = values_.find(path);
    if (it == values_.end()) return out;
    std::size_t first = (next_ + capacity_ - count_) % capacity_;
    for (std::size_t i = 0; i < count_; ++i) {
        std::size_t slot = (first + i) % capacity_;
        float v = it->second[slot];
        if (!std::isnan(v)) out.push_back({times_[slot], v});
    }
    return out;
}

std::vector<std::string> History::paths() const {
    std::vector<std::string> out;
    out.reserve(values_.size());
    for (auto& [path, ring] : values_) out.push_back(path);
    return out;
}

}  // namespace vornmon
