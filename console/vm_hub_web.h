// The hub's routes for the web dashboard: the page files, the fleet summary, several history
// series at once and the rules in force. The live stream the page reads is the hub's own
// (/api/agents/NAME/stream?format=compact).
#pragma once

#include <string>
#include <vector>

#include "console/vm_hub.h"
#include "console/vm_web.h"

namespace httplib {
class Server;
}

namespace vornmon {

/// Paths a history request may ask for by prefix at once, and series it may return: enough
/// for every processor, disk and mount of a large host, and bounded like every other reply.
inline constexpr std::size_t kMaxHistoryPrefixes = 16;
inline constexpr std::size_t kMaxHistorySeries = 1024;

/// {"series":[{"path":...,"points":[[unix_ms,value],...]},...]} for every kept path that
/// starts with one of `prefixes`, in path order.
std::string history_series_json(const AgentLink& agent, const std::vector<std::string>& prefixes);

/// One summary row per agent for the fleet page, with the hub's interval and history span.
std::string fleet_json(const Hub& hub);

/// Registers the dashboard's routes; the page files come last, so every API path wins.
void add_dashboard_routes(httplib::Server& server, Hub& hub, const WebFiles& web);

}  // namespace vornmon
