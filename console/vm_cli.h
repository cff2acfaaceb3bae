// The vornmon command line: global options, one subcommand per agent request, usage texts.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "console/vm_net.h"
#include "console/vm_view.h"

namespace vornmon {

/// Exit statuses: 0 done, 1 the agent could not be reached or answered wrongly, 2 bad usage.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

struct Context {
    Endpoint agent;
    int timeout_ms = 10000;
    std::FILE* out = stdout;
    std::FILE* err = stderr;
    std::FILE* in = stdin;
    std::string command;  // for messages: "vornmon <command>: ..."

    int fail(const std::string& message, int status = kExitFailure) const;
};

/// Options and operands of one subcommand after parsing.
struct Parsed {
    std::map<std::string, std::string> options;  // "--once" -> "" for flags
    std::vector<std::string> operands;
    bool has(const std::string& name) const { return options.count(name) != 0; }
};

/// Runs vornmon with `args` (without the program name); returns the exit status.
int run_vornmon(const std::vector<std::string>& args, std::FILE* out, std::FILE* err,
                std::FILE* in = stdin);

/// The live terminal view (vm_top.cpp); returns an exit status.
struct TopOptions {
    int interval = 2;
    SortKey sort = SortKey::kCpu;
    int reconnect_s = 0;
};
int run_top_screen(const Context& ctx, const TopOptions& options);

}  // namespace vornmon
