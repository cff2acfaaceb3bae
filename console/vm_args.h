// The vornmon command line: global options before or after the command, each command's own
// options from its table row, operands counted against the row's bounds. Every mistake is
// one message and exit status 2.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "console/vm_net.h"

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

/// Options and operands of one command after parsing.
struct Parsed {
    std::map<std::string, std::string> options;  // "--once" -> "" for flags; the last value
    std::map<std::string, std::vector<std::string>> repeated;  // every value, in order
    std::vector<std::string> operands;
    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string value(const std::string& name) const {
        auto it = options.find(name);
        return it == options.end() ? std::string() : it->second;
    }
    std::vector<std::string> values(const std::string& name) const {
        auto it = repeated.find(name);
        return it == repeated.end() ? std::vector<std::string>() : it->second;
    }
};

struct OptionSpec {
    const char* name;
    bool takes_value;
};

struct Command {
    const char* name;
    const char* synopsis;
    const char* help;
    std::vector<OptionSpec> options;
    std::size_t min_operands, max_operands;
    int (*run)(const Context&, const Parsed&);
};

/// What the command line asks for. `command` is null when only global help was asked.
struct Invocation {
    const Command* command = nullptr;
    Parsed parsed;
    bool help = false;
};

/// Parses `args` against `commands`, filling the global options into `ctx`. False with the
/// exit status in `status` after the message has been written.
bool parse_command_line(const std::vector<std::string>& args, const std::vector<Command>& commands,
                        Context& ctx, Invocation& out, int& status);

/// A whole number from `low` to `high`.
bool to_int(const std::string& text, long low, long high, long& out);
/// An integer option with bounds, `fallback` when absent; false after the usage message.
bool int_option(const Context& ctx, const Parsed& p, const std::string& name, long low, long high,
                long fallback, long& out, int& status);

}  // namespace vornmon
