// Process lookup, used by status, stop and the lock file to tell whether an agent is
// alive. A process is known by what the system records of it (platform/process_identity.h):
// its own pid, its short command name, whether it has ended (a zombie has, whatever its
// entry still shows) and its pid namespace, which plays the zone: a process in another
// namespace is never ours. Found by name alone, an agent counts only when it works in our
// install root.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/rtdc_log.h"
#include "control/rta_cmdline.h"
#include "control/rta_priv.h"
#include "platform/process_identity.h"

namespace {

using platform::IdentityRead;
using platform::PidZone;
using platform::ProcessIdentity;

// The namespace links are compared when both can be read, else the depths. When neither
// can (an older kernel, a captured tree) the process is taken to be in our namespace.
bool same_ns(const PidZone& mine, const ProcessIdentity& rec) {
    if (!mine.ns.empty() && !rec.zone.ns.empty()) return mine.ns == rec.zone.ns;
    if (mine.ns_depth > 0 && rec.zone.ns_depth > 0) return mine.ns_depth == rec.zone.ns_depth;
    return true;
}

// Where our install root lies, as the kernel would show it as a working directory; empty
// when no root is set (then any is accepted).
std::string own_root() {
    if (rta_cmdline.install_dir[0] == '\0') return {};
    char resolved[PATH_MAX];
    return realpath(rta_cmdline.install_dir, resolved) ? resolved : rta_cmdline.install_dir;
}

// An agent changes into its install root at start, so its working directory tells which
// root it serves. One whose directory we may not read is not taken for ours.
bool works_in(const ProcessIdentity& rec, const std::string& root) {
    if (root.empty()) return true;
    std::string dir;
    return platform::read_working_dir(rec, &dir) && dir == root;
}

// findproc's test: the record is the given pid, in our namespace, and its short name is a
// part of the name we look for (a short name cut by the kernel still matches).
bool matches_within(const ProcessIdentity& rec, const PidZone& mine, const char* name, int pid) {
    return rec.name[0] != '\0' && rec.pid == pid && !rec.ended && same_ns(mine, rec) &&
           strstr(name, rec.name) != nullptr;
}

// find_process_by_name's test: the short name is exactly the name.
bool matches_exactly(const ProcessIdentity& rec, const PidZone& mine, const char* name) {
    return rec.name[0] != '\0' && !rec.ended && same_ns(mine, rec) && strcmp(rec.name, name) == 0;
}

int find_by_name(const char* name, int own_pid, bool exclude_own, int verbose) {
    if (!name) return 0;
    const PidZone mine = platform::own_pid_zone();
    const std::string root = own_root();
    priv_on();
    int found = 0;
    bool opened = platform::walk_process_identities([&](const ProcessIdentity& rec, const IdentityRead& read) {
        if (read.step != IdentityRead::ok) {
            if (verbose)
                rtdc_logf("findproc :  unable to read from %s, %s\n", rec.entry.c_str(), strerror(read.error));
            return false;
        }
        if (!matches_exactly(rec, mine, name)) return false;
        if (exclude_own && rec.pid == own_pid) return false;
        if (!works_in(rec, root)) return false;
        found = rec.pid;
        if (verbose) rtdc_logf("findproc : found  %s:%d\n", name, rec.pid);
        return true;
    });
    if (!opened) rtdc_logf("ERROR: findproc: Unable to open /proc : %s\n", strerror(errno));
    priv_off();
    return found;
}

}  // namespace

void findprocWriteLog(const char* text) { RTDCAppendLog(text); }

int findproc(const char* name, int pid, int verbose) {
    if (!name) return 0;
    const PidZone mine = platform::own_pid_zone();
    priv_on();

    // The recorded pid first: almost always the answer.
    ProcessIdentity rec;
    const IdentityRead out = platform::read_process_identity(pid, &rec);
    const char* path = rec.entry.c_str();
    if (out.step == IdentityRead::ok && matches_within(rec, mine, name, pid)) {
        if (verbose) rtdc_logf("findproc : match %s:%d  to  %s:%d\n", name, pid, rec.name, rec.pid);
        priv_off();
        return 1;
    }
    if (out.step == IdentityRead::read_failed) {
        if (verbose) rtdc_logf("findproc: failed to read  %s : %s, %d\n", path, strerror(out.error), out.error);
        if (out.denied()) {
            priv_off();
            return -1;
        }
    } else if (out.step == IdentityRead::open_failed && verbose) {
        rtdc_logf("findproc: failed to open %s : %s, %d\n", path, strerror(out.error), out.error);
    }

    // Then every process whose record carries that pid.
    bool found = false;
    bool denied = out.step != IdentityRead::ok && out.denied();
    bool opened = platform::walk_process_identities([&](const ProcessIdentity& r, const IdentityRead& o) {
        if (o.step != IdentityRead::ok) {
            if (o.denied()) denied = true;
            return false;
        }
        if (!matches_within(r, mine, name, pid)) return false;
        if (verbose) rtdc_logf("findproc : match %s:%d  to  %s:%d\n", name, pid, r.name, r.pid);
        found = true;
        return true;
    });
    if (!opened) {
        rtdc_logf("findproc: Unable to open /proc : %s\n", strerror(errno));
        priv_off();
        return -1;
    }
    priv_off();
    if (found) return 1;
    return denied ? -1 : 0;
}

int find_process_by_name(const char* name, int own_pid, int verbose) {
    return find_by_name(name, own_pid, true, verbose);
}

int findproc_nopid(const char* name, int verbose) { return find_by_name(name, 0, false, verbose); }
