// Who may connect, and how much of the agent one address may hold: the address the server
// binds (ADDRESS~), the consoles allowed (ALLOW~), the connections one address and all of
// them together may keep open, and a report limiter so that a flood of refused connections
// cannot flood the log.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace rtdc_access {

using Clock = std::chrono::steady_clock;

/// An IPv4 prefix in host byte order; a single address is a prefix of 32 bits.
struct Prefix {
    uint32_t network = 0;
    uint32_t mask = 0;
};

/// A dotted address "a.b.c.d" and nothing else (no shorthand forms, no blanks).
bool parse_ipv4(const std::string& text, uint32_t* address);

/// The ALLOW~ value: addresses and a.b.c.d/n prefixes separated by commas and/or blanks.
/// False on the first entry that is neither; *bad names it.
bool parse_allow_list(const std::string& text, std::vector<Prefix>* out, std::string* bad);

/// An empty list allows everyone.
bool allowed(const std::vector<Prefix>& allow, uint32_t address);

/// Says yes at most once per `every` for each address. Remembers a bounded number of
/// addresses; past that, addresses it has no room for are not reported.
class ReportLimiter {
  public:
    explicit ReportLimiter(Clock::duration every, size_t capacity = 4096)
        : every_(every), capacity_(capacity) {}
    bool should_report(uint32_t address, Clock::time_point now);

  private:
    std::mutex mutex_;
    Clock::duration every_;
    size_t capacity_;
    std::unordered_map<uint32_t, Clock::time_point> last_;
};

/// Open request connections, per address and in all.
class ConnectionCounts {
  public:
    enum class Admit { Yes, AddressFull, AllFull };
    /// Counts a new connection of `address` unless that address already holds
    /// `per_address` or all addresses together hold `total`.
    Admit admit(uint32_t address, int per_address, int total);
    void release(uint32_t address);
    int total() const;

  private:
    mutable std::mutex mutex_;
    std::unordered_map<uint32_t, int> open_;
    int total_ = 0;
};

/// Dotted text of a host-order address.
std::string dotted(uint32_t address);

}  // namespace rtdc_access
