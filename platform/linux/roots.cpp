#include "platform/roots.h"

namespace platform {
namespace {
Roots current;
unsigned generation = 0;
}  // namespace

const Roots& roots() { return current; }

void set_roots(const Roots& r) {
    current = r;
    ++generation;
}

unsigned roots_generation() { return generation; }

Roots counter_roots(const std::string& proc_dir, const std::string& sys_dir) {
    Roots r;
    if (!proc_dir.empty()) r.proc = proc_dir;
    if (!sys_dir.empty()) r.sys = sys_dir;
    r.mounts = r.proc + "/self/mounts";
    return r;
}

}  // namespace platform
