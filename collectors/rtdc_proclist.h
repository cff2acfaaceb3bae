// The process collector's memory between scans: every process seen, in 64 buckets by pid.
#pragma once

#include <cstdint>

#include "agent/rtdc_list.h"
#include "collectors/rtdc_output.h"
#include "collectors/rtdc_tables.h"
#include "platform/process.h"

inline constexpr int kProcBuckets = 64;

/// What the collector keeps about one process. The metric tree's instances of this process
/// point at `record`, so a ProcessInfo never moves and is freed only after the process has
/// been taken out of the tree.
struct ProcessInfo {
    ProcessRecord record;  // the values the ProcessCounters rows point at
    char name[platform::kProcessNameMax];
    uint64_t start_time;  // with the pid, names one process: a reused pid is a new one
    uint32_t uid;         // the uid and terminal that user_name and tty_name were made from
    uint32_t owner;       // its /proc directory's owner when uid was read from status
    int32_t tty_nr;
    int32_t in_tree;  // 1 once AddProcessCounter took it
    // Cumulative counters at the start of the current rate interval.
    double base_time;  // seconds since boot
    uint64_t base_user, base_sys;
    uint64_t base_minflt, base_majflt;
    uint64_t base_chars, base_calls;
    uint64_t base_blocks_in, base_blocks_out;
};

/// One bucket item: the process's information record and the flag set when this scan saw it.
/// The item and its record are one allocation (`info` points just past the item), so the
/// free() that list destruction applies to item data releases both.
struct ProcListItem {
    ProcessInfo* info;
    int32_t seen;
};

extern List* proc_list[kProcBuckets];
extern int ResetForMaxProcesses;  // 1 once the table has been marked unseen

/// The bucket of a pid: pid % 64.
int GetIndex(int pid);
/// First item of `list` whose record has `pid`, or null.
void GetFromProcList(List* list, int pid, ProcListItem** item_out);
/// Clears every seen flag before a scan; sets ResetForMaxProcesses.
void NullifyList();
/// Announces every known process, bucket by bucket. Returns 1.
int GenProcessHeader(ClassOutput& out);
/// Destroys all 64 lists. Processes still registered in the metric tree are taken out of it
/// first, so no tree instance is left pointing at a freed record.
void deleteProcessList();
/// "process = %d: %s \n" for every known process on standard output.
void dumpprocesslist();

/// A new zeroed item with its record for `pid`, appended to the pid's bucket; null when
/// memory ran out.
ProcListItem* AddToProcList(int pid);
/// Unlinks an item from its bucket and frees it with its record. The caller has already
/// taken the process out of the tree.
void RemoveFromProcList(ProcListItem* item);
/// Calls `on_gone` for every item the scan did not see, then unlinks and frees it. The
/// number removed.
int SweepUnseen(void (*on_gone)(ProcessInfo* info, void* arg), void* arg);
/// Number of processes known.
int ProcListCount();
