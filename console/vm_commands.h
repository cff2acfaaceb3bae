// The commands of vornmon, each given its context and parsed arguments; the table that
// names them and their options is in vm_cli.cpp.
#pragma once

#include <memory>

#include "console/vm_args.h"
#include "console/vm_feed.h"
#include "console/vm_view.h"

namespace vornmon {

// Live commands (vm_live.cpp): loops around a Feed.
int cmd_top(const Context& ctx, const Parsed& p);
int cmd_raw(const Context& ctx, const Parsed& p);
int cmd_json(const Context& ctx, const Parsed& p);
int cmd_openmetrics(const Context& ctx, const Parsed& p);
int cmd_hub(const Context& ctx, const Parsed& p);

// One request each (vm_oneshot.cpp).
int cmd_desc(const Context& ctx, const Parsed& p);
int cmd_rules(const Context& ctx, const Parsed& p);
int cmd_alert_interval(const Context& ctx, const Parsed& p);
int cmd_alerts(const Context& ctx, const Parsed& p);
int cmd_event(const Context& ctx, const Parsed& p);
int cmd_events(const Context& ctx, const Parsed& p);
int cmd_event_def(const Context& ctx, const Parsed& p);
int cmd_interval(const Context& ctx, const Parsed& p);
int cmd_exit(const Context& ctx, const Parsed& p);

/// The feed a live command reads: the agent's data connection, or a hub's stream of that
/// agent when --hub is given.
std::unique_ptr<Feed> make_feed(const Context& ctx, const Parsed& p, long interval, long give_up_s,
                                std::string& err);

/// The live terminal view (vm_top.cpp) on a started feed; returns an exit status.
int run_top_screen(const Context& ctx, Feed& feed, SortKey sort);

}  // namespace vornmon
