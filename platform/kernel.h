// Kernel symbol addresses.
#pragma once

#include <cstdint>

namespace platform {

/// Looks up `count` symbol names in the running kernel's symbol table and stores each
/// address (0 when not found or hidden from this process). Returns the number of names
/// not found, or -1 when the table cannot be read.
int find_kernel_symbols(const char* const* names, uint64_t* addresses, int count);

}  // namespace platform
