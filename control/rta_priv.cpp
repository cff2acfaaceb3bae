// Least privilege for the agent: the privilege list it may ever hold, raising and lowering
// individual privileges around the work that needs them, and the switch to the daemon
// account.
#include "control/rta_priv.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/privileges.h"

namespace {

using platform::Privilege;
using platform::PrivilegeSet;

// The whole list of privileges the agent keeps; every other one leaves the permitted and
// bounding sets in priv_init.
const PrivilegeSet kKept = {Privilege::file_dac_read, Privilege::file_dac_search, Privilege::proc_owner,
                            Privilege::proc_signal,   Privilege::proc_setuid,     Privilege::proc_setgid};
// Raised by priv_on, dropped by priv_off: file access and the id switch.
const PrivilegeSet kFileAndSetid = {Privilege::file_dac_read, Privilege::proc_setuid, Privilege::proc_setgid};
// The process-owner privilege: what one may do to processes of other accounts, which is
// to read their counters and to signal them.
const PrivilegeSet kProcOwner = {Privilege::proc_owner, Privilege::proc_signal};
// What a running agent holds, in force for its whole life: every scan reads other
// accounts' per-process counters, which takes both file access and the process-owner read.
const PrivilegeSet kAgent = {Privilege::file_dac_read, Privilege::proc_owner};
// Whoever keeps the right to change ids can become root again.
const PrivilegeSet kSetid = {Privilege::proc_setuid, Privilege::proc_setgid};

// The start-up set ("basic" plus file_dac_read plus proc_owner); built once and kept.
PrivilegeSet start_privileges;

[[noreturn]] void priv_fail(const char* text) {
    perror(text);
    exit(1);
}

[[noreturn]] void start_fail(const char* format) {
    int e = errno;
    fprintf(stderr, format, strerror(e));
    exit(1);
}

}  // namespace

int priv_init() {
    PrivilegeSet allowed;
    if (!allowed.add(Privilege::file_dac_read)) priv_fail("lock: Can't add FILE_DAC_READ privilege");
    if (!allowed.add(Privilege::file_dac_search)) priv_fail("lock: Can't add FILE_DAC_SEARCH privilege");
    if (!allowed.add(Privilege::proc_owner) || !allowed.add(Privilege::proc_signal))
        priv_fail("lock: Can't add PRIV_PROC_OWNER privilege");
    if (!allowed.add(Privilege::proc_setuid) || !allowed.add(Privilege::proc_setgid))
        priv_fail("lock: Can't add PRIV_PROC_SETUID privilege");

    // The bounding set goes first: narrowing it takes a privilege the permitted set is
    // about to lose.
    if (!platform::limit_bounding_privileges(allowed)) priv_fail("lock: Can't set Limit privilege set");
    if (!platform::limit_permitted_privileges(kKept)) priv_fail("lock: Can't set Permitted privilege set");

    const uid_t ruid = getuid();
    if (setreuid(ruid, ruid) != 0) {
        // Only a set-user-id start can fail here; the ids simply stay as they are.
    }
    return 1;
}

int priv_on() { return platform::raise_privileges(kFileAndSetid) ? 1 : 0; }
int priv_off() { return platform::lower_privileges(kFileAndSetid) ? 1 : 0; }
int priv_on_proc() { return platform::raise_privileges(kProcOwner) ? 1 : 0; }
int priv_off_proc() { return platform::lower_privileges(kProcOwner) ? 1 : 0; }

int rta_keep_agent_privileges() { return platform::keep_only_privileges(kAgent) ? 1 : 0; }

void rta_build_start_privileges() {
    // "basic" is the empty set on this system.
    PrivilegeSet set;
    if (!set.add(Privilege::file_dac_read)) start_fail("vornagent, privset_add  PRIV_FILE_DAC_READ failed, %s\n");
    if (!set.add(Privilege::proc_owner)) start_fail("vornagent, privset_add  PRIV_PROC_OWNER failed, %s\n");
    start_privileges = set;
}

int rta_am_i_quorbex(const char* account) {
    if (!account) return 0;
    struct passwd pw;
    struct passwd* res = nullptr;
    char buf[4096];
    if (getpwnam_r(account, &pw, buf, sizeof buf, &res) != 0 || !res) return 0;
    return getuid() == pw.pw_uid ? 1 : 0;
}

int rta_relinquish_root(const char* account) {
    if (!account) account = "";
    struct passwd pw;
    struct passwd* res = nullptr;
    char buf[4096];
    errno = 0;
    int rc = getpwnam_r(account, &pw, buf, sizeof buf, &res);
    if (!res) {
        int e = rc != 0 ? rc : (errno != 0 ? errno : ENOENT);
        fprintf(stderr, "vornrta, unable to change account to  %s, %s\n", account, strerror(e));
        return 0;
    }

    // Root's supplementary groups must not follow the agent into the daemon account.
    if (geteuid() == 0 && initgroups(pw.pw_name, pw.pw_gid) != 0) {
        // Not fatal: the account switch below still happens.
    }

    // The privileges in force go along, so the group change and the reads that follow
    // still work.
    if (!platform::switch_user_keeping_privileges(pw.pw_uid)) {
        int e = errno;
        fprintf(stderr, "vornrta, unable to change account to  %s, %s\n", account, strerror(e));
        return 0;
    }
    if (setgid(pw.pw_gid) != 0) {
        int e = errno;
        fprintf(stderr, "vornrta, unable to change account to  %s, %s\n", account, strerror(e));
        return 0;
    }
    // The switch is done; the right to change ids goes for good.
    platform::drop_privileges(kSetid);
    return 1;
}
