// Raw per-process counters as the kernel keeps them: cumulative since the process started.
// The process collector turns them into rates and percentages; nothing here divides by time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

/// Longest process name kept. User processes carry at most 15 characters; kernel threads
/// (workqueue workers) may show longer names.
inline constexpr size_t kProcessNameMax = 64;

/// One process as read at one instant.
struct ProcessSample {
    int32_t pid;
    int32_t ppid;
    int32_t tty_nr;       // controlling terminal's device number, 0 when there is none
    uint32_t uid;         // real uid
    uint32_t owner;       // owner of the process's /proc directory (see KnownUid)
    uint64_t start_time;  // clock ticks after boot; with the pid it names one process
    double sampled_at;    // seconds_since_boot() when its stat file was read
    int64_t priority;     // the kernel's priority: 20 + nice, negative for real-time
    int64_t rss_kb;       // resident size as statm counts it (stat's figure lags on SMP)
    uint64_t utime, stime;  // clock ticks spent in user and in kernel mode
    uint64_t minflt, majflt;
    // /proc/<pid>/io. Another user's process is unreadable without the right capability,
    // and kernels built without I/O accounting have no such file: has_io is then false and
    // the six counters are 0.
    bool has_io;
    uint64_t rchar, wchar;             // bytes through read/write-like calls
    uint64_t syscr, syscw;             // read and write calls
    uint64_t read_bytes, write_bytes;  // bytes the process made storage fetch or write
    char name[kProcessNameMax];
};

using ProcessVisitor = void (*)(const ProcessSample& sample, void* arg);

/// Asked before a process's status file is read, with the sample's pid, start time and
/// owner filled in: true (and `uid` set) when the caller already holds the real uid of this
/// very process. The status file is the dearest of a process's files and only its uid is
/// wanted: a caller that keeps the uid with the start time and the owner reads status once
/// per process, and again only when the owner changes (setuid, or the process turning
/// non-dumpable). The directory's owner is the effective uid, not the real one, so it only
/// tells when to look again.
using KnownUid = bool (*)(const ProcessSample& sample, uint32_t& uid, void* arg);

/// Visits every process below the proc root in directory order. A process that exits
/// while it is being read (its directory listed but its stat or status gone) is skipped;
/// nothing is kept open or allocated once this returns. The number of processes visited,
/// or -1 (errno set) when the proc root cannot be listed. Without `known_uid` every
/// process's status is read.
int read_processes(ProcessVisitor visit, void* arg, KnownUid known_uid = nullptr);

/// Entries of the proc root, "." and ".." included, or -1 (errno set) when it cannot be
/// listed.
int count_proc_entries();

/// One process by pid; false when it does not exist (or vanished during the read).
bool read_process(int32_t pid, ProcessSample& out);

/// The unit of utime, stime and start_time.
uint64_t clock_ticks_per_second();

/// Online processors, from the sys root's devices/system/cpu/online list, else the C
/// library's count; at least 1. Process percentages are shares of all of them together.
int online_processors();

/// The user name of a uid through a cache that remembers misses too; a uid without a
/// passwd entry prints as its number. Cut to `size`, always NUL-terminated.
void user_name(uint32_t uid, char* out, size_t size);

/// Name of a terminal device number below /dev ("pts/3", "tty1", "ttyS0"), "?" for none.
void tty_name(int32_t tty_nr, char* out, size_t size);

}  // namespace platform
