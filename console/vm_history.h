// A short history of one agent's host-wide figures: a fixed ring of sample times and, per
// metric path, a ring of values beside it. Memory is fixed by the capacity and the cap on
// paths; processes are not kept (they come and go by the thousand).
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "console/vm_model.h"

namespace vornmon {

class History {
  public:
    /// Keeps `capacity` samples of at most `max_paths` metric paths.
    History(std::size_t capacity, std::size_t max_paths)
        : capacity_(capacity), max_paths_(max_paths), times_(capacity, 0) {}

    /// Records the numeric host-wide readings of a measurement taken at `unix_ms`.
    void add(std::int64_t unix_ms, const Sample& sample);

    struct Point {
        std::int64_t unix_ms;
        double value;
    };
    /// The kept values of `path`, oldest first; empty when the path is unknown.
    std::vector<Point> points(const std::string& path) const;
    /// Every path kept, in no particular order.
    std::vector<std::string> paths() const;
    std::size_t size() const { return count_; }
    std::size_t capacity() const { return capacity_; }

  private:
    std::size_t capacity_, max_paths_;
    std::size_t next_ = 0, count_ = 0;
    std::vector<std::int64_t> times_;
    std::unordered_map<std::string, std::vector<float>> values_;
};

}  // namespace vornmon
