#include "console/vm_cli.h"

#include "console/vm_commands.h"

namespace vornmon {
namespace {

const char* kGlobalHelp =
    "usage: vornmon [--host HOST] [--port PORT] [--timeout SECONDS] COMMAND [ARGS]\n"
    "\n"
    "Console of the vornrta performance agent (default agent 127.0.0.1:2101).\n"
    "\n"
    "commands:\n"
    "  top               live view of the host; --once or --count N print plain text\n"
    "  raw               the data packets as received\n"
    "  json              one JSON object per data packet\n"
    "  desc              the metrics the agent can alert on\n"
    "  rules FILE        send alert rules (- reads standard input)\n"
    "  alert-interval N  seconds between the agent's alert checks\n"
    "  alerts            alerts the agent raised for this console\n"
    "  event TEXT...     hand an event to the agent\n"
    "  events            the events waiting on the agent\n"
    "  event-def FILE    store an event definition file on the agent\n"
    "  interval N        scan interval the agent prints in its packets\n"
    "  exit              make the agent end its data connection\n"
    "  openmetrics       serve the latest sample over HTTP for Prometheus\n"
    "  hub               hold one data connection per agent and serve them to everybody:\n"
    "                    Prometheus, the JSON API, and top/json/raw with --hub URL\n"
    "\n"
    "global options:\n"
    "  --host HOST       agent host (default 127.0.0.1)\n"
    "  --port PORT       agent port (default 2101)\n"
    "  --timeout SECONDS limit for connecting and for every reply (default 10)\n"
    "\n"
    "'vornmon COMMAND --help' describes a command. Exit status: 0 done, 1 the agent\n"
    "could not be reached or sent something malformed, 2 bad arguments.\n";

// The options of the commands that read the packet stream, described once.
#define STREAM_OPTIONS_HELP                                                                   \
    "  --count N       stop after N packets (the first one defines the counters)\n"           \
    "  --interval N    scan interval asked of the agent (default 2)\n"                        \
    "  --reconnect S   give up after S seconds without the agent (default 30)\n"              \
    "  --hub URL       read through a hub (vornmon hub) instead of taking the agent's\n"      \
    "                  data connection: any number of readers at once\n"                      \
    "  --agent NAME    the hub's agent to read (needed when it watches several)\n"

const std::vector<OptionSpec> kStreamOptions = {{"--interval", true},
                                                {"--count", true},
                                                {"--reconnect", true},
                                                {"--hub", true},
                                                {"--agent", true}};

std::vector<OptionSpec> with(std::vector<OptionSpec> base, std::vector<OptionSpec> more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

const std::vector<Command> kCommands = {
    {"top",
     "top [--once | --count N] [--sort KEY] [--procs N] [--width N]\n"
     "           [--hub URL [--agent NAME]]",
     "A live view of the host: processor split and per-processor bars, memory and paging,\n"
     "the busiest disks, file systems by use, network rates and, when the agent collects\n"
     "them, the processes. Figures come at the agent's own scan rate, every rate per\n"
     "second. Keys: h help, c cpu, m memory, p pid, n name, i io (sort the processes),\n"
     "I reverse, / filter, f pseudo file systems too, up/down scroll, r renews the data\n"
     "connection (processes started since it opened show as ? until then), q quits.\n"
     "  --once          print one frame as plain text and exit\n"
     "  --count N       print N frames as plain text (frames cover one interval each)\n"
     "  --sort KEY      cpu, memory, pid, name or io (default cpu)\n"
     "  --procs N       process rows in plain text (default 20, -1 for all)\n"
     "  --width N       columns of plain text (default $COLUMNS or 100)\n"
     "  --reconnect S   give up after S seconds without the agent (default: never live,\n"
     "                  30 for plain text)\n"
     "  --hub URL       read through a hub (vornmon hub) instead of taking the agent's\n"
     "                  data connection: any number of readers at once\n"
     "  --agent NAME    the hub's agent to read (needed when it watches several)\n",
     {{"--count", true},
      {"--reconnect", true},
      {"--hub", true},
      {"--agent", true},
      {"--once", false},
      {"--sort", true},
      {"--procs", true},
      {"--width", true}},
     0, 0, cmd_top},
    {"raw", "raw [--count N] [--interval N] [--reconnect S] [--hub URL [--agent NAME]]",
     "Prints the data packets exactly as received, length prefix included.\n"
     STREAM_OPTIONS_HELP,
     kStreamOptions, 0, 0, cmd_raw},
    {"json", "json [--count N] [--interval N] [--reconnect S] [--hub URL [--agent NAME]]",
     "Prints one JSON object per packet: packet number, time, interval, and every value\n"
     "with its metric path, class, instance, units; process values carry pid and name.\n"
     STREAM_OPTIONS_HELP,
     kStreamOptions, 0, 0, cmd_json},
    {"desc",
     "desc [--json]",
     "Lists the leaves of the agent's metric tree: the paths that alert rules can name.\n"
     "Asking also starts the agent's alert checks.\n"
     "  --json          one JSON object per leaf\n",
     {{"--json", false}},
     0,
     0,
     cmd_desc},
    {"rules",
     "rules [--no-check] FILE",
     "Sends alert rules, one a line: name:path:condition:limit:hours:minutes[:description]\n"
     "with condition one of > < >= <= == !=; '*' as a level of the path stands for every\n"
     "leaf below. Blank lines and lines starting with # are skipped; - reads standard\n"
     "input. The rules replace the ones this console's address sent before; an empty\n"
     "file clears them. Every path is checked against the agent's metrics first.\n"
     "  --no-check      send without checking the paths\n",
     {{"--no-check", false}},
     1,
     1,
     cmd_rules},
    {"alert-interval",
     "alert-interval SECONDS",
     "Sets the seconds between the agent's alert checks (1 to 20000) and says whether the\n"
     "agent holds rules.\n",
     {},
     1,
     1,
     cmd_alert_interval},
    {"alerts",
     "alerts [--json]",
     "Fetches the alerts raised for this console's rules. Each alert is delivered once.\n"
     "  --json          one JSON object per alert\n",
     {{"--json", false}},
     0,
     0,
     cmd_alerts},
    {"event",
     "event TEXT... | event -",
     "Hands one event line (the words joined by blanks) to the agent, which relays it to\n"
     "the console that asks for events; - sends each line of standard input.\n",
     {},
     1,
     1000000,
     cmd_event},
    {"events",
     "events [--json]",
     "Fetches the events waiting on the agent, one a line, and empties its store.\n"
     "  --json          each event as a JSON string\n",
     {{"--json", false}},
     0,
     0,
     cmd_events},
    {"event-def",
     "event-def FILE",
     "Stores FILE (- for standard input) as the agent's event definition file.\n",
     {},
     1,
     1,
     cmd_event_def},
    {"interval",
     "interval SECONDS",
     "Sets the scan interval the agent prints in its packets and counts its alert\n"
     "checks by (1 to 86400).\n",
     {},
     1,
     1,
     cmd_interval},
    {"exit",
     "exit",
     "Makes the agent end its data connection at its next scan.\n",
     {},
     0,
     0,
     cmd_exit},
    {"openmetrics", "openmetrics [--listen HOST:PORT] [--interval N] [--reconnect S]",
     "Keeps a data connection open and serves the latest sample at /metrics in the\n"
     "OpenMetrics text format, for Prometheus to scrape. Names come from the metric\n"
     "paths with their units; processors, disks, mount points and processes are labels.\n"
     "The agent serves one data connection at a time: run no other live console on it.\n"
     "  --listen HOST:PORT  address to serve on (default 127.0.0.1:9101)\n"
     "  --interval N    scan interval asked of the agent (default 2)\n"
     "  --reconnect S   give up after S seconds without the agent (default: never)\n",
     with(kStreamOptions, {{"--listen", true}}), 0, 0, cmd_openmetrics},
    {"hub",
     "hub [--listen HOST:PORT] (--agent [NAME=]HOST:PORT ... | --agents FILE) [--rules FILE]\n"
     "           [--alert-interval S] [--interval N] [--history S] [--per-pid]\n"
     "           [--all-filesystems] [--max-streams N] [--renew S] [--web DIR]",
     "Holds one data connection per agent, reconnecting with growing pauses, and serves\n"
     "them to everybody: /metrics for Prometheus (OpenMetrics, an instance label per agent),\n"
     "/api/agents, /api/agents/NAME/latest, /api/agents/NAME/history?path=PATH,\n"
     "/api/agents/NAME/alerts, live streams /api/agents/NAME/stream (JSON samples) and\n"
     "/api/agents/NAME/packets (what top, json and raw read with --hub), and the web\n"
     "dashboard on /. SIGHUP reads the agents file again.\n"
     "  --listen HOST:PORT  address to serve on (default 127.0.0.1:9108)\n"
     "  --agent [NAME=]HOST:PORT  an agent to watch, named NAME (default HOST:PORT); repeat\n"
     "  --agents FILE   agents, one '[NAME=]HOST:PORT [RULES_FILE]' a line\n"
     "  --rules FILE    alert rules for every agent without a rules file of its own\n"
     "  --alert-interval S  the agents' alert interval and how often alerts are collected\n"
     "                  (default 30)\n"
     "  --interval N    scan interval asked of the agents (default 2)\n"
     "  --history S     seconds of history kept per agent (default 900)\n"
     "  --per-pid       process series per pid (default: summed per process name)\n"
     "  --all-filesystems  keep pseudo file systems (no blocks; /proc, /sys, /dev, /run)\n"
     "  --max-streams N  live streams served at once (default 64)\n"
     "  --renew S       at least S seconds between two fresh header passes of an agent,\n"
     "                  asked for when processes have no name yet (default 60)\n"
     "  --web DIR       the dashboard's page files (default: share/vornmon/web of the\n"
     "                  install, or console/web of the source tree)\n",
     {{"--listen", true},
      {"--agent", true},
      {"--agents", true},
      {"--rules", true},
      {"--alert-interval", true},
      {"--interval", true},
      {"--history", true},
      {"--per-pid", false},
      {"--all-filesystems", false},
      {"--max-streams", true},
      {"--renew", true},
      {"--web", true}},
     0,
     0,
     cmd_hub},
};

void print_command_help(std::FILE* out, const Command& c) {
    std::fprintf(out, "usage: vornmon [--host HOST] [--port PORT] [--timeout SECONDS] %s\n\n%s",
                 c.synopsis, c.help);
}

}  // namespace

int run_vornmon(const std::vector<std::string>& args, std::FILE* out, std::FILE* err,
                std::FILE* in) {
    Context ctx;
    ctx.out = out;
    ctx.err = err;
    ctx.in = in;
    Invocation call;
    int status = kExitOk;
    if (!parse_command_line(args, kCommands, ctx, call, status)) return status;
    if (!call.command) {
        std::fputs(kGlobalHelp, out);
        return kExitOk;
    }
    if (call.help) {
        print_command_help(out, *call.command);
        return kExitOk;
    }
    return call.command->run(ctx, call.parsed);
}

}  // namespace vornmon
