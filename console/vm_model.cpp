#include "console/vm_model.h"

#include <cctype>

namespace vornmon {

const ProcessRow kProcessRows[kProcessFields - 1] = {
    {"PID", " ", false},
    {"ParentPID", " ", false},
    {"User Name", " ", false},
    {"tty name", " ", false},
    {"% CPU Utilization", "%", true},
    {"% user CPU", "%", true},
    {"% sys CPU", "%", true},
    {"System Trap Time", "/Sec", true},
    {"Blocks In", "/Sec", true},
    {"Blocks Out", "/Sec", true},
    {"Minor Faults", "/Sec", true},
    {"Major Faults", "/Sec", true},
    {"IO Chars", "/Sec", true},
    {"System calls", "/Sec", true},
    {"Swaps", "/Sec", true},
    {"Rss (Kb)", "Kb", true},
    {"Priority", "#", true},
};

namespace {

std::string trim(std::string_view s) {
    while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
    while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
    return std::string(s);
}

bool all_digits(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

}  // namespace

Metric metric_from_header(const HeaderLine& h) {
    Metric m;
    m.id = h.id;
    m.klass = h.prefix;
    m.description = h.description;
    m.units = h.units;
    m.marker = h.marker;
    m.is_counter = h.is_counter == 1;
    m.header_value = h.value;
    if (h.is_process) {
        m.is_process = true;
        m.pid = h.pid;
        m.process_name = h.process_name;
        m.instance = std::to_string(h.pid);
        m.counter = h.counter;
        m.path = h.prefix + "->" + h.process_name + "->" + h.counter;
        return m;
    }
    m.path = h.prefix + "->" + h.name;
    m.counter = h.name;
    std::size_t first = h.name.find("->");
    if (h.prefix == "Cpu" && first != std::string::npos) {
        // Per-processor rows are named " <n>-><row>"; host-wide rows never start with a number.
        std::string head = trim(std::string_view(h.name).substr(0, first));
        if (all_digits(head)) {
            m.instance = head;
            m.counter = h.name.substr(first + 2);
        }
    } else if (h.prefix == "Disk" || h.prefix == "FileSystem") {
        // Instance names (device, mount point) come first; row names hold no "->".
        std::size_t last = h.name.rfind("->");
        if (last != std::string::npos && last > 0) {
            m.instance = h.name.substr(0, last);
            m.counter = h.name.substr(last + 2);
        }
    }
    return m;
}

bool metric_from_process_id(long id, Metric& out) {
    if (id < kProcessIdBase) return false;
    long rest = id - kProcessIdBase;
    long row = rest % kProcessFields - 1;
    if (row < 0) return false;
    const ProcessRow& r = kProcessRows[row];
    out = Metric{};
    out.id = id;
    out.klass = "Process";
    out.pid = rest / kProcessFields;
    out.is_process = true;
    out.instance = std::to_string(out.pid);
    out.counter = r.name;
    out.units = r.units;
    out.marker = 1;
    out.is_counter = r.is_counter;
    out.path = "Process->->" + out.counter;
    out.from_header = false;
    return true;
}

std::shared_ptr<const Metric> Session::find(long id) const {
    auto it = metrics_.find(id);
    return it == metrics_.end() ? nullptr : it->second;
}

bool Session::accept(const Packet& packet, Sample& out, std::string& err) {
    std::map<long, std::shared_ptr<const Metric>> defined;
    for (const HeaderLine& h : packet.headers) {
        if (h.id == -1) continue;  // the agent ran out of ids: such rows cannot be addressed
        if (h.id <= 0) {
            err =
                "header line with id " + std::to_string(h.id) + " for " + h.prefix + "->" + h.name;
            return false;
        }
        if (h.is_process) {
            // Process ids are derived from the pid; one that is not says the agent and the
            // console disagree about the process rows, and every value would be misread.
            long first = kProcessIdBase + h.pid * kProcessFields + 1;
            if (h.id < first || h.id >= first + kProcessFields - 1) {
                err = "id " + std::to_string(h.id) + " is not a process id of pid " +
                      std::to_string(h.pid) + " in " + quote_for_error(h.prefix + "->" + h.name);
                return false;
            }
            if (h.counter != kProcessRows[h.id - first].name) {
                err = "id " + std::to_string(h.id) + " belongs to process row " +
                      quote_for_error(kProcessRows[h.id - first].name) + ", not " +
                      quote_for_error(h.counter);
                return false;
            }
        }
        auto m = std::make_shared<Metric>(metric_from_header(h));
        auto [it, inserted] = defined.emplace(h.id, m);
        if (!inserted && it->second->path != m->path) {
            err = "id " + std::to_string(h.id) + " defined twice, for " +
                  quote_for_error(it->second->path) + " and " + quote_for_error(m->path);
            return false;
        }
    }
    // Packet 1 opens a data connection and brings every definition; other header
    // sections add to the ones in force.
    std::map<long, std::shared_ptr<const Metric>> next;
    if (packet.number != 1 || defined.empty()) next = metrics_;
    for (auto& [id, m] : defined) next[id] = m;

    Sample s;
    s.packet = packet.number;
    s.time = packet.time;
    s.interval = packet.interval;
    s.header_lines = packet.headers.size();
    s.readings.reserve(packet.data.size());
    for (const DataLine& d : packet.data) {
        if (d.id == -1) continue;
        std::shared_ptr<const Metric> metric;
        auto it = next.find(d.id);
        if (it != next.end()) {
            metric = it->second;
        } else {
            Metric decoded;
            if (!metric_from_process_id(d.id, decoded)) {
                err = "data id " + std::to_string(d.id) + " has no header line";
                return false;
            }
            // A process that appeared after the header packet: its name is known only if
            // another of its rows was described.
            long first_row = kProcessIdBase + decoded.pid * kProcessFields + 1;
            for (long row_id = first_row; row_id < first_row + kProcessFields - 1; ++row_id) {
                auto other = next.find(row_id);
                if (other != next.end() && other->second->is_process) {
                    decoded.process_name = other->second->process_name;
                    break;
                }
            }
            decoded.path = "Process->" + decoded.process_name + "->" + decoded.counter;
            metric = std::make_shared<Metric>(std::move(decoded));
        }
        Reading r;
        r.metric = metric;
        r.text = d.value;
        r.numeric = parse_number(d.value, r.number);
        if (metric->is_counter && !r.numeric) {
            err = "bad number " + quote_for_error(d.value) + " for " +
                  quote_for_error(metric->path) + " (id " + std::to_string(d.id) + ")";
            return false;
        }
        s.readings.push_back(std::move(r));
    }
    metrics_ = std::move(next);
    out = std::move(s);
    return true;
}

}  // namespace vornmon
