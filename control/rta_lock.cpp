// The lock file that marks the one running agent of a host, and the -status and -stop
// actions that read it and confirm through /proc that the recorded process is alive.
#include "control/rta_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "control/rta_banner.h"
#include "control/rta_files.h"
#include "control/rta_priv.h"
#include "control/rta_text.h"

namespace {

using rta::copy_text;

void store_text(char* field, size_t cap, const char* value) { rta::copy_value(field, cap, value); }

// Verbose, alerts and processes take only 0 or 1; anything else leaves the field alone.
void store_switch(int* field, const char* value) {
    int v = atoi(value);
    if (v == 0 || v == 1) *field = v;
}

// Anything at the path counts, a dangling link included: it would block the new lock too.
bool file_exists(const char* path) {
    struct stat st;
    return lstat(path, &st) == 0;
}

// The lock file this agent published, known by its inode: a lock that someone replaced
// since (after deleting ours as stale) belongs to another agent and stays. The descriptor
// is held for the agent's life so that the inode number cannot pass to another file.
// The stop thread may read it while the start writes it: fd is published last.
struct OwnLock {
    std::atomic<int> fd{-1};
    dev_t dev = 0;
    ino_t ino = 0;
};
OwnLock own_lock;

}  // namespace

int rta_read_lockfile(const char* path, RtaLockInfo* info, int /*mode*/, int /*flag*/) {
    std::string problem;
    FILE* fp = rta_open_regular(path, &problem);
    if (!fp) {
        if (errno == ENOENT) return -1;
        // A FIFO or directory planted here is neither read nor waited on.
        if (errno == EINVAL)
            fprintf(stderr, "%s, lock file %s %s\n", kProgramName, path, problem.c_str());
        return 0;
    }

    int found = 0;
    // Lines are read in pieces of the line buffer's size; each piece is searched alone.
    while (fgets(info->line, sizeof info->line, fp)) {
        const char* line = info->line;
        const char* v;
        if ((v = strstr(line, "PID~"))) {
            info->pid = atoi(v + 4);
        } else if ((v = strstr(line, "STARTED~"))) {
            store_text(info->started, sizeof info->started, v + 8);
        } else if ((v = strstr(line, "VERSION~"))) {
            store_text(info->version, sizeof info->version, v + 8);
        } else if ((v = strstr(line, "INSTALL_DIR~"))) {
            store_text(info->install_dir, sizeof info->install_dir, v + 12);
        } else if ((v = strstr(line, "DATA_DIR~"))) {
            store_text(info->data_dir, sizeof info->data_dir, v + 9);
        } else if ((v = strstr(line, "LOG_DIR~"))) {
            store_text(info->log_dir, sizeof info->log_dir, v + 8);
        } else if ((v = strstr(line, "TEMP_DIR~"))) {
            store_text(info->temp_dir, sizeof info->temp_dir, v + 9);
        } else if ((v = strstr(line, "VERBOSE~"))) {
            store_switch(&info->verbose, v + 8);
        } else if ((v = strstr(line, "RTA_PORT~"))) {
            info->port = atoi(v + 9);
        } else if ((v = strstr(line, "ALERTS~"))) {
            store_switch(&info->alerts, v + 7);
        } else if ((v = strstr(line, "PROCESSES~"))) {
            store_switch(&info->processes, v + 10);
        } else if ((v = strstr(line, "SCAN_RATE~"))) {
            info->scan = atoi(v + 10);
        } else if ((v = strstr(line, "USER~"))) {
            char user[sizeof info->line];
            store_text(user, sizeof user, v + 5);
            LibTrim2(user);
            copy_text(info->user, sizeof info->user, user);
        } else {
            continue;
        }
        ++found;
    }
    fclose(fp);
    if (found == 0) {
        // Nothing we recognise: a torn write or someone else's file. It marks no agent.
        delete_file(path);
        return 0;
    }
    return 1;
}

int rta_status(const char* path, int mode, int flag, int delete_stale) {
    RtaLockInfo info{};
    const int r = rta_read_lockfile(path, &info, mode, flag);
    if (r == 0) fprintf(stderr, "%s , unable to read lockfile, %s \n", kProgramName, path);

    int f = 0;
    int p = 0;
    if (r != 1) {
        p = find_process_by_name(kProgramName, getpid(), 0);
        f = p >= 1 ? 1 : 0;
    } else {
        f = findproc(kProgramName, info.pid, 0);
    }

    if (f == -1 && r == 0) {
        fprintf(stderr, "insufficient privilege to open /proc for status, proc_owner required\n");
        exit(0);
    }
    if (f == 0 && r < 1) {
        printf("%s is not running.\n", kProgramName);
        return 0;
    }
    if (f == 0 && r == 1) {
        // The recorded agent is gone: the lock file is stale.
        if (delete_stale == 1) delete_file(path);
        p = find_process_by_name(kProgramName, getpid(), 0);
        if (p > 0) {
            fprintf(stderr, "%s: unable to get statistics, lockfile missing, %s\n", kProgramName,
                    path);
            fprintf(stderr, "%s: running as pid %d \n", kProgramName, p);
            return 1;
        }
        printf("%s is not running.\n", kProgramName);
        return 0;
    }
    if (f == 1 && r < 1) {
        fprintf(stderr, "%s: unable to open lockfile, %s\n", kProgramName, path);
        if (p > 0)
            fprintf(stderr, "%s: running as pid %d \n", kProgramName, p);
        else
            fprintf(stderr, "%s: running unknown pid \n", kProgramName);
        return 1;
    }
    if (f != 1 || r != 1) {
        printf("%s is not running.\n", kProgramName);
        return 0;
    }

    printf("\n%s is running (pid %d) \n\n", kProgramName, info.pid);
    printf("Start time\t\t\t:\t%s \n", info.started);
    printf("Data port\t\t\t:\t%d\n", info.port);
    printf("Scan rate (sec)\t\t\t:\t%d \n", info.scan);
    printf("Install directory\t\t:\t%s\n", info.install_dir);
    printf("Log file directory\t\t:\t%s\n", info.log_dir);
    if (info.verbose == 1) printf("Verbose logging\t\t\t:\tOn\n");
    // No key of the lock file fills the priority, so this line stays hidden.
    if (info.priority != 0) printf("Priority\t\t\t:\t%d\n", info.priority);
    printf("Alerts\t\t\t\t:\t%s\n", info.alerts == 1 ? "On" : "Off");
    printf("Processes\t\t\t:\t%s\n", info.processes == 1 ? "On" : "Off");
    return 1;
}

int rta_write_lockfile(RtaCmdline* record) {
    time_t now = time(nullptr);
    char started[64] = {};
    if (!ctime_r(&now, started)) started[0] = '\0';
    if (char* nl = strchr(started, '\n')) *nl = '\0';

    const char* path = record->lock_file;
    if (file_exists(path)) {
        if (rta_status(path, 2, 0, record->lock) == 1) return 0;
        fprintf(stderr, " Found old lockfile, deleting...\n");
        delete_file(path);
    }

    // The lock is written in full under a temporary name and only then linked into
    // place, so a concurrent -status never meets it half written (and deletes it as empty).
    RtaNewFile lock(path, 0644);
    FILE* fp = lock.stream();
    if (!fp) {
        fprintf(stderr, "vornrta, unable to create lock file, %s, %s\n", path, strerror(errno));
        rta_status(path, 1, 0, record->lock);
        return 0;
    }

    const int pid = static_cast<int>(getpid());
    // The first item has no line end, so it prefixes the PID~ line; readers find keys
    // anywhere in a line.
    fprintf(fp, "%d@%d@%d@%s", pid, record->collect_process == 1 ? -1 : 0, record->port, started);
    fprintf(fp, "PID~%d\n", pid);
    fprintf(fp, "STARTED~%s\n", started);
    fprintf(fp, "VERSION~%s:%s\n", kVersion, kBuildDate);
    fprintf(fp, "INSTALL_DIR~%s\n", record->install_dir);
    fprintf(fp, "DATA_DIR~%s\n", record->data_dir);
    fprintf(fp, "LOG_DIR~%s\n", record->log_dir);
    fprintf(fp, "VERBOSE~%d\n", record->verbose);
    fprintf(fp, "PRIORITY~%d\n", record->priority);
    fprintf(fp, "RTA_PORT~%d\n", record->port);
    fprintf(fp, "ALERTS~%d\n", record->alerts);
    fprintf(fp, "PROCESSES~%d\n", record->collect_process);
    fprintf(fp, "SCAN_RATE~%d\n", record->scan);
    fprintf(fp, "USER~%s\n", record->user);
    // Two agents starting together both pass the existence check above; only one of them
    // can link its file into place.
    if (!lock.publish()) {
        fprintf(stderr, "vornrta, unable to create lock file, %s, %s\n", path, strerror(errno));
        rta_status(path, 1, 0, record->lock);
        return 0;
    }
    int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && own_lock.fd.load() < 0) {
        own_lock.dev = st.st_dev;
        own_lock.ino = st.st_ino;
        own_lock.fd.store(fd, std::memory_order_release);
    } else if (fd >= 0) {
        close(fd);
    }
    return 1;
}

void rta_remove_own_lockfile(const char* path) {
    struct stat st;
    if (own_lock.fd.load(std::memory_order_acquire) < 0 || lstat(path, &st) != 0) return;
    if (st.st_dev == own_lock.dev && st.st_ino == own_lock.ino) unlink(path);
}

int rta_stop(const char* path, int mode) {
    RtaLockInfo info{};
    const int r = rta_read_lockfile(path, &info, mode, 0);
    if (r == 0) fprintf(stderr, "%s , unable to read lockfile, %s \n", kProgramName, path);

    int pid = 0;
    if (r != 1) {
        pid = find_process_by_name(kProgramName, getpid(), 0);
    } else if (findproc(kProgramName, info.pid, 0) == 1) {
        pid = info.pid;
    }
    // A pid of 0 or below would signal a whole process group: never send that.
    if (pid < 1) {
        printf("\n%s is not running\n", kProgramName);
        return 1;
    }
    printf("\nStopping %s (pid %d)\n", kProgramName, pid);
    // The agent may run under another account than ours: signalling it is the
    // process-owner privilege, raised for this one call.
    priv_on_proc();
    const int sent = kill(pid, SIGINT);
    priv_off_proc();
    if (sent != 0) {
        fprintf(stderr, "Fatal: Unable to kill pid %d \n", pid);
        return 0;
    }
    return 1;
}

int is_rta_running(RtaCmdline* record, int* pid_out) {
    *pid_out = -1;
    if (!file_exists(record->lock_file)) {
        int p = find_process_by_name(kProgramName, getpid(), 0);
        if (p > 0) {
            *pid_out = p;
            return 1;
        }
        return 0;
    }
    RtaLockInfo info{};
    int r = rta_read_lockfile(record->lock_file, &info, 0, 0);
    if (r != 1) return r;
    int f = findproc(kProgramName, info.pid, 0);
    if (f > 0) *pid_out = info.pid;
    return f;
}

int rta_update_lockfile(const char* path, int mode, int flag) {
    RtaLockInfo info{};
    return rta_read_lockfile(path, &info, mode, flag) == 1 ? 1 : 0;
}

int rta_delete_existing_lockfile(const char* path, int verbose) {
    if (file_exists(path)) {
        if (verbose) fprintf(stderr, "VORNRTA-I-DELLOCK: found old lockfile, deleting  %s \n", path);
        delete_file(path);
    }
    return 1;
}
