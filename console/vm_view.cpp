#include "console/vm_view.h"

#include <fmt/format.h>

#include "console/vm_exposition.h"

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

// One value of a process row.
void add_process_reading(ProcRow& p, const Metric& m, const std::string& key, const Reading& r,
                         double x) {
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
}

void add_disk_reading(DiskRow& d, const std::string& key, double x) {
    if (key == "Total Operations")
        d.ops = x;
    else if (key == "Total Transfers")
        d.bytes = x;
    else if (key == "Waiting Elements")
        d.waiting = x;
    else if (key == "Run State Elements")
        d.running = x;
}

void add_fs_reading(FsRow& f, const std::string& key, double x) {
    if (key == "% Space Used")
        f.pct_used = x;
    else if (key == "Available")
        f.available = x;
    else if (key == "Used")
        f.used = x, f.has_used = true;
    else if (key == "Total")
        f.total = x;
}

void add_network_reading(NetView& n, const std::string& key, double x) {
    static const std::pair<const char*, double NetView::*> rows[] = {
        {"TCP->Packet Rate->Sent", &NetView::tcp_out},
        {"TCP->Packet Rate->Received", &NetView::tcp_in},
        {"TCP->Data Rate->Sent", &NetView::bytes_out},
        {"TCP->Data Rate->Received", &NetView::bytes_in},
        {"TCP->Sent Packets Breakdown->Retrans", &NetView::retrans},
        {"TCP->Connection Establish Rate->Number of Connections", &NetView::connections},
        {"UDP->Packet Rate->Sent", &NetView::udp_out},
        {"UDP->Packet Rate->Received", &NetView::udp_in},
        {"IP->Packet Rate->Sent", &NetView::ip_out},
        {"IP->Packet Rate->Received", &NetView::ip_in},
    };
    n.present = true;
    for (const auto& [name, field] : rows)
        if (key == name) n.*field = x;
}

// Memory and network rows; false when the key is neither.
bool add_host_reading(HostView& v, const std::string& key, double x) {
    static const std::pair<const char*, double MemoryView::*> memory[] = {
        {"% Memory Utilization", &MemoryView::util},
        {"System Memory (MB)", &MemoryView::total_mb},
        {"Allocation(MB)->Free", &MemoryView::free_mb},
        {"Allocation(MB)->Used", &MemoryView::used_mb},
        {"Paging by Type->Total", &MemoryView::paging},
        {"Paging by Type->Major", &MemoryView::major},
        {"Paging IO Rate", &MemoryView::paging_io},
    };
    for (const auto& [name, field] : memory)
        if (key == name) {
            // The two level rows say the class is there; the rest only fill it in.
            if (field == &MemoryView::util || field == &MemoryView::total_mb)
                v.memory.present = true;
            v.memory.*field = x;
            return true;
        }
    if (key.rfind("TCP->", 0) == 0 || key.rfind("UDP->", 0) == 0 || key.rfind("IP->", 0) == 0) {
        add_network_reading(v.net, key, x);
        return true;
    }
    return false;
}

void order_rows(HostView& v, std::map<int, CpuSplit>& processors,
                std::map<std::string, DiskRow>& disks, std::map<std::string, FsRow>& filesystems,
                std::map<long, ProcRow>& procs) {
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
}

}  // namespace

double IntervalClock::measured(int printed, TimePoint now) {
    double label = std::max(1, printed);
    double seconds = last_ ? std::chrono::duration<double>(now - *last_).count() : label;
    last_ = now;
    // A stalled or bursting delivery must not turn one interval's counts into absurd rates.
    return std::clamp(seconds, 0.1, label * 10);
}

HostView build_view(const Sample& sample, double seconds) {
    HostView v;
    v.packet = sample.packet;
    v.time = sample.time;
    v.interval = sample.interval;
    v.seconds = seconds > 0 ? seconds : std::max(1, sample.interval);
    std::map<int, CpuSplit> processors;
    std::map<std::string, DiskRow> disks;
    std::map<std::string, FsRow> filesystems;
    std::map<long, ProcRow> procs;
    for (const Reading& r : sample.readings) {
        const Metric& m = *r.metric;
        std::string key = key_of(m.counter);
        double x = r.numeric && std::isfinite(r.number) ? r.number : 0;
        if (m.is_process) {
            v.has_processes = true;
            add_process_reading(procs[m.pid], m, key, r, x);
        } else if (m.klass == "Cpu") {
            set_split(m.instance.empty() ? v.cpu : processors[std::atoi(m.instance.c_str())], key,
                      x);
        } else if (m.klass == "Disk") {
            disks[m.instance].name = m.instance;
            add_disk_reading(disks[m.instance], key, x);
        } else if (m.klass == "FileSystem") {
            filesystems[m.instance].mount = m.instance;
            add_fs_reading(filesystems[m.instance], key, x);
        } else {
            add_host_reading(v, key, x);
        }
    }
    // Blocks reserved for root count neither as used nor as available, as df counts them.
    for (auto& [mount, f] : filesystems)
        if (f.has_used && f.used + f.available > 0) f.pct_used = 100 * f.used / (f.used + f.available);
    for (auto& [name, d] : disks) {
        d.ops /= v.seconds;
        d.bytes /= v.seconds;
    }
    order_rows(v, processors, disks, filesystems, procs);
    return v;
}

std::vector<ProcRow> shown_processes(const HostView& view, const ViewOptions& options) {
    std::vector<ProcRow> rows;
    for (const ProcRow& p : view.processes)
        if (options.filter.empty() || p.name.find(options.filter) != std::string::npos ||
            p.user.find(options.filter) != std::string::npos ||
            std::to_string(p.pid).find(options.filter) != std::string::npos)
            rows.push_back(p);
    sort_processes(rows, options.sort);
    if (options.reverse) std::reverse(rows.begin(), rows.end());
    return rows;
}

// Mounts with no blocks and those under /proc, /sys, /dev and /run hold no user data.
std::vector<FsRow> shown_filesystems(const HostView& view, const ViewOptions& options) {
    std::vector<FsRow> rows;
    for (const FsRow& f : view.filesystems)
        if (options.all_filesystems || !is_pseudo_filesystem(f.mount, f.total)) rows.push_back(f);
    return rows;
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

std::string process_columns() {
    return fmt::format("{:>8} {:<10}{:>6}{:>6}{:>6}{:>9}{:>9}  NAME", "PID", "USER", "%CPU", "%USR",
                       "%SYS", "RSS", "IO/S");
}

std::string process_line(const ProcRow& p) {
    return fmt::format("{:>8} {:<10}{:>6.1f}{:>6.1f}{:>6.1f}{:>9}{:>9}  {}", p.pid, cut(p.user, 9),
                       p.cpu, p.user_cpu, p.sys_cpu, human_bytes(p.rss_kb * 1024),
                       human_bytes(p.io), p.name.empty() ? "?" : p.name);
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

namespace {

// The lines of a view being laid out, each cut to the width.
struct Layout {
    std::vector<ViewLine> lines;
    std::size_t width;
    void add(ViewLine::Kind kind, std::string text, double bar = -1) {
        lines.push_back({kind, cut(std::move(text), width), bar, {}});
    }
};

void lay_cpu(Layout& l, const HostView& v) {
    l.add(ViewLine::kSection, "CPU");
    if (v.cpu.present)
        l.add(ViewLine::kText,
              fmt::format("  user {:5.1f}%  system {:5.1f}%  wait {:5.1f}%  idle {:5.1f}%  total "
                          "{:5.1f}%",
                          v.cpu.user, v.cpu.system, v.cpu.wait, v.cpu.idle, v.cpu.total));
    else
        l.add(ViewLine::kText, "  (no processor figures)");
    l.add(ViewLine::kSection, "Processors");
    for (const ProcessorRow& p : v.processors)
        l.add(ViewLine::kText,
              fmt::format("  cpu{:<3} {:5.1f}%  usr {:5.1f} sys {:5.1f} wait {:5.1f}", p.number,
                          p.split.total, p.split.user, p.split.system, p.split.wait),
              p.split.total);
    if (v.processors.empty()) l.add(ViewLine::kText, "  (no per-processor figures)");
}

void lay_memory(Layout& l, const MemoryView& m) {
    l.add(ViewLine::kSection, "Memory");
    if (!m.present) return l.add(ViewLine::kText, "  (no memory figures)");
    l.add(ViewLine::kText,
          fmt::format("  used {} of {} ({:.1f}%)  free {}", human_bytes(m.used_mb * 1048576),
                      human_bytes(m.total_mb * 1048576), m.util, human_bytes(m.free_mb * 1048576)));
    l.add(ViewLine::kText,
          fmt::format("  paging {}/s  major faults {}/s  paging IO {}/s", human_count(m.paging),
                      human_count(m.major), human_count(m.paging_io)));
}

void lay_disks(Layout& l, const std::vector<DiskRow>& disks) {
    l.add(ViewLine::kSection, "Disks");
    if (disks.empty()) return l.add(ViewLine::kText, "  (no disk figures)");
    l.add(ViewLine::kColumns, fmt::format("  {:<16}{:>9}{:>10}{:>6}{:>6}", "DEVICE", "OPS/S",
                                          "BYTES/S", "WAIT", "RUN"));
    for (std::size_t i = 0; i < disks.size() && i < 5; ++i) {
        const DiskRow& d = disks[i];
        l.add(ViewLine::kText,
              fmt::format("  {:<16}{:>9}{:>10}{:>6.0f}{:>6.0f}", cut(d.name, 15),
                          human_count(d.ops), human_bytes(d.bytes), d.waiting, d.running));
    }
}

void lay_filesystems(Layout& l, const std::vector<FsRow>& filesystems) {
    l.add(ViewLine::kSection, "File systems");
    if (filesystems.empty()) return l.add(ViewLine::kText, "  (no file-system figures)");
    // Sizes are statvfs block counts (fragment units), not the kilobytes their units say.
    l.add(ViewLine::kColumns,
          fmt::format("  {:<28}{:>7}{:>12}{:>12}", "MOUNT", "USED", "AVAIL BLK", "TOTAL BLK"));
    for (std::size_t i = 0; i < filesystems.size() && i < 8; ++i) {
        const FsRow& f = filesystems[i];
        l.add(ViewLine::kText,
              fmt::format("  {:<28}{:>7}{:>12.0f}{:>12.0f}", cut(f.mount, 27),
                          fmt::format("{:.1f}%", f.pct_used), f.available, f.total));
    }
}

void lay_network(Layout& l, const NetView& n) {
    l.add(ViewLine::kSection, "Network");
    if (!n.present) return l.add(ViewLine::kText, "  (no network figures)");
    l.add(
        ViewLine::kText,
        fmt::format("  TCP in {} seg/s  out {} seg/s  data in {}/s  out {}/s  retrans {}/s  "
                    "connections {}",
                    human_count(n.tcp_in), human_count(n.tcp_out), human_bytes(n.bytes_in),
                    human_bytes(n.bytes_out), human_count(n.retrans), human_count(n.connections)));
    l.add(ViewLine::kText,
          fmt::format("  UDP in {} dg/s  out {} dg/s   IP in {} pkt/s  out {} pkt/s",
                      human_count(n.udp_in), human_count(n.udp_out), human_count(n.ip_in),
                      human_count(n.ip_out)));
}

void lay_processes(Layout& l, const HostView& v, SortKey key, int max_processes) {
    if (!v.has_processes) return;
    l.add(ViewLine::kSection,
          fmt::format("Processes ({}, by {})", v.processes.size(), sort_key_name(key)));
    l.add(ViewLine::kColumns, process_columns());
    ViewOptions options;
    options.sort = key;
    std::vector<ProcRow> rows = shown_processes(v, options);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (max_processes >= 0 && static_cast<int>(i) >= max_processes) break;
        const ProcRow& p = rows[i];
        l.add(ViewLine::kText, process_line(p));
    }
}

}  // namespace

std::vector<ViewLine> layout_view(const HostView& v, const std::string& source, SortKey key,
                                  int width, int max_processes) {
    Layout l{{}, static_cast<std::size_t>(std::max(width, 20))};
    l.add(ViewLine::kTitle, fmt::format("vornmon {}  {}  packet {}  every {:.0f} s", source, v.time,
                                        v.packet, v.seconds));
    lay_cpu(l, v);
    lay_memory(l, v.memory);
    lay_disks(l, v.disks);
    lay_filesystems(l, shown_filesystems(v, ViewOptions{}));
    lay_network(l, v.net);
    lay_processes(l, v, key, max_processes);
    return l.lines;
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
