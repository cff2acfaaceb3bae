#include "console/vm_dashboard.h"

#include <cctype>
#include <cmath>
#include <map>

#include "console/vm_hub.h"
#include "console/vm_json.h"
#include "console/vm_view.h"

namespace vornmon {
namespace {

// The row of a process counter within its process: ids are laid out as
// 65536 + pid * 18 + row + 1, whether or not a header line named them.
int process_row(const Metric& m) {
    long row = (m.id - kProcessIdBase) % kProcessFields - 1;
    return row >= 0 && row < kProcessFields - 1 ? static_cast<int>(row) : -1;
}

struct ProcessCells {
    std::string name;
    bool named = false;
    const Reading* cells[kProcessFields - 1] = {};
};

std::string process_rows_json(const std::map<long, ProcessCells>& processes) {
    std::string out = "\"process_columns\":[\"pid\",\"name\"";
    for (int row = 1; row < kProcessFields - 1; ++row)
        out += "," + json_quote(kProcessRows[row].name);
    out += "],\"processes\":[";
    bool first_row = true;
    for (const auto& [pid, p] : processes) {
        out += first_row ? "[" : ",[";
        first_row = false;
        out += std::to_string(pid) + "," + (p.named ? json_quote(p.name) : "null");
        for (int row = 1; row < kProcessFields - 1; ++row) {
            const Reading* r = p.cells[row];
            out += ",";
            if (!r)
                out += "null";
            else if (kProcessRows[row].is_counter)
                out += r->numeric ? json_number(r->number) : "null";
            else
                out += json_quote(r->text);
        }
        out += "]";
    }
    return out + "]";
}

bool all_digits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

std::string figure(const char* name, double value) {
    return std::string(",\"") + name + "\":" + json_number(value);
}

}  // namespace

std::string compact_sample_json(const std::string& agent, const Sample& sample,
                                std::int64_t unix_ms) {
    std::string values, texts;
    std::map<long, ProcessCells> processes;
    for (const Reading& r : sample.readings) {
        const Metric& m = *r.metric;
        if (m.is_process) {
            ProcessCells& p = processes[m.pid];
            if (!m.process_name.empty() || m.from_header) p.name = m.process_name, p.named = true;
            if (int row = process_row(m); row >= 0) p.cells[row] = &r;
        } else if (m.is_counter && r.numeric) {
            values +=
                (values.empty() ? "" : ",") + json_quote(m.path) + ":" + json_number(r.number);
        } else if (!m.is_counter) {
            texts += (texts.empty() ? "" : ",") + json_quote(m.path) + ":" + json_quote(r.text);
        }
    }
    return "{\"agent\":" + json_quote(agent) + ",\"packet\":" + std::to_string(sample.packet) +
           ",\"time\":" + json_quote(sample.time) +
           ",\"interval\":" + std::to_string(sample.interval) +
           ",\"unix_ms\":" + std::to_string(unix_ms) + ",\"values\":{" + values + "},\"texts\":{" +
           texts + "}," + process_rows_json(processes) + "}";
}

bool is_partition(const std::string& name, const std::vector<std::string>& devices) {
    for (const std::string& d : devices) {
        if (d.empty() || d.size() >= name.size() || name.compare(0, d.size(), d) != 0) continue;
        std::string_view rest = std::string_view(name).substr(d.size());
        bool parent_ends_in_digit = std::isdigit(static_cast<unsigned char>(d.back()));
        // sda1 of sda; a parent whose name ends in a digit numbers them after a 'p'
        // (nvme0n1p2, mmcblk0p1), so dm-10 is no partition of dm-1.
        if (parent_ends_in_digit ? rest.size() > 1 && rest[0] == 'p' && all_digits(rest.substr(1))
                                 : all_digits(rest))
            return true;
    }
    return false;
}

FleetFigures fleet_figures(const Sample& latest) {
    // The agent counts disk work per interval; the view turns it into rates per second.
    HostView v = build_view(latest);
    FleetFigures f;
    f.processors = static_cast<int>(v.processors.size());
    f.cpu = v.cpu.total;
    f.user = v.cpu.user;
    f.system = v.cpu.system;
    f.wait = v.cpu.wait;
    f.memory_util = v.memory.util;
    f.memory_total_mb = v.memory.total_mb;
    f.memory_used_mb = v.memory.used_mb;
    std::vector<std::string> devices;
    for (const DiskRow& d : v.disks) devices.push_back(d.name);
    for (const DiskRow& d : v.disks) {
        if (is_partition(d.name, devices)) continue;
        f.disk_ops += d.ops;
        f.disk_bytes += d.bytes;
    }
    f.net_in = v.net.bytes_in;
    f.net_out = v.net.bytes_out;
    f.processes = static_cast<long>(v.processes.size());
    return f;
}

std::string fleet_row_json(const AgentStatus& s, const Sample* latest,
                           const std::vector<double>& cpu_recent, int rules, int rules_firing) {
    std::string recent;
    for (double v : cpu_recent)  // a tenth of a percent is finer than a sparkline shows
        recent += (recent.empty() ? "" : ",") + json_number(std::round(v * 10) / 10);
    std::string out =
        "{\"name\":" + json_quote(s.name) + ",\"instance\":" + json_quote(s.instance) +
        ",\"up\":" + (s.up ? "true" : "false") + ",\"interval\":" + std::to_string(s.interval) +
        ",\"samples\":" + std::to_string(s.samples) +
        ",\"last_sample_ms\":" + std::to_string(s.last_sample_ms) +
        ",\"time\":" + json_quote(s.time) + ",\"last_error\":" + json_quote(s.last_error) +
        ",\"rules\":" + std::to_string(rules) + ",\"firing\":" + std::to_string(rules_firing) +
        ",\"cpu_recent\":[" + recent + "],\"figures\":";
    if (!latest) return out + "null}";
    FleetFigures f = fleet_figures(*latest);
    return out + "{\"processors\":" + std::to_string(f.processors) + figure("cpu", f.cpu) +
           figure("user", f.user) + figure("system", f.system) + figure("wait", f.wait) +
           figure("memory_util", f.memory_util) + figure("memory_total_mb", f.memory_total_mb) +
           figure("memory_used_mb", f.memory_used_mb) + figure("disk_ops", f.disk_ops) +
           figure("disk_bytes", f.disk_bytes) + figure("net_in", f.net_in) +
           figure("net_out", f.net_out) + ",\"processes\":" + std::to_string(f.processes) + "}}";
}

}  // namespace vornmon
