// Process lookup over /proc, used by status, stop and the lock file to tell whether an
// agent is alive. A process is known by three things from /proc/<pid>: the pid recorded in
// its stat file, its short command name (the comm field of stat) and its pid namespace,
// which plays the zone: a process in another namespace is never ours.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/rtdc_log.h"
#include "control/rta_priv.h"
#include "platform/roots.h"

namespace {

struct ProcRecord {
    int pid = 0;
    char fname[64] = {};  // short command name; the kernel keeps at most 15 characters
    std::string ns;       // target of ns/pid, empty when it cannot be read
};

enum class Stage { ok, open_failed, read_failed };

struct ReadOutcome {
    Stage stage = Stage::ok;
    int err = 0;
};

// Refusals that mean we lack the privilege to look, as opposed to a process that is gone.
bool is_denied(int err) { return err == EACCES || err == EPERM; }

std::string read_ns_at(int dirfd, const char* rel) {
    char buf[128];
    ssize_t n = readlinkat(dirfd, rel, buf, sizeof buf - 1);
    if (n <= 0) return {};
    return std::string(buf, static_cast<size_t>(n));
}

std::string caller_ns() {
    std::string self = platform::roots().proc + "/self/ns/pid";
    return read_ns_at(AT_FDCWD, self.c_str());
}

// When either side cannot be read (an older kernel, a captured tree) the process is
// taken to be in the caller's namespace.
bool same_ns(const std::string& mine, const std::string& theirs) {
    return mine.empty() || theirs.empty() || mine == theirs;
}

// Parses "pid (comm) state ...". The name may hold blanks and ')' itself, so it runs up to
// the last ')' of the text.
bool parse_stat(const char* buf, size_t len, ProcRecord* rec) {
    size_t i = 0;
    while (i < len && buf[i] == ' ') ++i;
    if (i >= len || buf[i] < '0' || buf[i] > '9') return false;
    long pid = 0;
    while (i < len && buf[i] >= '0' && buf[i] <= '9') {
        pid = pid * 10 + (buf[i] - '0');
        if (pid > 0x7fffffffL) return false;
        ++i;
    }
    const char* open = static_cast<const char*>(memchr(buf + i, '(', len - i));
    if (!open) return false;
    const char* close = static_cast<const char*>(memrchr(open, ')', len - static_cast<size_t>(open - buf)));
    if (!close) return false;
    size_t n = static_cast<size_t>(close - open - 1);
    if (n >= sizeof rec->fname) n = sizeof rec->fname - 1;
    memcpy(rec->fname, open + 1, n);
    rec->fname[n] = '\0';
    rec->pid = static_cast<int>(pid);
    return true;
}

// Reads the record of one /proc entry. An entry whose stat cannot be parsed counts as read
// but never matches (empty name, pid 0).
ReadOutcome read_record(const std::string& dir, ProcRecord* rec) {
    ReadOutcome out;
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) {
        out.stage = Stage::open_failed;
        out.err = errno;
        return out;
    }
    int fd = openat(dfd, "stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        out.stage = Stage::open_failed;
        out.err = errno;
        close(dfd);
        return out;
    }
    char buf[1024];
    size_t len = 0;
    while (len < sizeof buf) {
        ssize_t n = read(fd, buf + len, sizeof buf - len);
        if (n < 0) {
            if (errno == EINTR) continue;
            out.stage = Stage::read_failed;
            out.err = errno;
            break;
        }
        if (n == 0) break;
        len += static_cast<size_t>(n);
    }
    close(fd);
    if (out.stage == Stage::ok) {
        if (len == 0) {
            out.stage = Stage::read_failed;
            out.err = 0;
        } else if (!parse_stat(buf, len, rec)) {
            *rec = ProcRecord{};
        } else {
            rec->ns = read_ns_at(dfd, "ns/pid");
        }
    }
    close(dfd);
    return out;
}

bool is_pid_name(const char* name) {
    if (!*name) return false;
    for (const char* p = name; *p; ++p)
        if (*p < '0' || *p > '9') return false;
    return true;
}

// Calls visit(dir, record, outcome) for every process entry of the /proc root until it
// returns true. Only numeric entries are processes; "self" and the like are skipped so
// that the caller is not met under a second name. False when the root cannot be opened.
template <typename Visit>
bool scan_proc(Visit visit) {
    const std::string& root = platform::roots().proc;
    DIR* d = opendir(root.c_str());
    if (!d) return false;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] == '.' || !is_pid_name(e->d_name)) continue;
        std::string dir = root + "/" + e->d_name;
        ProcRecord rec;
        ReadOutcome out = read_record(dir, &rec);
        if (visit(dir, rec, out)) break;
    }
    closedir(d);
    return true;
}

// findproc's test: the record is the given pid, in our namespace, and its short name is a
// part of the name we look for (a short name cut by the kernel still matches).
bool matches_within(const ProcRecord& rec, const std::string& my_ns, const char* name, int pid) {
    return rec.fname[0] != '\0' && rec.pid == pid && same_ns(my_ns, rec.ns) &&
           strstr(name, rec.fname) != nullptr;
}

// find_process_by_name's test: the short name is exactly the name.
bool matches_exactly(const ProcRecord& rec, const std::string& my_ns, const char* name) {
    return rec.fname[0] != '\0' && same_ns(my_ns, rec.ns) && strcmp(rec.fname, name) == 0;
}

int find_by_name(const char* name, int own_pid, bool exclude_own, int verbose) {
    if (!name) return 0;
    const std::string my_ns = caller_ns();
    priv_on();
    int found = 0;
    bool opened = scan_proc([&](const std::string& dir, const ProcRecord& rec, const ReadOutcome& out) {
        if (out.stage != Stage::ok) {
            if (verbose)
                rtdc_logf("findproc :  unable to read from %s, %s\n", dir.c_str(), strerror(out.err));
            return false;
        }
        if (!matches_exactly(rec, my_ns, name)) return false;
        if (exclude_own && rec.pid == own_pid) return false;
        found = rec.pid;
        if (verbose) rtdc_logf("findproc : found  %s:%d\n", name, rec.pid);
        return true;
    });
    if (!opened) rtdc_logf("ERROR: findproc: Unable to open /proc : %s\n", strerror(errno));
    priv_off();
    return found;
}

}  // namespace

void findprocWriteLog(const char* text) { RTDCAppendLog(text); }

int findproc(const char* name, int pid, int verbose) {
    if (!name) return 0;
    const std::string my_ns = caller_ns();
    priv_on();

    // The recorded pid first: almost always the answer.
    const std::string path = platform::roots().proc + "/" + std::to_string(pid);
    ProcRecord rec;
    ReadOutcome out = read_record(path, &rec);
    if (out.stage == Stage::ok && matches_within(rec, my_ns, name, pid)) {
        if (verbose) rtdc_logf("findproc : match %s:%d  to  %s:%d\n", name, pid, rec.fname, rec.pid);
        priv_off();
        return 1;
    }
    if (out.stage == Stage::read_failed) {
        if (verbose)
            rtdc_logf("findproc: failed to read  %s : %s, %d\n", path.c_str(), strerror(out.err), out.err);
        if (is_denied(out.err)) {
            priv_off();
            return -1;
        }
    } else if (out.stage == Stage::open_failed && verbose) {
        rtdc_logf("findproc: failed to open %s : %s, %d\n", path.c_str(), strerror(out.err), out.err);
    }

    // Then every process whose record carries that pid.
    bool found = false;
    bool denied = out.stage != Stage::ok && is_denied(out.err);
    bool opened = scan_proc([&](const std::string&, const ProcRecord& r, const ReadOutcome& o) {
        if (o.stage != Stage::ok) {
            if (is_denied(o.err)) denied = true;
            return false;
        }
        if (!matches_within(r, my_ns, name, pid)) return false;
        if (verbose) rtdc_logf("findproc : match %s:%d  to  %s:%d\n", name, pid, r.fname, r.pid);
        found = true;
        return true;
    });
    if (!opened) {
        rtdc_logf("findproc: Unable to open /proc : %s\n", strerror(errno));
        priv_off();
        return -1;
    }
    priv_off();
    if (found) return 1;
    return denied ? -1 : 0;
}

int find_process_by_name(const char* name, int own_pid, int verbose) {
    return find_by_name(name, own_pid, true, verbose);
}

int findproc_nopid(const char* name, int verbose) { return find_by_name(name, 0, false, verbose); }
