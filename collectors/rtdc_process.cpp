// The process class: every process under /proc becomes one instance named by its pid, with
// one data string per scan and, on a header pass, its process header lines. Records live in
// the process list between scans; a process enters the metric tree once, when first seen,
// and leaves it when it is gone.
#include "collectors/rtdc_process.h"

#include <cmath>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "agent/rtdc_log.h"
#include "collectors/rtdc_complain.h"
#include "collectors/rtdc_rate.h"
#include "control/rta_cmdline.h"
#include "packet/rtdc_output.h"
#include "packet/rtdc_state.h"

namespace {

// A live process's counters do not go backwards, but a wrapped or re-created one must not
// turn into a huge rate: the shared counter policy gives 0 for it.
constexpr auto delta = rtdc_counter_delta;
constexpr auto per_second = rtdc_per_second_ll;

double percent(uint64_t ticks, double capacity_ticks) {
    if (capacity_ticks <= 0) return 0.0;
    double p = static_cast<double>(ticks) / capacity_ticks * 100.0;
    return p > 100.0 ? 100.0 : p;
}

struct ScanState {
    ClassOutput* out = nullptr;
    bool report = false;  // false on a header pass: records are refreshed, nothing reported
    uint64_t hz = 100;
    int processors = 1;
    uint64_t cpu_ticks = 0;
    int32_t looked_up_pid = -1;  // find_item's last answer
    ProcListItem* looked_up = nullptr;
    // Processes to register in the metric tree once the dead have been taken out.
    std::vector<ProcessInfo*> unregistered;
    // Names whose tree node went this scan: the other processes of such a name lost their
    // instances with it and are registered again.
    std::unordered_set<std::string> dropped_names;
};

bool scanned_once = false;
ScanState state;
Complaint read_failures;

void take_out_of_tree(ProcessInfo& info, ScanState& s) {
    if (!info.in_tree) return;
    s.out->withdraw_process(info.name, info.record.pid);
    info.in_tree = 0;
    s.dropped_names.emplace(info.name);
}

void refresh_names(ProcessInfo& info, const platform::ProcessSample& sample, bool is_new) {
    if (is_new || sample.uid != info.uid) {
        info.uid = sample.uid;
        platform::user_name(sample.uid, info.record.user_name, sizeof info.record.user_name);
    }
    if (is_new || sample.tty_nr != info.tty_nr) {
        info.tty_nr = sample.tty_nr;
        platform::tty_name(sample.tty_nr, info.record.tty_name, sizeof info.record.tty_name);
    }
}

// The item of a pid, looked up once per process although both the reader's uid question
// and the visit need it.
ProcListItem* find_item(ScanState& s, int32_t pid) {
    if (s.looked_up_pid != pid) {
        s.looked_up_pid = pid;
        GetFromProcList(proc_list[GetIndex(pid)], pid, &s.looked_up);
    }
    return s.looked_up;
}

// The real uid is read from status once per process; after that only a change of its
// directory's owner (setuid, or turning non-dumpable) sends the reader back to status.
bool known_uid(const platform::ProcessSample& sample, uint32_t& uid, void* arg) {
    const ProcListItem* item = find_item(*static_cast<ScanState*>(arg), sample.pid);
    if (!item || item->info->start_time != sample.start_time ||
        item->info->owner != sample.owner)
        return false;
    uid = item->info->uid;
    return true;
}

void visit(const platform::ProcessSample& sample, void* arg) {
    auto& s = *static_cast<ScanState*>(arg);
    ProcListItem* item = find_item(s, sample.pid);
    s.looked_up_pid = -1;  // the item may be replaced below

    if (item && item->info->start_time != sample.start_time) {
        // The pid was reused: the process we knew is gone and this is another one.
        take_out_of_tree(*item->info, s);
        RemoveFromProcList(item);
        item = nullptr;
    }
    bool is_new = false;
    if (!item) {
        item = AddToProcList(sample.pid);
        if (!item) return;  // out of memory: this process is left out of this scan
        is_new = true;
        item->info->start_time = sample.start_time;
    }
    ProcessInfo& info = *item->info;
    item->seen = 1;
    info.owner = sample.owner;

    if (is_new || strcmp(info.name, sample.name) != 0) {
        // A new process, or one that exec'd another program: its instances belong under
        // the new name.
        take_out_of_tree(info, s);
        snprintf(info.name, sizeof info.name, "%s", sample.name);
    }
    if (!info.in_tree) s.unregistered.push_back(&info);

    refresh_names(info, sample, is_new);
    s.cpu_ticks += PerfProcess(info, sample, is_new, s.hz, s.processors);

    if (s.report) s.out->report_process(sample.pid, ProcessCounters, &info.record);
}

void on_gone(ProcessInfo* info, void* arg) {
    take_out_of_tree(*info, *static_cast<ScanState*>(arg));
}

void register_pending(ScanState& s) {
    if (!s.dropped_names.empty()) {
        // Survivors of a dropped name node: their instances went with it.
        for (List* list : proc_list) {
            if (!list) continue;
            for (ListItem* it = list->first; it; it = it->next) {
                auto* item = static_cast<ProcListItem*>(it->data);
                if (item && item->info->in_tree && s.dropped_names.count(item->info->name)) {
                    item->info->in_tree = 0;
                    s.unregistered.push_back(item->info);
                }
            }
        }
    }
    // Until a console has connected there is nowhere to register; retried next scan.
    for (ProcessInfo* info : s.unregistered) {
        if (info->in_tree) continue;
        if (s.out->register_process(info->name, info->record.pid, ProcessCounters,
                                    &info->record))
            info->in_tree = 1;
    }
}

// One pass over the processes; with `report` false only the records are refreshed.
int scan(ClassOutput& out, bool report) {
    ScanState& s = state;
    s.out = &out;
    s.report = report;
    s.hz = platform::clock_ticks_per_second();
    s.processors = platform::online_processors();
    s.cpu_ticks = 0;
    s.unregistered.clear();
    s.dropped_names.clear();
    s.looked_up_pid = -1;

    NullifyList();
    if (platform::read_processes(visit, &s, known_uid) < 0) {
        // Keep what we know: sweeping now would report every process as gone.
        read_failures.fail("VORNRTA-E-PROC: cannot list the process directory\n");
        return 0;
    }
    read_failures.ok();
    scanned_once = true;
    SweepUnseen(on_gone, &s);
    register_pending(s);
    // Processes that were never registered must not linger in the next scan's list.
    s.unregistered.clear();
    TotalCpuTime.fetch_add(s.cpu_ticks, std::memory_order_relaxed);
    return 1;
}

}  // namespace

uint64_t PerfProcess(ProcessInfo& info, const platform::ProcessSample& sample, bool is_new,
                     uint64_t ticks_per_second, int processors) {
    ProcessRecord& r = info.record;
    r.pid = sample.pid;
    r.ppid = sample.ppid;
    r.rss_kb = sample.rss_kb;
    r.priority = static_cast<int32_t>(sample.priority);
    // No Linux counterpart: traps are not counted per process, and processes are not
    // swapped out whole.
    r.trap_rate = 0.0;
    r.swaps = 0;

    const uint64_t chars = sample.rchar + sample.wchar;
    const uint64_t calls = sample.syscr + sample.syscw;
    const uint64_t blocks_in = sample.read_bytes / 512;
    const uint64_t blocks_out = sample.write_bytes / 512;

    double seconds;
    if (is_new) {
        // First sight: everything the process did since it started, over its lifetime.
        seconds = sample.sampled_at -
                  static_cast<double>(sample.start_time) / static_cast<double>(ticks_per_second);
        info.base_user = info.base_sys = info.base_minflt = info.base_majflt = 0;
        info.base_chars = info.base_calls = info.base_blocks_in = info.base_blocks_out = 0;
    } else {
        seconds = sample.sampled_at - info.base_time;
        if (seconds < kMinRateSeconds) return 0;
    }

    const uint64_t du = delta(sample.utime, info.base_user);
    const uint64_t ds = delta(sample.stime, info.base_sys);
    const double capacity =
        seconds * static_cast<double>(ticks_per_second) * (processors > 0 ? processors : 1);
    r.cpu_pct = percent(du + ds, capacity);
    r.user_pct = percent(du, capacity);
    r.sys_pct = percent(ds, capacity);
    r.minor_faults = per_second(delta(sample.minflt, info.base_minflt), seconds);
    r.major_faults = per_second(delta(sample.majflt, info.base_majflt), seconds);
    r.io_chars = per_second(delta(chars, info.base_chars), seconds);
    r.syscalls = per_second(delta(calls, info.base_calls), seconds);
    r.blocks_in = per_second(delta(blocks_in, info.base_blocks_in), seconds);
    r.blocks_out = per_second(delta(blocks_out, info.base_blocks_out), seconds);

    info.base_time = sample.sampled_at;
    info.base_user = sample.utime;
    info.base_sys = sample.stime;
    info.base_minflt = sample.minflt;
    info.base_majflt = sample.majflt;
    info.base_chars = chars;
    info.base_calls = calls;
    info.base_blocks_in = blocks_in;
    info.base_blocks_out = blocks_out;
    return is_new ? 0 : du + ds;
}

void rtdc_process_reset() {
    deleteProcessList();
    scanned_once = false;
}

int GetProcessClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers,
                        int header_flag, int) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_process(out, header_flag);
}

int rtdc_collect_process(ClassOutput& out, int header_flag) {
    if (!rta_cmdline.class_process) return 1;
    if (header_flag) {
        // The console learns a process from its header lines, so the list must hold the
        // processes of now before the first header pass.
        if (!scanned_once) scan(out, false);
        GenProcessHeader(out);
        return 1;
    }
    return scan(out, true);
}
