// Per-process counters from /proc/<pid>/{stat,statm,io}, and status for the real uid.
//
// Cost matters here: with thousands of processes this is most of a scan, nearly all of it
// in the kernel, so what counts is how many files are opened. Each file is opened relative
// to the proc root's descriptor, read once into a buffer on this function's stack and
// closed at once, so nothing outlives the scan. status, the dearest file, is read only when
// the caller does not already know the uid.
#include "platform/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/linux/proc_file.h"
#include "platform/roots.h"

namespace platform {
namespace {

using procfs::copy_field;
using procfs::parse_u64;

// stat is well under 1 KiB; status is about 1.5 KiB and the real uid sits in its first
// dozen lines, so a longer status (huge supplementary group lists) cut here loses nothing.
constexpr size_t kReadBuffer = 8192;

// Opens `name` below `dirfd`, reads it with one call and closes it. The length read, or -1
// with errno set. The kernel builds these files whole on the first read.
ssize_t read_small(int dirfd, const char* name, char* buf, size_t cap) {
    int fd = ::openat(dirfd, name, O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return -1;
    ssize_t n;
    do {
        n = ::read(fd, buf, cap);
    } while (n < 0 && errno == EINTR);
    int saved = errno;
    ::close(fd);
    errno = saved;
    return n;
}

// A decimal number at `p` (optionally negative) ending at a blank, a line end or `end`.
// Advances `p` past the number. False on no digits, overflow or a stray character: these
// files are the kernel's, but a parser never trusts its input.
bool take_number(const char*& p, const char* end, int64_t& value) {
    bool negative = p < end && *p == '-';
    if (negative) ++p;
    const char* first = p;
    int64_t v = 0;
    while (p < end && *p >= '0' && *p <= '9') {
        // A constant bound (no division per digit); it gives up only the top few values
        // below INT64_MAX, which no counter reaches.
        if (v > (INT64_MAX - 9) / 10) return false;
        v = v * 10 + (*p - '0');
        ++p;
    }
    if (p == first || (p < end && *p != ' ' && *p != '\n' && *p != '\t')) return false;
    value = negative ? -v : v;
    return true;
}

// proc(5) stat: "pid (comm) state ppid pgrp session tty_nr tpgid flags minflt cminflt
// majflt cmajflt utime stime cutime cstime priority nice num_threads itrealvalue starttime
// vsize rss ...". The name may hold blanks and parentheses of its own, so it runs from the
// first '(' to the LAST ')'. Fields are counted as proc(5) counts them.
bool parse_stat(std::string_view text, ProcessSample& out, int64_t page_kb) {
    const auto* open = static_cast<const char*>(memchr(text.data(), '(', text.size()));
    const auto* close = static_cast<const char*>(memrchr(text.data(), ')', text.size()));
    if (!open || !close || close < open) return false;
    procfs::copy_name(out.name, sizeof out.name,
                      std::string_view(open + 1, static_cast<size_t>(close - open - 1)));

    const char* p = close + 1;
    const char* const end = text.data() + text.size();
    int64_t v = 0;
    for (int field = 3; field <= 24; ++field) {
        if (p >= end || *p != ' ') return false;
        ++p;
        switch (field) {
            case 4:
            case 7:
            case 10:
            case 12:
            case 14:
            case 15:
            case 18:
            case 22:
            case 24:
                if (!take_number(p, end, v)) return false;
                break;
            default:  // a field we do not use: skip it
                while (p < end && *p != ' ' && *p != '\n') ++p;
                continue;
        }
        switch (field) {
            case 4:
                out.ppid = static_cast<int32_t>(v);
                break;
            case 7:
                out.tty_nr = static_cast<int32_t>(v);
                break;
            case 10:
                out.minflt = static_cast<uint64_t>(v);
                break;
            case 12:
                out.majflt = static_cast<uint64_t>(v);
                break;
            case 14:
                out.utime = static_cast<uint64_t>(v);
                break;
            case 15:
                out.stime = static_cast<uint64_t>(v);
                break;
            case 18:
                out.priority = v;
                break;
            case 22:
                out.start_time = static_cast<uint64_t>(v);
                break;
            // rss is signed in the kernel's print and can read -1 transiently; a
            // nonsense page count saturates instead of overflowing the product.
            default:
                out.rss_kb = v <= 0 ? 0 : v > INT64_MAX / page_kb ? INT64_MAX : v * page_kb;
                break;
        }
    }
    return true;
}

// statm: "size resident shared text lib data dt", in pages. The kernel sums its per-CPU
// counters for this file (as for status), while stat's rss may lag by many pages on a
// multi-processor host; statm is what ps shows.
bool parse_statm_resident(std::string_view text, int64_t& rss_kb, int64_t page_kb) {
    const char* p = text.data();
    const char* const end = p + text.size();
    int64_t size, resident;
    if (!take_number(p, end, size) || p >= end || *p != ' ') return false;
    ++p;
    if (!take_number(p, end, resident) || resident < 0) return false;
    rss_kb = resident > INT64_MAX / page_kb ? INT64_MAX : resident * page_kb;
    return true;
}

// The next line start after `p`, or `end`.
const char* next_line_start(const char* p, const char* end) {
    const void* nl = memchr(p, '\n', static_cast<size_t>(end - p));
    return nl ? static_cast<const char*>(nl) + 1 : end;
}

// status: "Uid:\treal\teffective\tsaved\tfs", about the ninth line.
bool parse_status_uid(std::string_view text, uint32_t& uid) {
    const char* const end = text.data() + text.size();
    for (const char* p = text.data(); p < end; p = next_line_start(p, end)) {
        if (end - p < 5 || memcmp(p, "Uid:", 4) != 0) continue;
        p += 4;
        while (p < end && (*p == '\t' || *p == ' ')) ++p;
        int64_t value;
        if (!take_number(p, end, value) || value < 0 || value > UINT32_MAX) return false;
        uid = static_cast<uint32_t>(value);
        return true;
    }
    return false;
}

// io: "name: value" lines, read by name since the set of lines differs between kernels.
void parse_io(std::string_view text, ProcessSample& out) {
    struct Key {
        const char* name;
        size_t len;
        uint64_t ProcessSample::*field;
    };
    static constexpr Key kKeys[] = {
        {"rchar", 5, &ProcessSample::rchar},
        {"wchar", 5, &ProcessSample::wchar},
        {"syscr", 5, &ProcessSample::syscr},
        {"syscw", 5, &ProcessSample::syscw},
        {"read_bytes", 10, &ProcessSample::read_bytes},
        {"write_bytes", 11, &ProcessSample::write_bytes},
    };
    const char* const end = text.data() + text.size();
    for (const char* p = text.data(); p < end; p = next_line_start(p, end)) {
        const char* colon = p;
        while (colon < end && *colon != ':' && *colon != '\n') ++colon;
        if (colon >= end || *colon != ':') continue;
        const size_t len = static_cast<size_t>(colon - p);
        for (const Key& key : kKeys) {
            if (key.len != len || memcmp(p, key.name, len) != 0) continue;
            const char* q = colon + 1;
            while (q < end && *q == ' ') ++q;
            int64_t value;
            if (take_number(q, end, value) && value >= 0)
                out.*key.field = static_cast<uint64_t>(value);
            break;
        }
    }
}

int64_t page_kilobytes() {
    static const int64_t kb = [] {
        long size = sysconf(_SC_PAGESIZE);
        return static_cast<int64_t>(size > 0 ? size / 1024 : 4);
    }();
    return kb;
}

// The files of one process, named relative to the proc root's descriptor ("1234/stat"):
// one path walk each instead of a descriptor for the process's directory, which would cost
// an open and a close more per process. Its files cannot mix two processes: a pid is
// handed out again only after the kernel has gone round all the others.
class ProcessFiles {
  public:
    ProcessFiles(int procfd, const char* pid_text) : procfd_(procfd) {
        const size_t n = strnlen(pid_text, kPidText);
        memcpy(path_, pid_text, n);
        path_[n] = '\0';
        file_ = path_ + n;
    }
    // The directory's owner: its process's effective uid, or root once it is non-dumpable.
    bool owner(uint32_t& uid) const {
        *file_ = '\0';
        struct stat st;
        if (::fstatat(procfd_, path_, &st, 0) != 0) return false;
        uid = st.st_uid;
        return true;
    }
    ssize_t read(const char* name, char* buf) const {
        const size_t len = strlen(name);
        file_[0] = '/';
        memcpy(file_ + 1, name, len + 1);
        return read_small(procfd_, path_, buf, kReadBuffer);
    }

  private:
    static constexpr size_t kPidText = 12;  // "2147483647" and room to spare
    int procfd_;
    mutable char path_[kPidText + 16];  // "<pid>/<file>": the longest file is "status"
    char* file_;
};

// Reads one process. False when it is gone (or its stat is not a stat file).
bool read_one(const ProcessFiles& files, int32_t pid, ProcessSample& out, char* buf,
              KnownUid known_uid, void* arg) {
    out = ProcessSample{};
    out.pid = pid;
    if (!files.owner(out.owner)) return false;
    ssize_t n = files.read("stat", buf);
    if (n <= 0) return false;
    out.sampled_at = seconds_since_boot();
    if (!parse_stat(std::string_view(buf, static_cast<size_t>(n)), out, page_kilobytes()))
        return false;
    // Without statm (gone since stat was read, or a kernel that lacks it) stat's figure is
    // the best there is.
    n = files.read("statm", buf);
    if (n > 0)
        parse_statm_resident(std::string_view(buf, static_cast<size_t>(n)), out.rss_kb,
                             page_kilobytes());

    if (!known_uid || !known_uid(out, out.uid, arg)) {
        n = files.read("status", buf);
        if (n <= 0 || !parse_status_uid(std::string_view(buf, static_cast<size_t>(n)), out.uid))
            return false;
    }

    // An io file that cannot be read leaves the process in the scan with no I/O figures:
    // EACCES for another user's process when ptrace-level access is missing, ENOENT on
    // kernels without I/O accounting.
    n = files.read("io", buf);
    if (n > 0) {
        out.has_io = true;
        parse_io(std::string_view(buf, static_cast<size_t>(n)), out);
    }
    return true;
}

bool parse_pid(const char* name, int32_t& pid) {
    if (*name < '1' || *name > '9') return false;
    int64_t v = 0;
    for (const char* p = name; *p; ++p) {
        if (*p < '0' || *p > '9' || v > INT32_MAX / 10) return false;
        v = v * 10 + (*p - '0');
    }
    if (v > INT32_MAX) return false;
    pid = static_cast<int32_t>(v);
    return true;
}

struct UserCache {
    std::mutex lock;
    std::unordered_map<uint32_t, std::string> names;
};

UserCache& user_cache() {
    static UserCache cache;
    return cache;
}

}  // namespace

int read_processes(ProcessVisitor visit, void* arg, KnownUid known_uid) {
    DIR* dir = ::opendir(roots().proc.c_str());
    if (!dir) return -1;
    const int procfd = ::dirfd(dir);
    char buf[kReadBuffer];
    ProcessSample sample;
    int visited = 0;
    while (dirent* entry = ::readdir(dir)) {
        int32_t pid;
        if (!parse_pid(entry->d_name, pid)) continue;
        // A process that exited since the directory was listed fails one of its reads.
        if (!read_one(ProcessFiles(procfd, entry->d_name), pid, sample, buf, known_uid, arg))
            continue;
        visit(sample, arg);
        ++visited;
    }
    ::closedir(dir);
    return visited;
}

bool read_process(int32_t pid, ProcessSample& out) {
    if (pid <= 0) return false;
    int procfd = ::open(roots().proc.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procfd < 0) return false;
    char pid_text[16];
    snprintf(pid_text, sizeof pid_text, "%d", pid);
    char buf[kReadBuffer];
    bool ok = read_one(ProcessFiles(procfd, pid_text), pid, out, buf, nullptr, nullptr);
    ::close(procfd);
    return ok;
}

uint64_t clock_ticks_per_second() {
    static const uint64_t hz = [] {
        long v = sysconf(_SC_CLK_TCK);
        return static_cast<uint64_t>(v > 0 ? v : 100);
    }();
    return hz;
}

int online_processors() {
    // "0-3,6,8-9": ranges and single numbers separated by commas.
    std::string path = roots().sys + "/devices/system/cpu/online";
    char text[1024];
    int count = 0;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = ::read(fd, text, sizeof text - 1);
        ::close(fd);
        if (n > 0) {
            std::string_view list(text, static_cast<size_t>(n));
            while (!list.empty()) {
                size_t comma = list.find(',');
                std::string_view item = list.substr(0, comma);
                list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
                while (!item.empty() && (item.back() == '\n' || item.back() == ' '))
                    item.remove_suffix(1);
                size_t dash = item.find('-');
                uint64_t lo, hi;
                if (dash == std::string_view::npos) {
                    if (parse_u64(item, lo)) ++count;
                } else if (parse_u64(item.substr(0, dash), lo) &&
                           parse_u64(item.substr(dash + 1), hi) && hi >= lo && hi - lo < 65536) {
                    count += static_cast<int>(hi - lo + 1);
                }
            }
        }
    }
    if (count > 0) return count;
    long onln = sysconf(_SC_NPROCESSORS_ONLN);
    return onln > 0 ? static_cast<int>(onln) : 1;
}

void user_name(uint32_t uid, char* out, size_t size) {
    UserCache& cache = user_cache();
    std::lock_guard<std::mutex> hold(cache.lock);
    auto it = cache.names.find(uid);
    if (it == cache.names.end()) {
        std::string name;
        passwd entry{};
        passwd* found = nullptr;
        char pwbuf[4096];
        if (getpwuid_r(uid, &entry, pwbuf, sizeof pwbuf, &found) == 0 && found && found->pw_name &&
            *found->pw_name) {
            name = procfs::clean_name(found->pw_name);
        } else {
            name = std::to_string(uid);
        }
        it = cache.names.emplace(uid, std::move(name)).first;
    }
    copy_field(out, size, it->second);
}

void tty_name(int32_t tty_nr, char* out, size_t size) {
    if (size == 0) return;
    if (tty_nr == 0) {
        copy_field(out, size, "?");
        return;
    }
    // The kernel prints tty_nr as new_encode_dev(): major in bits 8-19, minor in bits
    // 0-7 and 20-31.
    const auto dev = static_cast<uint32_t>(tty_nr);
    const unsigned major_nr = (dev >> 8) & 0xfffu;
    const unsigned minor_nr = (dev & 0xffu) | ((dev >> 12) & 0xfff00u);
    if (major_nr >= 136 && major_nr <= 143)  // Unix98 pseudo-terminals
        snprintf(out, size, "pts/%u", (major_nr - 136) * 256 + minor_nr);
    else if (major_nr == 4 && minor_nr < 64)
        snprintf(out, size, "tty%u", minor_nr);
    else if (major_nr == 4)
        snprintf(out, size, "ttyS%u", minor_nr - 64);
    else if (major_nr == 5 && minor_nr == 1)
        copy_field(out, size, "console");
    else if (major_nr == 5 && minor_nr == 0)
        copy_field(out, size, "tty");
    else
        snprintf(out, size, "%u,%u", major_nr, minor_nr);
}

}  // namespace platform
