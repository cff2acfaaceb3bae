// Who a process is, as the lock file and the stop and status commands need to know it:
// the pid it records for itself, its short name, whether it has ended, its pid namespace
// and the working directory that shows which install root it serves. Reads follow the
// contract's convention; the lookup rules built on them live with their callers.
#pragma once

#include <functional>
#include <string>

namespace platform {

/// The caller's pid namespace, the zone a process must share to count as ours.
struct PidZone {
    std::string ns;    // identity of the namespace, empty when it cannot be read
    int ns_depth = 0;  // how deep the namespace sits below the one the roots show, 0 unknown
};

struct ProcessIdentity {
    int pid = 0;           // the pid the process records itself, not the entry's name
    char name[64] = {};    // short command name; empty when the entry cannot be parsed
    bool ended = false;    // a zombie or a process being torn down
    PidZone zone;          // ns when readable, else ns_depth
    std::string entry;     // where the system shows the process, for messages
};

/// How reading one entry went. `open_failed` is an entry that is gone or closed to us,
/// `read_failed` one that opened but gave nothing; `error` keeps the errno of either (0
/// for an empty read). denied() tells missing privilege from a process that is gone.
struct IdentityRead {
    enum Step { ok, open_failed, read_failed } step = ok;
    int error = 0;
    bool denied() const;
};

/// The caller's own zone.
PidZone own_pid_zone();

/// Reads the process with this pid. An entry whose text cannot be parsed reads ok but
/// leaves an identity with pid 0 and an empty name, which never matches.
IdentityRead read_process_identity(int pid, ProcessIdentity* out);

/// Calls visit for every process entry until it returns true; each process is met once,
/// under its own pid. False with errno when the process table cannot be listed.
bool walk_process_identities(
    const std::function<bool(const ProcessIdentity&, const IdentityRead&)>& visit);

/// The process's working directory into `dir`; false with errno when it cannot be read.
bool read_working_dir(const ProcessIdentity& process, std::string* dir);

}  // namespace platform
