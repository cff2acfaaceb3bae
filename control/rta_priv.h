// Privileges, the daemon account and the process lookups.
#pragma once

int priv_init();
int priv_on();
int priv_off();
int priv_on_proc();
int priv_off_proc();
/// The start-up privilege set check ("basic" + file_dac_read + proc_owner); prints the
/// "vornagent, ..." messages and exits 1 on failure.
void rta_build_start_privileges();
int rta_relinquish_root(const char* account);
/// Leaves the running agent with only what its scans need, in force from now on: reading
/// other accounts' /proc entries and per-process counters. 1, or 0 when the set cannot be
/// changed.
int rta_keep_agent_privileges();
int rta_am_i_quorbex(const char* account);

int findproc(const char* name, int pid, int verbose);
int find_process_by_name(const char* name, int own_pid, int verbose);
int findproc_nopid(const char* name, int verbose);
void findprocWriteLog(const char* text);
