// Least privilege for the agent: the capability list it may ever hold, raising and lowering
// individual capabilities around the work that needs them, and the switch to the daemon
// account.
#include "control/rta_priv.h"

#include <grp.h>
#include <pwd.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>


namespace {

// The whole list of capabilities the agent keeps; every other one leaves the permitted
// and bounding sets in priv_init.
constexpr cap_value_t kFileDacRead = CAP_DAC_READ_SEARCH;  // read /proc entries and files of other accounts
constexpr cap_value_t kProcTrace = CAP_SYS_PTRACE;         // per-process counters (io, status) of other accounts
constexpr cap_value_t kSignal = CAP_KILL;                  // -stop: signal an agent of another account
constexpr cap_value_t kSetUid = CAP_SETUID;                // switch to the daemon account
constexpr cap_value_t kSetGid = CAP_SETGID;                // switch to the daemon account's group
constexpr cap_value_t kKept[] = {kFileDacRead, kProcTrace, kSignal, kSetUid, kSetGid};

// Raised by priv_on, dropped by priv_off: file access and the id switch.
constexpr cap_value_t kFileAndSetid[] = {kFileDacRead, kSetUid, kSetGid};
// The process-owner privilege: what one may do to processes of other accounts, which is
// to read their counters and to signal them.
constexpr cap_value_t kProcOwner[] = {kProcTrace, kSignal};
// What a running agent holds, in force for its whole life: every scan opens other
// accounts' /proc/<pid>/io, which takes both the ptrace-read check and the file's 0400 mode.
constexpr cap_value_t kAgent[] = {kFileDacRead, kProcTrace};

// The start-up set ("basic" plus file_dac_read plus proc_owner); built once and kept.
cap_t pa_priv_set = nullptr;

bool is_kept(cap_value_t c) {
    for (cap_value_t k : kKept)
        if (k == c) return true;
    return false;
}

[[noreturn]] void priv_fail(const char* text) {
    perror(text);
    exit(1);
}

// Sets or clears caps in the Effective set. Only caps present in Permitted can be raised;
// the others are left out, so an agent without privileges simply runs with none.
int set_effective(const cap_value_t* caps, int count, cap_flag_value_t value) {
    cap_t cur = cap_get_proc();
    if (!cur) return 0;
    for (int i = 0; i < count; ++i) {
        cap_flag_value_t permitted = CAP_CLEAR;
        if (value == CAP_SET &&
            (cap_get_flag(cur, caps[i], CAP_PERMITTED, &permitted) != 0 || permitted != CAP_SET))
            continue;
        cap_set_flag(cur, CAP_EFFECTIVE, 1, &caps[i], value);
    }
    int rc = cap_set_proc(cur);
    cap_free(cur);
    return rc == 0 ? 1 : 0;
}

[[noreturn]] void start_fail(const char* format) {
    int e = errno;
    fprintf(stderr, format, strerror(e));
    exit(1);
}

}  // namespace

int priv_init() {
    // The allowed list, marked in the Permitted flag of an otherwise empty set.
    cap_t allowed = cap_init();
    if (!allowed) priv_fail("lock: priv_str_to_set failed");
    if (cap_set_flag(allowed, CAP_PERMITTED, 1, &kFileDacRead, CAP_SET) != 0)
        priv_fail("lock: Can't add FILE_DAC_READ privilege");
    // Reading and searching directories are one capability here.
    if (cap_set_flag(allowed, CAP_PERMITTED, 1, &kFileDacRead, CAP_SET) != 0)
        priv_fail("lock: Can't add FILE_DAC_SEARCH privilege");
    if (cap_set_flag(allowed, CAP_PERMITTED, 2, kProcOwner, CAP_SET) != 0)
        priv_fail("lock: Can't add PRIV_PROC_OWNER privilege");
    const cap_value_t setid[] = {kSetUid, kSetGid};
    if (cap_set_flag(allowed, CAP_PERMITTED, 2, setid, CAP_SET) != 0)
        priv_fail("lock: Can't add PRIV_PROC_SETUID privilege");

    // The bounding set goes first: dropping from it needs CAP_SETPCAP, which the
    // permitted set is about to lose. Without that capability nothing can be dropped
    // (EPERM), and nothing needs to be: an unprivileged agent cannot gain any.
    const cap_value_t last = cap_max_bits();
    for (cap_value_t c = 0; c < last; ++c) {
        cap_flag_value_t keep = CAP_CLEAR;
        cap_get_flag(allowed, c, CAP_PERMITTED, &keep);
        if (keep == CAP_SET || cap_get_bound(c) != 1) continue;
        if (cap_drop_bound(c) != 0 && errno != EPERM) priv_fail("lock: Can't set Limit privilege set");
    }

    cap_t cur = cap_get_proc();
    if (!cur) priv_fail("lock: Can't set Permitted privilege set");
    for (cap_value_t c = 0; c < last; ++c) {
        if (is_kept(c)) continue;
        cap_set_flag(cur, CAP_PERMITTED, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_EFFECTIVE, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_INHERITABLE, 1, &c, CAP_CLEAR);
    }
    if (cap_set_proc(cur) != 0) priv_fail("lock: Can't set Permitted privilege set");
    cap_free(cur);
    cap_free(allowed);

    const uid_t ruid = getuid();
    if (setreuid(ruid, ruid) != 0) {
        // Only a set-user-id start can fail here; the ids simply stay as they are.
    }
    return 1;
}

int priv_on() { return set_effective(kFileAndSetid, 3, CAP_SET); }
int priv_off() { return set_effective(kFileAndSetid, 3, CAP_CLEAR); }
int priv_on_proc() { return set_effective(kProcOwner, 2, CAP_SET); }
int priv_off_proc() { return set_effective(kProcOwner, 2, CAP_CLEAR); }

int rta_keep_agent_privileges() {
    cap_t cur = cap_get_proc();
    cap_t keep = cap_init();
    if (!cur || !keep) {
        if (cur) cap_free(cur);
        if (keep) cap_free(keep);
        return 0;
    }
    for (cap_value_t c : kAgent) {
        cap_flag_value_t permitted = CAP_CLEAR;
        if (cap_get_flag(cur, c, CAP_PERMITTED, &permitted) != 0 || permitted != CAP_SET) continue;
        cap_set_flag(keep, CAP_PERMITTED, 1, &c, CAP_SET);
        cap_set_flag(keep, CAP_EFFECTIVE, 1, &c, CAP_SET);
    }
    int rc = cap_set_proc(keep);
    cap_free(keep);
    cap_free(cur);
    return rc == 0 ? 1 : 0;
}

void rta_build_start_privileges() {
    if (pa_priv_set) {
        cap_free(pa_priv_set);
        pa_priv_set = nullptr;
    }
    // "basic" is the empty capability set on this system.
    cap_t set = cap_init();
    if (!set) start_fail("vornagent, priv_str_to_set failed, %s\n");
    if (cap_set_flag(set, CAP_PERMITTED, 1, &kFileDacRead, CAP_SET) != 0 ||
        cap_set_flag(set, CAP_EFFECTIVE, 1, &kFileDacRead, CAP_SET) != 0)
        start_fail("vornagent, privset_add  PRIV_FILE_DAC_READ failed, %s\n");
    if (cap_set_flag(set, CAP_PERMITTED, 1, &kProcTrace, CAP_SET) != 0 ||
        cap_set_flag(set, CAP_EFFECTIVE, 1, &kProcTrace, CAP_SET) != 0)
        start_fail("vornagent, privset_add  PRIV_PROC_OWNER failed, %s\n");
    pa_priv_set = set;
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

    // Leaving uid 0 empties the effective set and, without KEEPCAPS, the permitted set as
    // well. Keep the permitted set and put back what was effective, so the group change
    // (CAP_SETGID) and the /proc reads that follow still work.
    cap_t before = cap_get_proc();
    prctl(PR_SET_KEEPCAPS, 1L, 0L, 0L, 0L);
    if (setuid(pw.pw_uid) != 0) {
        int e = errno;
        prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L);
        if (before) cap_free(before);
        fprintf(stderr, "vornrta, unable to change account to  %s, %s\n", account, strerror(e));
        return 0;
    }
    if (before) {
        cap_set_proc(before);
        cap_free(before);
    }
    prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L);
    if (setgid(pw.pw_gid) != 0) {
        int e = errno;
        fprintf(stderr, "vornrta, unable to change account to  %s, %s\n", account, strerror(e));
        return 0;
    }
    // The switch is done. Whoever keeps the right to change ids can become root again.
    const cap_value_t setid[] = {kSetUid, kSetGid};
    if (cap_t after = cap_get_proc()) {
        cap_set_flag(after, CAP_EFFECTIVE, 2, setid, CAP_CLEAR);
        cap_set_flag(after, CAP_PERMITTED, 2, setid, CAP_CLEAR);
        cap_set_flag(after, CAP_INHERITABLE, 2, setid, CAP_CLEAR);
        cap_set_proc(after);
        cap_free(after);
    }
    return 1;
}
