// The privileges the agent may hold, by the names it knows them by, and the few ways it
// changes them: keep only a list, raise or lower a group around the work that needs it,
// keep them across the switch to the daemon account and drop some for good afterwards.
// Each platform maps the names onto what its kernel grants. Functions follow the
// contract's convention: true, or false with errno.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <initializer_list>

namespace platform {

enum class Privilege {
    file_dac_read,    // read files of other accounts
    file_dac_search,  // search directories of other accounts
    proc_owner,       // read the per-process counters of other accounts
    proc_signal,      // signal processes of other accounts
    proc_setuid,      // change the user id
    proc_setgid,      // change the group id
};

/// A set of named privileges.
class PrivilegeSet {
  public:
    PrivilegeSet() = default;
    PrivilegeSet(std::initializer_list<Privilege> privileges) {
        for (Privilege p : privileges) bits_ |= bit(p);
    }
    /// Adds a privilege; false with errno EINVAL when this system has no such privilege.
    bool add(Privilege p);
    bool contains(Privilege p) const { return (bits_ & bit(p)) != 0; }
    bool empty() const { return bits_ == 0; }

  private:
    static uint32_t bit(Privilege p) { return uint32_t{1} << static_cast<unsigned>(p); }
    uint32_t bits_ = 0;
};

/// Removes every privilege outside `kept` from the bounding set, so that none can be
/// gained later. Without the right to change that set nothing is removed and nothing needs
/// to be (an unprivileged process cannot gain any): that case succeeds.
bool limit_bounding_privileges(const PrivilegeSet& kept);

/// Removes every privilege outside `kept` from the permitted, effective and inheritable sets.
bool limit_permitted_privileges(const PrivilegeSet& kept);

/// Puts the group in force, as far as the process is permitted to: privileges it does not
/// hold are left out, so a process without privileges runs with none.
bool raise_privileges(const PrivilegeSet& group);
/// Takes the group out of force; the privileges stay permitted.
bool lower_privileges(const PrivilegeSet& group);

/// Leaves the process with the part of `group` it is permitted, all of it in force, and
/// nothing else.
bool keep_only_privileges(const PrivilegeSet& group);

/// Changes the real, effective and saved user id to `uid` keeping the privileges that
/// were permitted and in force before; the switch alone would drop them.
bool switch_user_keeping_privileges(uid_t uid);

/// Removes the group from every set for the rest of the process's life.
bool drop_privileges(const PrivilegeSet& group);

}  // namespace platform
