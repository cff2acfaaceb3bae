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

}  // namespace platform
