// Process lookup over /proc, used by status, stop and the lock file to tell whether an
// agent is alive. A process is known by what /proc/<pid> says of it: the pid recorded in
// its stat file, its short command name (the comm field of stat), its state (a zombie has
// ended, whatever its entry still shows) and its pid namespace, which plays the zone: a
// process in another namespace is never ours. Found by name alone, an agent counts only
// when it works in our install root.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent/rtdc_log.h"
#include "control/rta_cmdline.h"
#include "control/rta_priv.h"
#include "platform/linux/proc_file.h"
#include "platform/roots.h"

namespace {

struct ProcRecord {
    int pid = 0;
    char fname[64] = {};  // short command name; the kernel keeps at most 15 characters
    char state = '?';     // proc(5) state letter
    std::string ns;       // target of ns/pid, empty when it cannot be read
    int ns_depth = 0;     // fields of the NSpid line of status, 0 when there is none
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

// The NSpid line of status lists a process's pid in each namespace from the one /proc
// belongs to down to its own, so the number of fields is how deep it sits. Unlike ns/pid,
// which needs the right to trace the process, status is readable by everyone.
int read_ns_depth_at(int dirfd, const char* rel) {
    int fd = openat(dirfd, rel, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return 0;
    buf[n] = '\0';
    const char* line = strstr(buf, "\nNSpid:");
    if (!line) return 0;
    int depth = 0;
    for (const char* p = line + 7; *p && *p != '\n'; ++p)
        if ((*p == ' ' || *p == '\t') && p[1] >= '0' && p[1] <= '9') ++depth;
    return depth;
}

struct Zone {
    std::string ns;
    int ns_depth = 0;
};

Zone caller_zone() {
    const std::string& proc = platform::roots().own_proc;
    return {read_ns_at(AT_FDCWD, (proc + "/self/ns/pid").c_str()),
            read_ns_depth_at(AT_FDCWD, (proc + "/self/status").c_str())};
}

// The namespace links are compared when both can be read, else the depths. When neither
// can (an older kernel, a captured tree) the process is taken to be in our namespace.
bool same_ns(const Zone& mine, const ProcRecord& rec) {
    if (!mine.ns.empty() && !rec.ns.empty()) return mine.ns == rec.ns;
    if (mine.ns_depth > 0 && rec.ns_depth > 0) return mine.ns_depth == rec.ns_depth;
    return true;
}

// A zombie, or a process being torn down, is no longer running.
bool has_ended(const ProcRecord& rec) {
    return rec.state == 'Z' || rec.state == 'X' || rec.state == 'x';
}

// Where our install root lies, as the kernel would show it as a working directory; empty
// when no root is set (then any is accepted).
std::string own_root() {
    if (rta_cmdline.install_dir[0] == '\0') return {};
    char resolved[PATH_MAX];
    return realpath(rta_cmdline.install_dir, resolved) ? resolved : rta_cmdline.install_dir;
}

// An agent changes into its install root at start, so its working directory tells which
// root it serves. One whose directory we may not read is not taken for ours.
bool works_in(const std::string& dir, const std::string& root) {
    if (root.empty()) return true;
    const std::string link = dir + "/cwd";
    char buf[PATH_MAX];
    ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
    return n > 0 && std::string(buf, static_cast<size_t>(n)) == root;
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
    platform::procfs::copy_name(rec->fname, sizeof rec->fname,
                                std::string_view(open + 1, static_cast<size_t>(close - open - 1)));
    const char* end = buf + len;
    rec->state = close + 2 < end && close[1] == ' ' ? close[2] : '?';
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
            if (rec->ns.empty()) rec->ns_depth = read_ns_depth_at(dfd, "status");
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
    const std::string& root = platform::roots().own_proc;
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
bool matches_within(const ProcRecord& rec, const Zone& mine, const char* name, int pid) {
    return rec.fname[0] != '\0' && rec.pid == pid && !has_ended(rec) && same_ns(mine, rec) &&
           strstr(name, rec.fname) != nullptr;
}

// find_process_by_name's test: the short name is exactly the name.
bool matches_exactly(const ProcRecord& rec, const Zone& mine, const char* name) {
    return rec.fname[0] != '\0' && !has_ended(rec) && same_ns(mine, rec) &&
           strcmp(rec.fname, name) == 0;
}

int find_by_name(const char* name, int own_pid, bool exclude_own, int verbose) {
    if (!name) return 0;
    const Zone mine = caller_zone();
    const std::string root = own_root();
    priv_on();
    int found = 0;
    bool opened = scan_proc([&](const std::string& dir, const ProcRecord& rec, const ReadOutcome& out) {
        if (out.stage != Stage::ok) {
            if (verbose)
                rtdc_logf("findproc :  unable to read from %s, %s\n", dir.c_str(), strerror(out.err));
            return false;
        }
        if (!matches_exactly(rec, mine, name)) return false;
        if (exclude_own && rec.pid == own_pid) return false;
        if (!works_in(dir, root)) return false;
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
    const Zone mine = caller_zone();
    priv_on();

    // The recorded pid first: almost always the answer.
    const std::string path = platform::roots().own_proc + "/" + std::to_string(pid);
    ProcRecord rec;
    ReadOutcome out = read_record(path, &rec);
    if (out.stage == Stage::ok && matches_within(rec, mine, name, pid)) {
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
        if (!matches_within(r, mine, name, pid)) return false;
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
