// The live view of `vornmon top`: one sample turned into the figures a person looks at
// (processor split, processors, memory and paging, disks, file systems, network,
// processes), and laid out as lines for a terminal or for plain text.
#pragma once

#include <string>
#include <vector>

#include "console/vm_model.h"

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
    double ops = 0, bytes = 0;
    double waiting = 0, running = 0;
};

struct FsRow {
    std::string mount;
    double pct_used = 0, available = 0, total = 0;
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
    CpuSplit cpu;
    std::vector<ProcessorRow> processors;
    MemoryView memory;
    std::vector<DiskRow> disks;      // busiest first
    std::vector<FsRow> filesystems;  // fullest first
    NetView net;
    bool has_processes = false;
    std::vector<ProcRow> processes;
};

/// Builds the view from one decoded data packet.
HostView build_view(const Sample& sample);

enum class SortKey { kCpu, kMemory, kPid, kName, kIo };
const char* sort_key_name(SortKey key);
void sort_processes(std::vector<ProcRow>& rows, SortKey key);

/// A line of the laid-out view; `kind` lets a terminal colour it.
struct ViewLine {
    enum Kind { kTitle, kSection, kColumns, kText } kind = kText;
    std::string text;
    double bar = -1;  // processor rows: utilisation 0..100 to draw as a bar
};

/// Lays the view out for `width` columns. Processes are limited to `max_processes`
/// rows (all when negative).
std::vector<ViewLine> layout_view(const HostView& view, const std::string& source, SortKey key,
                                  int width, int max_processes);
/// Plain text of a layout; processor bars drawn with '#'.
std::string render_text(const std::vector<ViewLine>& lines, int width);

/// Figures with k/M/G for rates and KiB/MiB/GiB for sizes, at most 6 characters.
std::string human_count(double value);
std::string human_bytes(double bytes);

}  // namespace vornmon
