#include "console/vm_args.h"

#include <algorithm>

namespace vornmon {
namespace {

// The options every command takes; they may stand before or after the command.
bool global_option(const std::string& name, const std::string& value, Context& ctx, int& status) {
    long n = 0;
    if (name == "--host") {
        if (value.empty()) {
            status = ctx.fail("--host needs a host name or address", kExitUsage);
            return false;
        }
        ctx.agent.host = value;
    } else if (name == "--port") {
        if (!to_int(value, 1, 65535, n)) {
            status =
                ctx.fail("--port needs a port from 1 to 65535, got '" + value + "'", kExitUsage);
            return false;
        }
        ctx.agent.port = static_cast<int>(n);
    } else {
        if (!to_int(value, 1, 3600, n)) {
            status = ctx.fail("--timeout needs whole seconds from 1 to 3600, got '" + value + "'",
                              kExitUsage);
            return false;
        }
        ctx.timeout_ms = static_cast<int>(n * 1000);
    }
    return true;
}

bool is_global(const std::string& name) {
    return name == "--host" || name == "--port" || name == "--timeout";
}

// An operand names the command first, then belongs to it.
bool take_operand(const std::string& arg, const std::vector<Command>& commands, Context& ctx,
                  Invocation& out, int& status) {
    if (out.command) {
        out.parsed.operands.push_back(arg);
        return true;
    }
    for (const Command& c : commands)
        if (arg == c.name) out.command = &c;
    if (!out.command) {
        status = ctx.fail("unknown command '" + arg + "' (see vornmon --help)", kExitUsage);
        return false;
    }
    ctx.command = out.command->name;
    return true;
}

}  // namespace

int Context::fail(const std::string& message, int status) const {
    std::string text = message;
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(err, "vornmon%s%s: %s\n", command.empty() ? "" : " ", command.c_str(),
                 text.c_str());
    std::fflush(err);
    return status;
}

bool to_int(const std::string& text, long low, long high, long& out) {
    return parse_long(text, out) && out >= low && out <= high;
}

bool int_option(const Context& ctx, const Parsed& p, const std::string& name, long low, long high,
                long fallback, long& out, int& status) {
    auto it = p.options.find(name);
    if (it == p.options.end()) {
        out = fallback;
        return true;
    }
    if (!to_int(it->second, low, high, out)) {
        status = ctx.fail(name + " needs a whole number from " + std::to_string(low) + " to " +
                              std::to_string(high) + ", got '" + it->second + "'",
                          kExitUsage);
        return false;
    }
    return true;
}

bool parse_command_line(const std::vector<std::string>& args, const std::vector<Command>& commands,
                        Context& ctx, Invocation& out, int& status) {
    bool operands_only = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        if (operands_only || arg == "-" || arg.size() < 2 || arg[0] != '-') {
            if (!take_operand(arg, commands, ctx, out, status)) return false;
            continue;
        }
        if (arg == "--") {
            operands_only = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            out.help = true;
            continue;
        }
        std::string value;
        bool inline_value = false;
        if (std::size_t eq = arg.find('='); eq != std::string::npos && arg.rfind("--", 0) == 0) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            inline_value = true;
        }
        const OptionSpec* spec = nullptr;
        if (out.command)
            for (const OptionSpec& o : out.command->options)
                if (arg == o.name) spec = &o;
        bool global = !spec && is_global(arg);
        if (!spec && !global) {
            status =
                ctx.fail("unknown option '" + arg + "' (see vornmon" +
                             (out.command ? std::string(" ") + out.command->name : "") + " --help)",
                         kExitUsage);
            return false;
        }
        bool takes_value = global || spec->takes_value;
        if (takes_value && !inline_value) {
            if (i + 1 >= args.size()) {
                status = ctx.fail(arg + " needs a value", kExitUsage);
                return false;
            }
            value = args[++i];
        }
        if (!takes_value && inline_value) {
            status = ctx.fail(arg + " takes no value", kExitUsage);
            return false;
        }
        if (global && !global_option(arg, value, ctx, status)) return false;
        if (!global) {
            out.parsed.options[arg] = value;
            out.parsed.repeated[arg].push_back(value);
        }
    }
    if (!out.command && !out.help) {
        status = ctx.fail("missing command (see vornmon --help)", kExitUsage);
        return false;
    }
    if (out.command && !out.help &&
        (out.parsed.operands.size() < out.command->min_operands ||
         out.parsed.operands.size() > out.command->max_operands)) {
        status = ctx.fail(std::string("usage: vornmon ") + out.command->synopsis, kExitUsage);
        return false;
    }
    return true;
}

}  // namespace vornmon
