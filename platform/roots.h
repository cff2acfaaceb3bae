// Where the Linux readers find the kernel's files. Tests point these at captured trees; the
// settings PROC_DIR~ and SYS_DIR~ point the counters at another host's trees (mounted into
// a container, say), while the agent still looks for itself among its own processes.
#pragma once

#include <string>

namespace platform {

struct Roots {
    std::string proc = "/proc";
    std::string sys = "/sys";
    std::string mounts = "/proc/self/mounts";
    /// Where this agent and its siblings are listed (lock-file liveness, -status, -stop):
    /// always the agent's own process tree, whatever the counters read.
    std::string own_proc = "/proc";
};

/// The counter roots for a proc and a sys directory (empty: the real ones). The mount
/// table is the agent's own, read through the proc directory given: the file systems the
/// agent can ask for their space are the ones mounted where it runs.
Roots counter_roots(const std::string& proc_dir, const std::string& sys_dir);

/// The roots every reader uses; default the real ones.
const Roots& roots();
/// Replaces the roots (tests, before the readers are first used). Readers that keep
/// descriptors reopen them when the roots change.
void set_roots(const Roots& r);
/// Bumped by set_roots so that readers holding descriptors know to reopen.
unsigned roots_generation();

}  // namespace platform
