#include "console/vm_exposition.h"

#include <cmath>
#include <set>

#include "console/vm_json.h"

namespace vornmon {

const Family kAgentUp{"vornmon_agent_up", false, "",
                      "Whether the hub holds a data connection to the agent."};
const Family kPacketsReceived{"vornmon_agent_packets_received", true, "",
                              "Packets the hub received from the agent."};
const Family kAlertsFiring{
    "vornmon_alerts_firing", false, "",
    "Whether the agent's last alert for the rule raised it (1) or cleared it (0)."};
const Family kAlertsReceived{"vornmon_alerts_received", true, "",
                             "Alerts the hub collected from the agent, raising and clearing."};

namespace {

// Processor time: the agent's per-processor shares of one interval, in percent.
const Family kCpuSeconds{"vornrta_cpu_seconds", true, "seconds", "Processor time spent per mode."};
const Family kCpuUtilization{"vornrta_cpu_utilization_ratio", false, "ratio",
                             "Share of all processors busy over the last interval."};
const Family kCpuMode{"vornrta_cpu_mode_ratio", false, "ratio",
                      "Share of all processors in each mode over the last interval."};
const Family kMemoryTotal{"vornrta_memory_total_bytes", false, "bytes", "Physical memory."};
const Family kMemoryUsed{"vornrta_memory_used_bytes", false, "bytes", "Memory in use."};
const Family kMemoryFree{"vornrta_memory_available_bytes", false, "bytes",
                         "Memory available without swapping."};
const Family kMemoryUtilization{"vornrta_memory_utilization_ratio", false, "ratio",
                                "Share of physical memory in use."};
const Family kPageFaults{"vornrta_page_faults", true, "", "Page faults, minor and major."};
const Family kMajorFaults{"vornrta_major_page_faults", true, "",
                          "Page faults that read from disk."};
const Family kPagingIo{"vornrta_swapped_pages", true, "", "Pages swapped in and out."};
const Family kDiskOps{"vornrta_disk_io_operations", true, "", "Reads and writes completed."};
const Family kDiskBytes{"vornrta_disk_io_bytes", true, "bytes", "Bytes read and written."};
const Family kDiskInProgress{"vornrta_disk_io_in_progress", false, "", "Requests in flight."};
const Family kFsSize{"vornrta_filesystem_size_blocks", false, "blocks",
                     "File-system size in the file system's blocks."};
const Family kFsUsed{"vornrta_filesystem_used_blocks", false, "blocks",
                     "Blocks in use, in the file system's blocks."};
const Family kFsAvail{"vornrta_filesystem_avail_blocks", false, "blocks",
                      "Blocks available to unprivileged users."};
const Family kFsFill{
    "vornrta_filesystem_fill_ratio", false, "ratio",
    "Share of the file system in use, as df computes it: used / (used + available)."};
const Family kNetBytesSent{"vornrta_network_sent_bytes", true, "bytes", "IP bytes sent."};
const Family kNetBytesReceived{"vornrta_network_received_bytes", true, "bytes",
                               "IP bytes received."};
const Family kTcpSent{"vornrta_tcp_sent_segments", true, "", "TCP segments sent."};
const Family kTcpReceived{"vornrta_tcp_received_segments", true, "", "TCP segments received."};
const Family kTcpRetrans{"vornrta_tcp_retransmitted_segments", true, "",
                         "TCP segments retransmitted."};
const Family kTcpConnections{"vornrta_tcp_connections", false, "",
                             "TCP connections established now."};
const Family kTcpActiveOpens{"vornrta_tcp_active_opens", true, "",
                             "TCP connections opened by this host."};
const Family kTcpPassiveOpens{"vornrta_tcp_passive_opens", true, "", "TCP connections accepted."};
const Family kTcpAttemptFails{"vornrta_tcp_attempt_fails", true, "",
                              "TCP connection attempts that failed."};
const Family kTcpResets{"vornrta_tcp_established_resets", true, "",
                        "TCP connections reset once established."};
const Family kUdpSent{"vornrta_udp_sent_datagrams", true, "", "UDP datagrams sent."};
const Family kUdpReceived{"vornrta_udp_received_datagrams", true, "", "UDP datagrams received."};
const Family kIpSent{"vornrta_ip_sent_packets", true, "", "IP packets sent."};
const Family kIpReceived{"vornrta_ip_received_packets", true, "", "IP packets received."};
const Family kProcesses{"vornrta_processes", false, "", "Processes running."};
const Family kProcCpu{"vornrta_process_cpu_seconds", true, "seconds",
                      "Processor time of processes per mode."};
const Family kProcRss{"vornrta_process_resident_memory_bytes", false, "bytes",
                      "Resident memory of processes."};
const Family kProcIo{"vornrta_process_io_bytes", true, "bytes",
                     "Bytes processes read and wrote through system calls."};
const Family kProcDiskRead{"vornrta_process_disk_read_bytes", true, "bytes",
                           "Bytes processes read from storage."};
const Family kProcDiskWritten{"vornrta_process_disk_written_bytes", true, "bytes",
                              "Bytes processes wrote to storage."};
const Family kProcMinor{"vornrta_process_minor_faults", true, "",
                        "Minor page faults of processes."};
const Family kProcMajor{"vornrta_process_major_faults", true, "",
                        "Major page faults of processes."};
const Family kProcSyscalls{"vornrta_process_syscalls", true, "", "System calls of processes."};

// How an agent value becomes a series value.
enum class Take {
    kLevel,     // a gauge: value × scale
    kRate,      // a per-second rate: the total grows by value × scale × seconds
    kInterval,  // a count over the interval: the total grows by value × scale
};

struct Row {
    const char* klass;
    const char* key;  // the counter's levels without their decorative blanks
    const Family* family;
    Take take;
    double scale;
    const char* label;  // extra label "k=\"v\"", or ""
};

// Rows not listed (rows Linux has no counter for, names, ids) are not exported.
const Row kRows[] = {
    {"Cpu", "Average Utilization", &kCpuUtilization, Take::kLevel, 0.01, ""},
    {"Cpu", "Mode Averages->Idle", &kCpuMode, Take::kLevel, 0.01, "mode=\"idle\""},
    {"Cpu", "Mode Averages->User", &kCpuMode, Take::kLevel, 0.01, "mode=\"user\""},
    {"Cpu", "Mode Averages->System", &kCpuMode, Take::kLevel, 0.01, "mode=\"system\""},
    {"Cpu", "Mode Averages->Wait", &kCpuMode, Take::kLevel, 0.01, "mode=\"wait\""},
    {"Cpu", "Idle", &kCpuSeconds, Take::kRate, 0.01, "mode=\"idle\""},
    {"Cpu", "User", &kCpuSeconds, Take::kRate, 0.01, "mode=\"user\""},
    {"Cpu", "System", &kCpuSeconds, Take::kRate, 0.01, "mode=\"system\""},
    {"Cpu", "Wait", &kCpuSeconds, Take::kRate, 0.01, "mode=\"wait\""},
    {"Memory", "% Memory Utilization", &kMemoryUtilization, Take::kLevel, 0.01, ""},
    {"Memory", "Allocation(MB)->Free", &kMemoryFree, Take::kLevel, 1048576, ""},
    {"Memory", "Allocation(MB)->Used", &kMemoryUsed, Take::kLevel, 1048576, ""},
    {"Memory", "Paging by Type->Total", &kPageFaults, Take::kRate, 1, ""},
    {"Memory", "Paging by Type->Major", &kMajorFaults, Take::kRate, 1, ""},
    {"Memory", "Paging IO Rate", &kPagingIo, Take::kRate, 1, ""},
    {"Disk", "Total Operations", &kDiskOps, Take::kInterval, 1, ""},
    {"Disk", "Total Transfers", &kDiskBytes, Take::kInterval, 1, ""},
    {"Disk", "Run State Elements", &kDiskInProgress, Take::kLevel, 1, ""},
    {"FileSystem", "Total", &kFsSize, Take::kLevel, 1, ""},
    {"FileSystem", "Used", &kFsUsed, Take::kLevel, 1, ""},
    {"FileSystem", "Available", &kFsAvail, Take::kLevel, 1, ""},
    {"Network", "TCP->Data Rate->Sent", &kNetBytesSent, Take::kRate, 1, ""},
    {"Network", "TCP->Data Rate->Received", &kNetBytesReceived, Take::kRate, 1, ""},
    {"Network", "TCP->Packet Rate->Sent", &kTcpSent, Take::kRate, 1, ""},
    {"Network", "TCP->Packet Rate->Received", &kTcpReceived, Take::kRate, 1, ""},
    {"Network", "TCP->Sent Packets Breakdown->Retrans", &kTcpRetrans, Take::kRate, 1, ""},
    {"Network", "TCP->Connection Establish Rate->Number of Connections", &kTcpConnections,
     Take::kLevel, 1, ""},
    {"Network", "TCP->Connections Opened->Active", &kTcpActiveOpens, Take::kRate, 1, ""},
    {"Network", "TCP->Connections Opened->Passive", &kTcpPassiveOpens, Take::kRate, 1, ""},
    {"Network", "TCP->Connections Aborted->Attempt Fail", &kTcpAttemptFails, Take::kRate, 1, ""},
    {"Network", "TCP->Connections Aborted->Established Reset", &kTcpResets, Take::kRate, 1, ""},
    {"Network", "UDP->Packet Rate->Sent", &kUdpSent, Take::kRate, 1, ""},
    {"Network", "UDP->Packet Rate->Received", &kUdpReceived, Take::kRate, 1, ""},
    {"Network", "IP->Packet Rate->Sent", &kIpSent, Take::kRate, 1, ""},
    {"Network", "IP->Packet Rate->Received", &kIpReceived, Take::kRate, 1, ""},
    {"Process", "Rss (Kb)", &kProcRss, Take::kLevel, 1024, ""},
    {"Process", "% user CPU", &kProcCpu, Take::kRate, 0.01, "mode=\"user\""},
    {"Process", "% sys CPU", &kProcCpu, Take::kRate, 0.01, "mode=\"system\""},
    {"Process", "IO Chars", &kProcIo, Take::kRate, 1, ""},
    {"Process", "Blocks In", &kProcDiskRead, Take::kRate, 512, ""},
    {"Process", "Blocks Out", &kProcDiskWritten, Take::kRate, 512, ""},
    {"Process", "Minor Faults", &kProcMinor, Take::kRate, 1, ""},
    {"Process", "Major Faults", &kProcMajor, Take::kRate, 1, ""},
    {"Process", "System calls", &kProcSyscalls, Take::kRate, 1, ""},
};

// Counter names carry decorative blanks around their levels (" Mode Averages->Idle").
std::string key_of(const std::string& counter) {
    std::string out;
    for (std::size_t i = 0;;) {
        std::size_t end = counter.find("->", i);
        std::string part = counter.substr(i, end == std::string::npos ? end : end - i);
        std::size_t b = part.find_first_not_of(' '), e = part.find_last_not_of(' ');
        if (!out.empty()) out += "->";
        if (b != std::string::npos) out += part.substr(b, e - b + 1);
        if (end == std::string::npos) return out;
        i = end + 2;
    }
}

const Row* row_for(const std::string& klass, const std::string& key) {
    for (const Row& r : kRows)
        if (klass == r.klass && key == r.key) return &r;
    return nullptr;
}

std::string join(std::string a, const std::string& b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    return a + "," + b;
}

std::string number_text(double v) {
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
    return shortest_number(v);
}

// Per mount point the three block counts, for the fill ratio and the pseudo filter.
struct Blocks {
    double total = 0, used = 0, avail = 0;
};

}  // namespace

std::string metric_key(const std::string& klass, const std::string& counter) {
    return klass + "->" + key_of(counter);
}

bool is_pseudo_filesystem(const std::string& mountpoint, double total_blocks) {
    if (total_blocks <= 0) return true;
    for (const char* root : {"/proc", "/sys", "/dev", "/run"}) {
        std::string r = root;
        if (mountpoint == r || mountpoint.compare(0, r.size() + 1, r + "/") == 0) return true;
    }
    return false;
}

namespace {

// Backslash and line end escaped, and the double quote when `quote` is set.
std::string escaped(std::string_view v, bool quote) {
    std::string out;
    for (char c : v) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"' && quote)
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

}  // namespace

std::string label_value(std::string_view v) {
    return escaped(v, true);
}

std::string help_text(std::string_view v) {
    return escaped(v, false);
}

double& Accumulator::total(const Family* family, const std::string& labels) {
    Total& t = totals_[std::string(family->name) + "{" + labels];
    t.family = family;
    t.labels = labels;
    t.seen = round_;
    return t.value;
}

// The levels of one measurement, summed per series (processes of one name add up), and the
// block counts per mount point.
struct Accumulator::Round {
    std::map<std::string, Series> levels;
    std::map<std::string, Blocks> mounts;
    std::map<std::string, int> processes;

    void level(const Family* f, const std::string& labels, double v) {
        auto [it, fresh] =
            levels.try_emplace(std::string(f->name) + "{" + labels, Series{f, labels, 0});
        it->second.value += v;
    }
};

// The labels of a reading's series; false when the reading is not exported this way.
bool Accumulator::labels_for(const Metric& m, const Family* family, const char* label, Round& round,
                             std::string& labels) {
    labels = label;
    if (m.is_process) {
        // Processes started after the last header pass have no name yet; the hub asks for a
        // fresh pass, and until then they are not added to any name.
        if (m.process_name.empty()) return false;
        std::string who = "name=\"" + label_value(m.process_name) + "\"";
        if (options_.per_pid) who += ",pid=\"" + std::to_string(m.pid) + "\"";
        if (family == &kProcRss) round.processes[who] += 1;
        labels = join(who, labels);
    } else if (m.klass == "Cpu" && !m.instance.empty()) {
        labels = join("cpu=\"" + label_value(m.instance) + "\"", labels);
    } else if (m.klass == "Cpu") {
        return family != &kCpuSeconds;  // host-wide modes are shares, kept as gauges
    } else if (m.klass == "Disk") {
        labels = join("device=\"" + label_value(m.instance) + "\"", labels);
    }
    return true;
}

void Accumulator::add_reading(const Reading& r, double seconds, Round& round) {
    const Metric& m = *r.metric;
    if (!r.numeric || !std::isfinite(r.number)) return;
    std::string key = key_of(m.counter);
    const Row* row = row_for(m.klass, key);
    std::string labels;
    if (!row) return;
    if (m.klass == "FileSystem") {
        Blocks& b = round.mounts[m.instance];
        (row->family == &kFsSize ? b.total : row->family == &kFsUsed ? b.used : b.avail) = r.number;
        return;
    }
    if (!labels_for(m, row->family, row->label, round, labels)) return;
    double v = r.number * row->scale;
    if (row->take == Take::kLevel)
        round.level(row->family, labels, v);
    else
        total(row->family, labels) += row->take == Take::kRate ? v * seconds : v;
}

void Accumulator::add_filesystems(const Round& round, std::vector<Series>& out) const {
    for (auto& [mount, b] : round.mounts) {
        if (!options_.all_filesystems && is_pseudo_filesystem(mount, b.total)) continue;
        std::string labels = "mountpoint=\"" + label_value(mount) + "\"";
        out.push_back({&kFsSize, labels, b.total});
        out.push_back({&kFsUsed, labels, b.used});
        out.push_back({&kFsAvail, labels, b.avail});
        if (b.used + b.avail > 0) out.push_back({&kFsFill, labels, b.used / (b.used + b.avail)});
    }
}

// A counter keeps its total while its series shows up. Per name, a name gone for ten minutes
// is dropped; per pid, a pid that is gone: memory stays bounded by what runs.
void Accumulator::sweep(double seconds) {
    long keep = options_.per_pid ? 1 : std::max(1L, std::lround(600 / std::max(seconds, 0.1)));
    std::erase_if(totals_, [&](const auto& kv) { return round_ - kv.second.seen >= keep; });
}

std::vector<Series> Accumulator::add(const Sample& sample, double seconds,
                                     const std::map<std::string, std::string>& attributes) {
    ++round_;
    Round round;
    for (const Reading& r : sample.readings) add_reading(r, seconds, round);
    for (auto& [who, n] : round.processes) round.level(&kProcesses, who, n);
    std::vector<Series> out;
    for (auto& [key, series] : round.levels) out.push_back(series);
    add_filesystems(round, out);
    if (auto it = attributes.find("Memory->System Memory (MB)"); it != attributes.end()) {
        double mb = 0;
        if (parse_number(it->second, mb)) out.push_back({&kMemoryTotal, "", mb * 1048576});
    }
    sweep(seconds);
    for (auto& [key, t] : totals_) out.push_back({t.family, t.labels, t.value});
    return out;
}

const std::vector<const Family*>& families() {
    static const std::vector<const Family*> all = {
        &kAgentUp,        &kPacketsReceived,   &kAlertsFiring,
        &kAlertsReceived, &kCpuSeconds,        &kCpuUtilization,
        &kCpuMode,        &kMemoryTotal,       &kMemoryUsed,
        &kMemoryFree,     &kMemoryUtilization, &kPageFaults,
        &kMajorFaults,    &kPagingIo,          &kDiskOps,
        &kDiskBytes,      &kDiskInProgress,    &kFsSize,
        &kFsUsed,         &kFsAvail,           &kFsFill,
        &kNetBytesSent,   &kNetBytesReceived,  &kTcpSent,
        &kTcpReceived,    &kTcpRetrans,        &kTcpConnections,
        &kTcpActiveOpens, &kTcpPassiveOpens,   &kTcpAttemptFails,
        &kTcpResets,      &kUdpSent,           &kUdpReceived,
        &kIpSent,         &kIpReceived,        &kProcesses,
        &kProcCpu,        &kProcRss,           &kProcIo,
        &kProcDiskRead,   &kProcDiskWritten,   &kProcMinor,
        &kProcMajor,      &kProcSyscalls,
    };
    return all;
}

std::string exposition_text(const std::vector<AgentSeries>& agents, bool openmetrics) {
    std::map<const Family*, std::string> samples;
    for (const AgentSeries& a : agents) {
        std::string who =
            "instance=\"" + label_value(a.instance) + "\",host=\"" + label_value(a.host) + "\"";
        auto put = [&](const Series& s) {
            std::string& text = samples[s.family];
            text += s.family->name;
            if (s.family->counter) text += "_total";
            text += "{" + join(who, s.labels) + "} " + number_text(s.value) + "\n";
        };
        put({&kAgentUp, "", a.up ? 1.0 : 0.0});
        put({&kPacketsReceived, "", a.packets});
        for (const Series& s : a.alerts) put(s);
        if (a.series && a.up)
            for (const Series& s : *a.series) put(s);
    }
    std::string out;
    for (const Family* f : families()) {
        auto it = samples.find(f);
        if (it == samples.end()) continue;
        // OpenMetrics names the counter family without "_total"; the older format types
        // the sample name itself.
        std::string name = std::string(f->name) + (f->counter && !openmetrics ? "_total" : "");
        out += "# TYPE " + name + (f->counter ? " counter\n" : " gauge\n");
        if (openmetrics && *f->unit) out += "# UNIT " + name + " " + f->unit + "\n";
        out += "# HELP " + name + " " + f->help + "\n";
        out += it->second;
    }
    if (openmetrics) out += "# EOF\n";
    return out;
}

}  // namespace vornmon
