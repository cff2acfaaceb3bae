#include "console/vm_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace vornmon {
namespace {

// Counter names carry decorative blanks around their levels (" Mode Averages->Idle",
// " Allocation(MB)-> Free"); the view matches them with those blanks removed.
std::string key_of(const std::string& counter) {
    std::string out;
    std::size_t i = 0;
    for (;;) {
        std::size_t end = counter.find("->", i);
        std::string part =
            counter.substr(i, end == std::string::npos ? std::string::npos : end - i);
        std::size_t b = part.find_first_not_of(' ');
        std::size_t e = part.find_last_not_of(' ');
        if (!out.empty()) out += "->";
        if (b != std::string::npos) out += part.substr(b, e - b + 1);
        if (end == std::string::npos) break;
        i = end + 2;
    }
    return out;
}

std::string fmt(const char* format, double a) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, a);
    return buf;
}

std::string pad(std::string s, std::size_t width, bool right = false) {
    if (s.size() >= width) return s;
    return right ? std::string(width - s.size(), ' ') + s : s + std::string(width - s.size(), ' ');
}

std::string cut(std::string s, std::size_t width) {
    if (s.size() > width) s.resize(width);
    return s;
}

void set_split(CpuSplit& c, const std::string& key, double v) {
    c.present = true;
    if (key == "Idle" || key == "Mode Averages->Idle")
        c.idle = v;
    else if (key == "User" || key == "Mode Averages->User")
        c.user = v;
    else if (key == "System" || key == "Mode Averages->System")
        c.system = v;
    else if (key == "Wait" || key == "Mode Averages->Wait")
        c.wait = v;
    else if (key == "Total" || key == "Average Utilization")
        c.total = v;
}

}  // namespace

HostView build_view(const Sample& sample) {
    HostView v;
    v.packet = sample.packet;
    v.time = sample.time;
    v.interval = sample.interval;
    std::map<int, CpuSplit> processors;
    std::map<std::string, DiskRow> disks;
    std::map<std::string, FsRow> filesystems;
    std::map<long, ProcRow> procs;

    for (const Reading& r : sample.readings) {
        const Metric& m = *r.metric;
        std::string key = key_of(m.counter);
        double x = r.numeric ? r.number : 0;
        if (!std::isfinite(x)) x = 0;
        if (m.is_process) {
            v.has_processes = true;
            ProcRow& p = procs[m.pid];
            p.pid = m.pid;
            if (p.name.empty()) p.name = m.process_name;
            if (key == "User Name")
                p.user = r.text;
            else if (key == "ParentPID")
                p.ppid = static_cast<long>(x);
            else if (key == "% CPU Utilization")
                p.cpu = x;
            else if (key == "% user CPU")
                p.user_cpu = x;
            else if (key == "% sys CPU")
                p.sys_cpu = x;
            else if (key == "Rss (Kb)")
                p.rss_kb = x;
            else if (key == "IO Chars")
                p.io = x;
            else if (key == "Major Faults")
                p.major = x;
        } else if (m.klass == "Cpu") {
            if (m.instance.empty())
                set_split(v.cpu, key, x);
            else
                set_split(processors[std::atoi(m.instance.c_str())], key, x);
        } else if (m.klass == "Disk") {
            DiskRow& d = disks[m.instance];
            d.name = m.instance;
            if (key == "Total Operations")
                d.ops = x;
            else if (key == "Total Transfers")
                d.bytes = x;
            else if (key == "Waiting Elements")
                d.waiting = x;
            else if (key == "Run State Elements")
                d.running = x;
        } else if (m.klass == "FileSystem") {
            FsRow& f = filesystems[m.instance];
            f.mount = m.instance;
            if (key == "% Space Used")
                f.pct_used = x;
            else if (key == "Available")
                f.available = x;
            else if (key == "Total")
                f.total = x;
        } else if (key == "% Memory Utilization") {
            v.memory.present = true;
            v.memory.util = x;
        } else if (key == "System Memory (MB)") {
            v.memory.present = true;
            v.memory.total_mb = x;
        } else if (key == "Allocation(MB)->Free") {
            v.memory.free_mb = x;
        } else if (key == "Allocation(MB)->Used") {
            v.memory.used_mb = x;
        } else if (key == "Paging by Type->Total") {
            v.memory.paging = x;
        } else if (key == "Paging by Type->Major") {
            v.memory.major = x;
        } else if (key == "Paging IO Rate") {
            v.memory.paging_io = x;
        } else if (key.rfind("TCP->", 0) == 0 || key.rfind("UDP->", 0) == 0 ||
                   key.rfind("IP->", 0) == 0) {
            v.net.present = true;
            if (key == "TCP->Packet Rate->Sent")
                v.net.tcp_out = x;
            else if (key == "TCP->Packet Rate->Received")
                v.net.tcp_in = x;
            else if (key == "TCP->Data Rate->Sent")
                v.net.bytes_out = x;
            else if (key == "TCP->Data Rate->Received")
                v.net.bytes_in = x;
            else if (key == "TCP->Sent Packets Breakdown->Retrans")
                v.net.retrans = x;
            else if (key == "TCP->Connection Establish Rate->Number of Connections")
                v.net.connections = x;
            else if (key == "UDP->Packet Rate->Sent")
                v.net.udp_out = x;
            else if (key == "UDP->Packet Rate->Received")
                v.net.udp_in = x;
            else if (key == "IP->Packet Rate->Sent")
                v.net.ip_out = x;
            else if (key == "IP->Packet Rate->Received")
                v.net.ip_in = x;
        }
    }
    for (auto& [n, split] : processors) v.processors.push_back({n, split});
    for (auto& [name, d] : disks) v.disks.push_back(d);
    std::stable_sort(v.disks.begin(), v.disks.end(), [](const DiskRow& a, const DiskRow& b) {
        return a.ops + a.bytes / 1e6 > b.ops + b.bytes / 1e6;
    });
    for (auto& [name, f] : filesystems) v.filesystems.push_back(f);
    std::stable_sort(v.filesystems.begin(), v.filesystems.end(),
                     [](const FsRow& a, const FsRow& b) { return a.pct_used > b.pct_used; });
    for (auto& [pid, p] : procs) v.processes.push_back(p);
    sort_processes(v.processes, SortKey::kCpu);
    return v;
}

const char* sort_key_name(SortKey key) {
    switch (key) {
        case SortKey::kCpu:
            return "cpu";
        case SortKey::kMemory:
            return "memory";
        case SortKey::kPid:
            return "pid";
        case SortKey::kName:
            return "name";
        case SortKey::kIo:
            return "io";
    }
    return "cpu";
}

void sort_processes(std::vector<ProcRow>& rows, SortKey key) {
    auto by = [&](auto field, bool descending) {
        std::stable_sort(rows.begin(), rows.end(), [&](const ProcRow& a, const ProcRow& b) {
            auto x = field(a), y = field(b);
            if (x != y) return descending ? x > y : x < y;
            return a.pid < b.pid;
        });
    };
    switch (key) {
        case SortKey::kCpu:
            by([](const ProcRow& p) { return p.cpu; }, true);
            break;
        case SortKey::kMemory:
            by([](const ProcRow& p) { return p.rss_kb; }, true);
            break;
        case SortKey::kPid:
            by([](const ProcRow& p) { return p.pid; }, false);
            break;
        case SortKey::kName:
            by([](const ProcRow& p) { return p.name; }, false);
            break;
        case SortKey::kIo:
            by([](const ProcRow& p) { return p.io; }, true);
            break;
    }
}

std::string human_count(double value) {
    const char* suffix[] = {"", "k", "M", "G", "T"};
    int i = 0;
    while (std::fabs(value) >= 1000 && i < 4) {
        value /= 1000;
        ++i;
    }
    if (i == 0)
        return fmt(std::fabs(value) < 10 && value != std::floor(value) ? "%.1f" : "%.0f", value);
    return fmt(std::fabs(value) < 10 ? "%.1f" : "%.0f", value) + suffix[i];
}

std::string human_bytes(double bytes) {
    const char* suffix[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    int i = 0;
    while (std::fabs(bytes) >= 1024 && i < 5) {
        bytes /= 1024;
        ++i;
    }
    return fmt(i > 0 && std::fabs(bytes) < 10 ? "%.1f" : "%.0f", bytes) + suffix[i];
}

std::vector<ViewLine> layout_view(const HostView& v, const std::string& source, SortKey key,
                                  int width, int max_processes) {
    std::vector<ViewLine> out;
    auto add = [&](ViewLine::Kind kind, std::string text, double bar = -1) {
        out.push_back(
            {kind, cut(std::move(text), static_cast<std::size_t>(std::max(width, 20))), bar});
    };
    add(ViewLine::kTitle, "vornmon " + source + "  " + v.time + "  packet " +
                              std::to_string(v.packet) + "  every " + std::to_string(v.interval) +
                              " s");

    add(ViewLine::kSection, "CPU");
    if (v.cpu.present) {
        add(ViewLine::kText,
            "  user " + fmt("%5.1f%%", v.cpu.user) + "  system " + fmt("%5.1f%%", v.cpu.system) +
                "  wait " + fmt("%5.1f%%", v.cpu.wait) + "  idle " + fmt("%5.1f%%", v.cpu.idle) +
                "  total " + fmt("%5.1f%%", v.cpu.total));
    } else {
        add(ViewLine::kText, "  (no processor figures)");
    }

    add(ViewLine::kSection, "Processors");
    for (const ProcessorRow& p : v.processors) {
        add(ViewLine::kText,
            "  cpu" + pad(std::to_string(p.number), 3) + fmt(" %5.1f%%", p.split.total) + "  usr " +
                fmt("%5.1f", p.split.user) + " sys " + fmt("%5.1f", p.split.system) + " wait " +
                fmt("%5.1f", p.split.wait),
            p.split.total);
    }
    if (v.processors.empty()) add(ViewLine::kText, "  (no per-processor figures)");

    add(ViewLine::kSection, "Memory");
    if (v.memory.present) {
        add(ViewLine::kText, "  used " + human_bytes(v.memory.used_mb * 1048576) + " of " +
                                 human_bytes(v.memory.total_mb * 1048576) +
                                 fmt(" (%.1f%%)", v.memory.util) + "  free " +
                                 human_bytes(v.memory.free_mb * 1048576));
        add(ViewLine::kText, "  paging " + human_count(v.memory.paging) + "/s  major faults " +
                                 human_count(v.memory.major) + "/s  paging IO " +
                                 human_count(v.memory.paging_io) + "/s");
    } else {
        add(ViewLine::kText, "  (no memory figures)");
    }

    add(ViewLine::kSection, "Disks");
    if (v.disks.empty()) {
        add(ViewLine::kText, "  (no disk figures)");
    } else {
        add(ViewLine::kColumns, "  " + pad("DEVICE", 16) + pad("OPS/S", 9, true) +
                                    pad("BYTES/S", 10, true) + pad("WAIT", 6, true) +
                                    pad("RUN", 6, true));
        for (std::size_t i = 0; i < v.disks.size() && i < 5; ++i) {
            const DiskRow& d = v.disks[i];
            add(ViewLine::kText,
                "  " + pad(cut(d.name, 15), 16) + pad(human_count(d.ops), 9, true) +
                    pad(human_bytes(d.bytes), 10, true) + pad(fmt("%.0f", d.waiting), 6, true) +
                    pad(fmt("%.0f", d.running), 6, true));
        }
    }

    add(ViewLine::kSection, "File systems");
    if (v.filesystems.empty()) {
        add(ViewLine::kText, "  (no file-system figures)");
    } else {
        // Sizes are statvfs block counts (fragment units), not the kilobytes their units say.
        add(ViewLine::kColumns, "  " + pad("MOUNT", 28) + pad("USED", 7, true) +
                                    pad("AVAIL BLK", 12, true) + pad("TOTAL BLK", 12, true));
        for (std::size_t i = 0; i < v.filesystems.size() && i < 8; ++i) {
            const FsRow& f = v.filesystems[i];
            add(ViewLine::kText,
                "  " + pad(cut(f.mount, 27), 28) + pad(fmt("%.1f%%", f.pct_used), 7, true) +
                    pad(fmt("%.0f", f.available), 12, true) + pad(fmt("%.0f", f.total), 12, true));
        }
    }

    add(ViewLine::kSection, "Network");
    if (v.net.present) {
        add(ViewLine::kText,
            "  TCP in " + human_count(v.net.tcp_in) + " seg/s  out " + human_count(v.net.tcp_out) +
                " seg/s  data in " + human_bytes(v.net.bytes_in) + "/s  out " +
                human_bytes(v.net.bytes_out) + "/s  retrans " + human_count(v.net.retrans) +
                "/s  connections " + human_count(v.net.connections));
        add(ViewLine::kText, "  UDP in " + human_count(v.net.udp_in) + " dg/s  out " +
                                 human_count(v.net.udp_out) + " dg/s   IP in " +
                                 human_count(v.net.ip_in) + " pkt/s  out " +
                                 human_count(v.net.ip_out) + " pkt/s");
    } else {
        add(ViewLine::kText, "  (no network figures)");
    }

    if (v.has_processes) {
        add(ViewLine::kSection, std::string("Processes (") + std::to_string(v.processes.size()) +
                                    ", by " + sort_key_name(key) + ")");
        add(ViewLine::kColumns, pad("PID", 8, true) + " " + pad("USER", 10) + pad("%CPU", 6, true) +
                                    pad("%USR", 6, true) + pad("%SYS", 6, true) +
                                    pad("RSS", 9, true) + pad("IO/S", 9, true) + "  NAME");
        std::vector<ProcRow> rows = v.processes;
        sort_processes(rows, key);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            if (max_processes >= 0 && static_cast<int>(i) >= max_processes) break;
            const ProcRow& p = rows[i];
            add(ViewLine::kText,
                pad(std::to_string(p.pid), 8, true) + " " + pad(cut(p.user, 9), 10) +
                    pad(fmt("%.1f", p.cpu), 6, true) + pad(fmt("%.1f", p.user_cpu), 6, true) +
                    pad(fmt("%.1f", p.sys_cpu), 6, true) +
                    pad(human_bytes(p.rss_kb * 1024), 9, true) + pad(human_bytes(p.io), 9, true) +
                    "  " + (p.name.empty() ? "?" : p.name));
        }
    }
    return out;
}

std::string render_text(const std::vector<ViewLine>& lines, int width) {
    std::string out;
    for (const ViewLine& l : lines) {
        std::string text = l.text;
        if (l.bar >= 0) {
            int room = std::max(10, std::min(40, width - static_cast<int>(text.size()) - 4));
            int fill = static_cast<int>(std::lround(std::clamp(l.bar, 0.0, 100.0) / 100.0 * room));
            text += "  [" + std::string(static_cast<std::size_t>(fill), '#') +
                    std::string(static_cast<std::size_t>(room - fill), ' ') + "]";
        }
        out += text + "\n";
    }
    return out;
}

}  // namespace vornmon
