// The live view of `vornmon top`: one sample turned into the figures a person looks at
// (processor split, processors, memory and paging, disks, file systems, network,
// processes), and laid out as lines for a terminal or for plain text.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "console/vm_model.h"
#include "console/vm_requests.h"

namespace vornmon {

struct CpuSplit {
    bool present = false;
    double user = 0, system = 0, wait = 0, idle = 0, total = 0;
};

struct ProcessorRow {
    int number = 0;
    CpuSplit split;
};

struct MemoryView {
    bool present = false;
    double total_mb = 0, used_mb = 0, free_mb = 0, util = 0;
    double paging = 0, major = 0, paging_io = 0;
};

struct DiskRow {
    std::string name;
    double ops = 0, bytes = 0;  // per second
    double waiting = 0, running = 0;
};

struct FsRow {
    std::string mount;
    double pct_used = 0;  // as df counts it: used / (used + available)
    double available = 0, used = 0, total = 0;  // blocks
    bool has_used = false;
};

struct NetView {
    bool present = false;
    double tcp_in = 0, tcp_out = 0, bytes_in = 0, bytes_out = 0, retrans = 0, connections = 0;
    double udp_in = 0, udp_out = 0, ip_in = 0, ip_out = 0;
};

struct ProcRow {
    long pid = 0;
    long ppid = 0;
    std::string name, user;
    double cpu = 0, user_cpu = 0, sys_cpu = 0, rss_kb = 0, io = 0, major = 0;
};

struct HostView {
    long packet = 0;
    std::string time;
    int interval = 0;
    double seconds = 0;  // the time the figures cover
    CpuSplit cpu;
    std::vector<ProcessorRow> processors;
    MemoryView memory;
    std::vector<DiskRow> disks;      // busiest first
    std::vector<FsRow> filesystems;  // fullest first
    NetView net;
    bool has_processes = false;
    std::vector<ProcRow> processes;
};

/// The time each measurement of a connection covers. The interval a packet prints is only a
/// label (the agent scans at its own pace), so it stands in for the first measurement alone;
/// later ones are timed from the one before.
class IntervalClock {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    void connection_started() { last_.reset(); }
    /// Seconds covered by a measurement that arrives at `now`.
    double measured(int printed, TimePoint now);

  private:
    std::optional<TimePoint> last_;
};

/// Builds the view from one decoded data packet covering `seconds` (the interval the packet
/// prints when not positive). The agent counts disk work per interval; the view shows it per
/// second.
HostView build_view(const Sample& sample, double seconds = 0);

enum class SortKey { kCpu, kMemory, kPid, kName, kIo };
const char* sort_key_name(SortKey key);
void sort_processes(std::vector<ProcRow>& rows, SortKey key);

/// How a person asked to see the view.
struct ViewOptions {
    SortKey sort = SortKey::kCpu;
    bool reverse = false;
    std::string filter;            // keep processes whose pid, name or user holds it
    bool all_filesystems = false;  // pseudo file systems (/proc, /sys, ...) are hidden unless set
};

/// The process rows to show: filtered, sorted, reversed when asked.
std::vector<ProcRow> shown_processes(const HostView& view, const ViewOptions& options);
/// The file-system rows to show, fullest first.
std::vector<FsRow> shown_filesystems(const HostView& view, const ViewOptions& options);

/// A line of the laid-out view; `kind` lets a terminal colour it.
struct ViewLine {
    enum Kind { kTitle, kSection, kColumns, kText, kAlert } kind = kText;
    std::string text;
    double bar = -1;  // utilisation 0..100 to draw as a bar after the text
    CpuSplit modes;   // processor rows: the bar split by mode (present when known)
};

/// Lays the view out for `width` columns. Processes are limited to `max_processes`
/// rows (all when negative).
std::vector<ViewLine> layout_view(const HostView& view, const std::string& source, SortKey key,
                                  int width, int max_processes);
/// The live screen: `height` lines at most, the summary condensed so that at least ten
/// process rows fit on a 24-line terminal; the rules `firing` get a panel above the
/// processes; the process rows start `scroll` rows down.
std::vector<ViewLine> layout_screen(const HostView& view, const std::string& source,
                                    const ViewOptions& options,
                                    const std::vector<Alert>& firing, int width, int height,
                                    int scroll);
/// Plain text of a layout; processor bars drawn with '#'.
std::string render_text(const std::vector<ViewLine>& lines, int width);

/// The heading and one row of the process table.
std::string process_columns();
std::string process_line(const ProcRow& p);

/// Figures with k/M/G for rates and KiB/MiB/GiB for sizes, at most 6 characters.
std::string human_count(double value);
std::string human_bytes(double bytes);

}  // namespace vornmon
