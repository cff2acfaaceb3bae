// When the hub asks an agent for a fresh header pass: a data packet carries no header lines,
// so a process that started after the last header pass arrives as a pid without a name.
#pragma once

#include <chrono>
#include <cstddef>

namespace vornmon {

class RenewalPace {
  public:
    using Clock = std::chrono::steady_clock;

    explicit RenewalPace(std::chrono::seconds pause) : base_(pause), pause_(pause) {}

    /// A measurement holds processes without a name: true when a header pass is to be asked
    /// for now, which then counts as asked.
    bool due(Clock::time_point now);

    /// A header packet of `lines` header lines arrived. An agent holds at most 65,536 header
    /// entries; once they are full, the processes left out stay without a name whatever the
    /// hub asks, and each header pass costs the agent a whole pass over its processes. So
    /// every full header packet doubles the pause (up to an hour), and one with room for
    /// another process sets it back.
    void header_arrived(size_t lines);

    std::chrono::seconds pause() const { return pause_; }

  private:
    std::chrono::seconds base_, pause_;
    Clock::time_point last_{};
};

}  // namespace vornmon
