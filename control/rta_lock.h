// Lock file, status and stop.
#pragma once

#include "control/rta_cmdline.h"

struct RtaLockInfo {
    char line[1024];
    char install_dir[1024];
    char data_dir[1024];
    char log_dir[1024];
    char temp_dir[1024];
    char version[512];
    char started[512];
    char user[32];
    int pid;
    int verbose;
    int priority;
    int port;
    int scan;
    int alerts;
    int processes;
};

int rta_read_lockfile(const char* path, RtaLockInfo* info, int mode, int flag);
int rta_write_lockfile(RtaCmdline* record);
int rta_status(const char* path, int mode, int flag, int delete_stale);
int rta_stop(const char* path, int mode);
int is_rta_running(RtaCmdline* record, int* pid_out);
int rta_update_lockfile(const char* path, int mode, int flag);
int rta_delete_existing_lockfile(const char* path, int verbose);
/// Removes the lock file at path only if it is the one this process wrote, so an agent
/// started without a lock, or whose lock was replaced, never removes another agent's.
void rta_remove_own_lockfile(const char* path);
