// The live screen of `vornmon top`: the summary condensed to a few lines so that the process
// table keeps most of a small terminal.
#include <fmt/format.h>

#include <algorithm>

#include "console/vm_view.h"

namespace vornmon {
namespace {

// A process table shorter than this is no use; the summary gives way first.
constexpr int kMinProcessRows = 10;
// Title, CPU, memory, disks and network always have their line.
constexpr int kFixedSummaryLines = 5;

struct Screen {
    std::vector<ViewLine> lines;
    std::size_t width;
    void add(ViewLine::Kind kind, std::string text, double bar = -1, CpuSplit modes = {}) {
        if (text.size() > width) text.resize(width);
        lines.push_back({kind, std::move(text), bar, modes});
    }
};

std::string percent(double v) {
    return fmt::format("{:.0f}%", v);
}

// One line per processor while they fit, each with its bar; otherwise packed side by side.
void screen_processors(Screen& s, const std::vector<ProcessorRow>& processors, int room) {
    if (static_cast<int>(processors.size()) <= room) {
        for (const ProcessorRow& p : processors)
            s.add(ViewLine::kText, fmt::format("cpu{:<3}{:>5.1f}%", p.number, p.split.total),
                  p.split.total, p.split);
        return;
    }
    std::string line;
    int lines = 0;
    for (const ProcessorRow& p : processors) {
        std::string cell = fmt::format("cpu{:<3}{:>5}  ", p.number, percent(p.split.total));
        if (line.size() + cell.size() > s.width) {
            if (++lines >= room) break;
            s.add(ViewLine::kText, line);
            line.clear();
        }
        line += cell;
    }
    if (!line.empty() && lines < room) s.add(ViewLine::kText, line);
}

void screen_summary(Screen& s, const HostView& v) {
    if (v.cpu.present)
        s.add(ViewLine::kText,
              fmt::format("CPU   usr {:4.1f}  sys {:4.1f}  wait {:4.1f}  total {:5.1f}%", v.cpu.user,
                          v.cpu.system, v.cpu.wait, v.cpu.total),
              v.cpu.total, v.cpu);
    else
        s.add(ViewLine::kText, "CPU   (no processor figures)");
    const MemoryView& m = v.memory;
    if (m.present)
        s.add(ViewLine::kText,
              fmt::format("Mem   {} of {}  paging {}/s  major {}/s", human_bytes(m.used_mb * 1048576),
                          human_bytes(m.total_mb * 1048576), human_count(m.paging),
                          human_count(m.major)),
              m.util);
    else
        s.add(ViewLine::kText, "Mem   (no memory figures)");
}

void screen_io(Screen& s, const HostView& v) {
    std::string disks = "Disk ";
    for (std::size_t i = 0; i < v.disks.size() && disks.size() < s.width; ++i)
        disks += fmt::format(" {} {} op/s {}/s ", v.disks[i].name, human_count(v.disks[i].ops),
                             human_bytes(v.disks[i].bytes));
    s.add(ViewLine::kText, v.disks.empty() ? "Disk  (no disk figures)" : disks);
    const NetView& n = v.net;
    s.add(ViewLine::kText,
          n.present ? fmt::format("Net   in {}/s out {}/s  seg in {}/s out {}/s  retrans {}/s",
                                  human_bytes(n.bytes_in), human_bytes(n.bytes_out),
                                  human_count(n.tcp_in), human_count(n.tcp_out),
                                  human_count(n.retrans))
                    : "Net   (no network figures)");
}

// As df shows them: the fullest first, with a bar of the space used.
void screen_filesystems(Screen& s, const std::vector<FsRow>& filesystems, int room) {
    for (int i = 0; i < room && i < static_cast<int>(filesystems.size()); ++i) {
        const FsRow& f = filesystems[static_cast<std::size_t>(i)];
        std::string mount = f.mount.size() > 20 ? "..." + f.mount.substr(f.mount.size() - 17)
                                                : f.mount;
        s.add(ViewLine::kText, fmt::format("FS    {:<20} {:>5}", mount, percent(f.pct_used)),
              f.pct_used);
    }
}

// One line per firing rule while there is room; the last line counts those left out.
void screen_alerts(Screen& s, const std::vector<Alert>& firing, int room) {
    for (int i = 0; i < room && i < static_cast<int>(firing.size()); ++i) {
        const Alert& a = firing[static_cast<std::size_t>(i)];
        int left = static_cast<int>(firing.size()) - i - 1;
        if (i == room - 1 && left > 0) {
            s.add(ViewLine::kAlert, fmt::format("ALERT {} and {} more firing", a.name, left));
            return;
        }
        s.add(ViewLine::kAlert,
              fmt::format("ALERT {}  {} {} {:.4g}  avg {:.4g}  since {}", a.name, a.path, a.condition,
                          a.limit, a.ave, a.raised));
    }
}

void screen_processes(Screen& s, const HostView& v, const ViewOptions& o, int height,
                      int scroll) {
    if (!v.has_processes) return;
    std::vector<ProcRow> rows = shown_processes(v, o);
    std::string title = fmt::format("Processes {} of {}, by {}{}", rows.size(), v.processes.size(),
                                    sort_key_name(o.sort), o.reverse ? " reversed" : "");
    if (!o.filter.empty()) title += ", filter '" + o.filter + "'";
    s.add(ViewLine::kSection, title);
    s.add(ViewLine::kColumns, process_columns());
    auto first = static_cast<std::size_t>(std::max(0, scroll));
    for (std::size_t i = first; i < rows.size() && static_cast<int>(s.lines.size()) < height; ++i)
        s.add(ViewLine::kText, process_line(rows[i]));
}

}  // namespace

std::vector<ViewLine> layout_screen(const HostView& v, const std::string& source,
                                    const ViewOptions& options, const std::vector<Alert>& firing,
                                    int width, int height, int scroll) {
    Screen s{{}, static_cast<std::size_t>(std::max(width, 20))};
    s.add(ViewLine::kTitle, fmt::format("vornmon {}  {}  packet {}  every {:.0f} s", source, v.time,
                                        v.packet, v.seconds));
    int table = v.has_processes ? kMinProcessRows + 2 : 0;
    int spare = std::max(0, height - table - kFixedSummaryLines);
    // Firing alerts matter more than the figures of every processor.
    int alert_room = std::min({static_cast<int>(firing.size()), 3, spare});
    spare -= alert_room;
    std::vector<FsRow> filesystems = shown_filesystems(v, options);
    int fs_room = std::min<int>(static_cast<int>(filesystems.size()), std::max(1, spare / 3));
    int cpu_room = std::max(1, spare - fs_room);
    screen_summary(s, v);
    screen_processors(s, v.processors, cpu_room);
    screen_io(s, v);
    // The processors may have left room for more file systems.
    fs_room = std::max(fs_room, height - table - alert_room - static_cast<int>(s.lines.size()));
    screen_filesystems(s, filesystems, fs_room);
    screen_alerts(s, firing, alert_room);
    screen_processes(s, v, options, height, scroll);
    return s.lines;
}

}  // namespace vornmon
