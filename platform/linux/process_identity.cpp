// Process identity from /proc/<pid>: stat for the recorded pid, name and state, ns/pid or
// the NSpid line of status for the namespace, and the cwd link.
#include "platform/process_identity.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/linux/proc_file.h"
#include "platform/roots.h"

namespace platform {
namespace {

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

// A zombie, or a process being torn down, is no longer running.
bool state_has_ended(char state) { return state == 'Z' || state == 'X' || state == 'x'; }

// Parses "pid (comm) state ...". The name may hold blanks and ')' itself, so it runs up to
// the last ')' of the text.
bool parse_stat(const char* buf, size_t len, ProcessIdentity* id) {
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
    procfs::copy_name(id->name, sizeof id->name,
                      std::string_view(open + 1, static_cast<size_t>(close - open - 1)));
    const char* end = buf + len;
    id->ended = state_has_ended(close + 2 < end && close[1] == ' ' ? close[2] : '?');
    id->pid = static_cast<int>(pid);
    return true;
}

IdentityRead read_entry(const std::string& dir, ProcessIdentity* id) {
    *id = ProcessIdentity{};
    id->entry = dir;
    IdentityRead out;
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return {IdentityRead::open_failed, errno};
    int fd = openat(dfd, "stat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        out = {IdentityRead::open_failed, errno};
        close(dfd);
        return out;
    }
    char buf[1024];
    size_t len = 0;
    while (len < sizeof buf) {
        ssize_t n = read(fd, buf + len, sizeof buf - len);
        if (n < 0) {
            if (errno == EINTR) continue;
            out = {IdentityRead::read_failed, errno};
            break;
        }
        if (n == 0) break;
        len += static_cast<size_t>(n);
    }
    close(fd);
    if (out.step == IdentityRead::ok) {
        if (len == 0) {
            out = {IdentityRead::read_failed, 0};
        } else if (!parse_stat(buf, len, id)) {
            *id = ProcessIdentity{};
            id->entry = dir;
        } else {
            id->zone.ns = read_ns_at(dfd, "ns/pid");
            if (id->zone.ns.empty()) id->zone.ns_depth = read_ns_depth_at(dfd, "status");
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

}  // namespace

bool IdentityRead::denied() const { return error == EACCES || error == EPERM; }

PidZone own_pid_zone() {
    const std::string& proc = roots().own_proc;
    return {read_ns_at(AT_FDCWD, (proc + "/self/ns/pid").c_str()),
            read_ns_depth_at(AT_FDCWD, (proc + "/self/status").c_str())};
}

IdentityRead read_process_identity(int pid, ProcessIdentity* out) {
    return read_entry(roots().own_proc + "/" + std::to_string(pid), out);
}

// Only numeric entries are processes; "self" and the like are skipped so that the caller
// is not met under a second name.
bool walk_process_identities(
    const std::function<bool(const ProcessIdentity&, const IdentityRead&)>& visit) {
    const std::string& root = roots().own_proc;
    DIR* d = opendir(root.c_str());
    if (!d) return false;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] == '.' || !is_pid_name(e->d_name)) continue;
        ProcessIdentity id;
        IdentityRead read = read_entry(root + "/" + e->d_name, &id);
        if (visit(id, read)) break;
    }
    closedir(d);
    return true;
}

bool read_working_dir(const ProcessIdentity& process, std::string* dir) {
    const std::string link = process.entry + "/cwd";
    char buf[PATH_MAX];
    ssize_t n = readlink(link.c_str(), buf, sizeof buf - 1);
    if (n <= 0) {
        if (n == 0) errno = ENOENT;
        return false;
    }
    dir->assign(buf, static_cast<size_t>(n));
    return true;
}

}  // namespace platform
