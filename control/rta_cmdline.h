// The one process-wide settings record, filled from defaults, the settings file and the
// command line, in that order, and read everywhere.
#pragma once

#include <cstdint>

struct RtaCmdline {
    int32_t first_word;
    int32_t verbose;
    int32_t lock;
    int32_t priority;
    int32_t priority_from_file;
    int32_t fork;
    int32_t usage;
    int32_t start;
    int32_t stop;
    int32_t status;
    int32_t version;
    int32_t logdir_set;
    int32_t rootdir_set;
    int32_t datadir_set;
    int32_t write_config;
    int32_t update;
    int32_t port;
    int32_t port_rtdc;
    int32_t scan;
    int32_t alerts;
    int32_t collect_process;
    int32_t collect_default;  // the all-classes switch (every class but processes)
    int32_t class_cpu;
    int32_t class_disk;
    int32_t class_process;
    int32_t class_vm;         // memory and paging ("metric") class
    int32_t class_net;
    int32_t class_fs;
    int32_t class_processor;  // per-processor ("machine") class
    int32_t reserved1;
    int32_t reserved2;
    char hostname[32];
    char user[32];
    char address[512];  // the address the request server binds (ADDRESS~)
    char lock_file[512];
    char log_file[512];
    char java_log_file[512];
    char spare_path[512];
    char config_file[512];
    char install_dir[512];
    char data_dir[512];
    char bin_dir[512];
    char log_dir[512];
    char tmp_dir[512];
    char settings_dir[512];
    char allow[512];  // consoles allowed to connect (ALLOW~); empty allows everyone
    char proc_dir[512];  // where the counters' proc tree is (PROC_DIR~); empty: /proc
    char sys_dir[512];   // where the counters' sys tree is (SYS_DIR~); empty: /sys
};

extern RtaCmdline rta_cmdline;

// Command line (control/rta_cmdline.cpp).
int rta_init_command_line(RtaCmdline* record);
int rta_parse_cmdline_for_rootdir(char** argv, int argc, RtaCmdline* record);
int rta_parse_command_line(char** argv, int argc, RtaCmdline* record);
int rta_adjust_path_settings(RtaCmdline* record, const char* root);
int unix_option_compare(const char* arg, const char* option, int minimum);
void rta_print_usage();

// Settings file and install paths (control/rta_settings.cpp).
/// buffer holds at least 512 bytes (a path field of the record).
int get_quorbex_root(char* buffer);
int rta_parse_startup_file(RtaCmdline* record);
int rta_write_settings_file(RtaCmdline* record);
int rta_update_paths(RtaCmdline* record, const char* root);
/// result holds at least 512 bytes.
int rta_resolve_softlink(const char* path, char* result, int verbose);
int rta_setup_install_paths(const char* program_name, RtaCmdline* record, int verbose);
int LibTrim2(char* text);
int delete_file(const char* path);
