// Where the Linux readers find the kernel's files. Tests point these at captured trees.
#pragma once

#include <string>

namespace platform {

struct Roots {
    std::string proc = "/proc";
    std::string sys = "/sys";
    std::string mounts = "/proc/self/mounts";
};

/// The roots every reader uses; default the real ones.
const Roots& roots();
/// Replaces the roots (tests, before the readers are first used). Readers that keep
/// descriptors reopen them when the roots change.
void set_roots(const Roots& r);
/// Bumped by set_roots so that readers holding descriptors know to reopen.
unsigned roots_generation();

}  // namespace platform
