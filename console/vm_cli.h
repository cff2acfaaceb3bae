// The vornmon entry: parses the command line and runs the command it names.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "console/vm_args.h"

namespace vornmon {

/// Runs vornmon with `args` (without the program name); returns the exit status.
int run_vornmon(const std::vector<std::string>& args, std::FILE* out, std::FILE* err,
                std::FILE* in = stdin);

}  // namespace vornmon
