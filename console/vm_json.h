// JSON output of packets, leaves and alerts: one object per line, so the output of a
// running console can be piped into line-oriented tools.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "console/vm_model.h"
#include "console/vm_requests.h"

namespace vornmon {

/// A JSON string literal; invalid UTF-8 bytes become U+FFFD so the output stays valid.
std::string json_quote(std::string_view text);
/// The shortest decimal text that reads back as `value` (finite values only).
std::string shortest_number(double value);
/// A JSON number, or null for values JSON cannot hold (NaN, infinities).
std::string json_number(double value);

/// One packet: number, time, interval, count of header lines, and every value it carried
/// (data lines and the values of attribute header lines) with path, units and, for
/// processes, pid and name.
std::string sample_json(const Sample& sample, const Packet& packet, const Session& session);
std::string leaf_json(const Leaf& leaf);
std::string alert_json(const Alert& alert);

}  // namespace vornmon
