// Named privileges as Linux capabilities, changed through libcap.
#include "platform/privileges.h"

#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace platform {
namespace {

constexpr Privilege kAll[] = {Privilege::file_dac_read, Privilege::file_dac_search, Privilege::proc_owner,
                              Privilege::proc_signal,   Privilege::proc_setuid,     Privilege::proc_setgid};

// Reading files and searching directories are one capability here. Reading the counters
// of another account's process takes the ptrace-read check.
bool capability_of(Privilege p, cap_value_t* cap) {
    switch (p) {
        case Privilege::file_dac_read:
        case Privilege::file_dac_search: *cap = CAP_DAC_READ_SEARCH; return true;
        case Privilege::proc_owner: *cap = CAP_SYS_PTRACE; return true;
        case Privilege::proc_signal: *cap = CAP_KILL; return true;
        case Privilege::proc_setuid: *cap = CAP_SETUID; return true;
        case Privilege::proc_setgid: *cap = CAP_SETGID; return true;
    }
    return false;
}

std::vector<cap_value_t> capabilities_of(const PrivilegeSet& set) {
    std::vector<cap_value_t> caps;
    for (Privilege p : kAll) {
        cap_value_t c;
        if (set.contains(p) && capability_of(p, &c)) caps.push_back(c);
    }
    return caps;
}

bool covers(const PrivilegeSet& set, cap_value_t cap) {
    for (cap_value_t c : capabilities_of(set))
        if (c == cap) return true;
    return false;
}

bool is_permitted(cap_t state, cap_value_t cap) {
    cap_flag_value_t permitted = CAP_CLEAR;
    return cap_get_flag(state, cap, CAP_PERMITTED, &permitted) == 0 && permitted == CAP_SET;
}

// Applies the state and frees it, keeping errno of a failed apply.
bool apply(cap_t state) {
    int rc = cap_set_proc(state);
    int e = errno;
    cap_free(state);
    errno = e;
    return rc == 0;
}

bool set_effective(const PrivilegeSet& group, cap_flag_value_t value) {
    cap_t cur = cap_get_proc();
    if (!cur) return false;
    for (cap_value_t c : capabilities_of(group)) {
        if (value == CAP_SET && !is_permitted(cur, c)) continue;
        cap_set_flag(cur, CAP_EFFECTIVE, 1, &c, value);
    }
    return apply(cur);
}

}  // namespace

bool PrivilegeSet::add(Privilege p) {
    cap_value_t c;
    if (!capability_of(p, &c)) {
        errno = EINVAL;
        return false;
    }
    bits_ |= bit(p);
    return true;
}

bool limit_bounding_privileges(const PrivilegeSet& kept) {
    // Dropping from the bounding set needs CAP_SETPCAP; without it EPERM, and nothing to do.
    const cap_value_t last = cap_max_bits();
    for (cap_value_t c = 0; c < last; ++c) {
        if (covers(kept, c) || cap_get_bound(c) != 1) continue;
        if (cap_drop_bound(c) != 0 && errno != EPERM) return false;
    }
    return true;
}

bool limit_permitted_privileges(const PrivilegeSet& kept) {
    cap_t cur = cap_get_proc();
    if (!cur) return false;
    const cap_value_t last = cap_max_bits();
    for (cap_value_t c = 0; c < last; ++c) {
        if (covers(kept, c)) continue;
        cap_set_flag(cur, CAP_PERMITTED, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_EFFECTIVE, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_INHERITABLE, 1, &c, CAP_CLEAR);
    }
    return apply(cur);
}

bool raise_privileges(const PrivilegeSet& group) { return set_effective(group, CAP_SET); }
bool lower_privileges(const PrivilegeSet& group) { return set_effective(group, CAP_CLEAR); }

bool keep_only_privileges(const PrivilegeSet& group) {
    cap_t cur = cap_get_proc();
    if (!cur) return false;
    cap_t keep = cap_init();
    if (!keep) {
        cap_free(cur);
        return false;
    }
    for (cap_value_t c : capabilities_of(group)) {
        if (!is_permitted(cur, c)) continue;
        cap_set_flag(keep, CAP_PERMITTED, 1, &c, CAP_SET);
        cap_set_flag(keep, CAP_EFFECTIVE, 1, &c, CAP_SET);
    }
    cap_free(cur);
    return apply(keep);
}

bool switch_user_keeping_privileges(uid_t uid) {
    // Leaving uid 0 empties the effective set and, without KEEPCAPS, the permitted set as
    // well. Keep the permitted set and put back what was in force.
    cap_t before = cap_get_proc();
    prctl(PR_SET_KEEPCAPS, 1L, 0L, 0L, 0L);
    if (setuid(uid) != 0) {
        int e = errno;
        prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L);
        if (before) cap_free(before);
        errno = e;
        return false;
    }
    if (before) apply(before);
    prctl(PR_SET_KEEPCAPS, 0L, 0L, 0L, 0L);
    return true;
}

bool drop_privileges(const PrivilegeSet& group) {
    cap_t cur = cap_get_proc();
    if (!cur) return false;
    for (cap_value_t c : capabilities_of(group)) {
        cap_set_flag(cur, CAP_EFFECTIVE, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_PERMITTED, 1, &c, CAP_CLEAR);
        cap_set_flag(cur, CAP_INHERITABLE, 1, &c, CAP_CLEAR);
    }
    return apply(cur);
}

}  // namespace platform
