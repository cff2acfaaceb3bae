// The command line of vornrta: defaults of the settings record, the early -rootdir pass
// that decides where the settings file lives, and the full pass that overrides the file.
#include "control/rta_cmdline.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "control/rta_banner.h"
#include "control/rta_text.h"

RtaCmdline rta_cmdline;

namespace rta {

void today_for_log_name(char* out, size_t cap) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    if (strftime(out, cap, "%Y%b%d", &tmv) == 0 && cap > 0) out[0] = '\0';
}

}  // namespace rta

namespace {

using rta::copy_field;
using rta::copy_text;

void build_log_file(RtaCmdline* r) {
    char date[64];
    rta::today_for_log_name(date, sizeof date);
    snprintf(r->log_file, sizeof r->log_file, "%s/rta_%s_%s.log", r->log_dir, r->hostname, date);
}

// Everything the settings and lock files hang off the tmp and settings directories.
void derive_settings_and_lock(RtaCmdline* r) {
    snprintf(r->config_file, sizeof r->config_file, "%s/rta_%s.config", r->settings_dir,
             r->hostname);
    snprintf(r->lock_file, sizeof r->lock_file, "%s/%s_rtdc.lock", r->tmp_dir, r->hostname);
}

void derive_root_dirs(RtaCmdline* r) {
    snprintf(r->bin_dir, sizeof r->bin_dir, "%s/bin", r->install_dir);
    snprintf(r->tmp_dir, sizeof r->tmp_dir, "%s/tmp", r->install_dir);
    snprintf(r->settings_dir, sizeof r->settings_dir, "%s/settings", r->install_dir);
}

// A directory argument is kept as typed unless it climbs with "..": then it is anchored at
// the working directory, so that a later chdir to the install root cannot change its
// meaning. Returns false when the working directory cannot be read.
bool store_directory(char* field, size_t cap, const char* arg) {
    if (arg[0] == '/' || arg[0] == '`' || strstr(arg, "..") == nullptr) {
        copy_text(field, cap, arg);
        return true;
    }
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) return false;
    snprintf(field, cap, "%s/%s", cwd, arg);
    return true;
}

void set_all_classes(RtaCmdline* r, int value) {
    r->class_cpu = value;
    r->class_processor = value;
    r->class_disk = value;
    r->class_process = value;
    r->class_vm = value;
    r->class_net = value;
    r->class_fs = value;
}

// Applies one word of the -collect list. A word must be longer than its minimum, so the
// two-letter words "vm" and "fs" are refused while "novm" and "nofs" work.
bool apply_collect_word(const char* word, RtaCmdline* r) {
    if (unix_option_compare(word, "all", 2)) {
        set_all_classes(r, 1);
    } else if (unix_option_compare(word, "noall", 3)) {
        r->collect_default = 0;
        set_all_classes(r, 0);
    } else if (unix_option_compare(word, "nocpu", 4)) {
        r->class_cpu = 0;
    } else if (unix_option_compare(word, "cpu", 2)) {
        r->class_cpu = 1;
    } else if (unix_option_compare(word, "net", 2)) {
        r->class_net = 1;
    } else if (unix_option_compare(word, "nonet", 3)) {
        r->class_net = 0;
    } else if (unix_option_compare(word, "disk", 3)) {
        r->class_disk = 1;
    } else if (unix_option_compare(word, "nodisk", 4)) {
        r->class_disk = 0;
    } else if (unix_option_compare(word, "process", 3)) {
        r->class_process = 1;
    } else if (unix_option_compare(word, "noprocess", 5)) {
        r->class_process = 0;
    } else if (unix_option_compare(word, "processor", 7)) {
        r->class_processor = 1;
    } else if (unix_option_compare(word, "noprocessor", 9)) {
        r->class_processor = 0;
    } else if (unix_option_compare(word, "vm", 2)) {
        r->class_vm = 1;
    } else if (unix_option_compare(word, "novm", 3)) {
        r->class_vm = 0;
    } else if (unix_option_compare(word, "fs", 2)) {
        r->class_fs = 1;
    } else if (unix_option_compare(word, "nofs", 3)) {
        r->class_fs = 0;
    } else {
        printf("Invalid argument for -collect option: %s\n", word);
        return false;
    }
    return true;
}

// Splits the list on "," like strtok: empty words between commas are skipped.
bool apply_collect_list(const char* list, RtaCmdline* r) {
    std::string words(list);
    char* save = nullptr;
    for (char* w = strtok_r(words.data(), ",", &save); w; w = strtok_r(nullptr, ",", &save)) {
        if (!apply_collect_word(w, r)) return false;
    }
    return true;
}

// The port options ignore a value outside 1..99998 without a word.
void apply_port(const char* value, int32_t* port, RtaCmdline* r) {
    int n = atoi(value);
    if (n > 0 && n < 99999) {
        r->start = 1;
        *port = n;
    }
}

}  // namespace

int unix_option_compare(const char* arg, const char* option, int minimum) {
    if (!arg || !option) return 0;
    int len = 0;
    for (; arg[len] != '\0'; ++len) {
        if (arg[len] != option[len]) return 0;
    }
    return len > minimum ? 1 : 0;
}

int rta_adjust_path_settings(RtaCmdline* record, const char* root) {
    copy_field(record->install_dir, root);
    derive_root_dirs(record);
    snprintf(record->log_dir, sizeof record->log_dir, "%s/logs", record->install_dir);
    derive_settings_and_lock(record);
    return 1;
}

int rta_init_command_line(RtaCmdline* record) {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
    host[sizeof host - 1] = '\0';
    if (char* dot = strchr(host, '.')) *dot = '\0';
    copy_field(record->hostname, host);
    copy_field(record->user, "root");
    copy_field(record->address, "0.0.0.0");

    get_quorbex_root(record->install_dir);
    snprintf(record->data_dir, sizeof record->data_dir, "%s/data", record->install_dir);
    snprintf(record->log_dir, sizeof record->log_dir, "%s/logs", record->install_dir);
    derive_root_dirs(record);

    char date[64];
    rta::today_for_log_name(date, sizeof date);
    snprintf(record->log_file, sizeof record->log_file, "%s/rta_%s_%s.log", record->log_dir,
             record->hostname, date);
    snprintf(record->java_log_file, sizeof record->java_log_file, "%s/rta_java_%s_%s.log",
             record->log_dir, record->hostname, date);
    derive_settings_and_lock(record);

    record->verbose = 0;
    record->lock = 1;
    record->priority = -5;
    record->priority_from_file = 0;
    record->fork = 1;
    record->usage = 0;
    record->start = 0;
    record->stop = 0;
    record->status = 0;
    record->version = 0;
    record->logdir_set = 0;
    record->rootdir_set = 0;
    record->datadir_set = 0;
    record->write_config = 0;
    record->update = 0;
    record->port = 2101;
    record->port_rtdc = 2102;
    record->scan = 2;
    record->alerts = 1;
    record->collect_process = 0;
    record->collect_default = 1;
    record->class_cpu = 1;
    record->class_disk = 1;
    record->class_process = 0;
    record->class_vm = 1;
    record->class_net = 1;
    record->class_fs = 1;
    record->class_processor = 1;
    record->reserved1 = 0;
    record->reserved2 = 0;
    return 1;
}

int rta_parse_cmdline_for_rootdir(char** argv, int argc, RtaCmdline* record) {
    for (int i = 1; i < argc; ++i) {
        if (!unix_option_compare(argv[i], "-rootdir", 4)) continue;
        if (i + 1 < argc && argv[i + 1][0] != '-') {
            rta_adjust_path_settings(record, argv[i + 1]);
            record->rootdir_set = 1;
            return 1;
        }
        fputs("-rootdir option requires an argument\n", stderr);
        return 0;
    }
    return 0;
}

int rta_parse_command_line(char** argv, int argc, RtaCmdline* record) {
    printf("%s %s\n", kProgramName, kMakerNotice);
    printf("Build: %s (%s)\n", kVersion, kBuildDate);
    if (argc == 1) record->start = 1;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        // The value options read the following argument. When it is missing, -port and
        // -port_rtdc are ignored, -update asks for the usage text (an update with no root
        // must not fall through to starting an agent), and the others report it.
        const char* next = (i + 1 < argc) ? argv[i + 1] : nullptr;
        const bool next_is_value = next != nullptr && next[0] != '-';

        if (unix_option_compare(arg, "-collect", 4)) {
            if (!next_is_value) {
                printf("-collect option requires argument\n");
                return 0;
            }
            ++i;
            record->collect_default = 0;
            if (!apply_collect_list(next, record)) return 0;
        } else if (unix_option_compare(arg, "-status", 4)) {
            record->status = 1;
        } else if (unix_option_compare(arg, "-start", 4)) {
            record->start = 1;
        } else if (unix_option_compare(arg, "-stop", 3)) {
            record->stop = 1;
        } else if (unix_option_compare(arg, "-version", 4)) {
            record->version = 1;
        } else if (unix_option_compare(arg, "-fork", 4)) {
            record->fork = 1;
        } else if (unix_option_compare(arg, "-nofork", 6)) {
            record->fork = 0;
        } else if (unix_option_compare(arg, "-lock", 4)) {
            record->lock = 1;
        } else if (unix_option_compare(arg, "-nolock", 6)) {
            record->lock = 0;
        } else if (unix_option_compare(arg, "-write_config", 10)) {
            record->write_config = 1;
        } else if (unix_option_compare(arg, "-update", 6)) {
            if (next) {
                ++i;
                record->update = 1;
                copy_field(record->install_dir, next);
            } else {
                record->usage = 1;
            }
        } else if (unix_option_compare(arg, "-rootdir", 4)) {
            if (!next_is_value) {
                fputs("-rootdir option requires an argument\n", stderr);
                record->usage = 1;
                return 0;
            }
            ++i;
            if (!store_directory(record->install_dir, sizeof record->install_dir, next)) {
                fputs("vornrta, fatal: Unable to get pwd()\n", stderr);
                return 0;
            }
            record->rootdir_set = 1;
        } else if (unix_option_compare(arg, "-datadir", 7)) {
            if (!next_is_value) {
                fputs("-datadir option requires an argument\n", stderr);
                record->usage = 1;
                return 0;
            }
            ++i;
            if (!store_directory(record->data_dir, sizeof record->data_dir, next)) {
                fputs("Fatal: Unable to get pwd()\n", stderr);
                return 0;
            }
            record->datadir_set = 1;
        } else if (unix_option_compare(arg, "-logdir", 5)) {
            if (!next_is_value) {
                fputs("-logdir option requires an argument\n", stderr);
                return 0;
            }
            ++i;
            record->logdir_set = 1;
            if (!store_directory(record->log_dir, sizeof record->log_dir, next)) {
                fputs("Fatal: Unable to get pwd()\n", stderr);
                return 0;
            }
        } else if (unix_option_compare(arg, "-priority", 6)) {
            // A priority may be negative, so only a missing argument is an error here.
            if (!next) {
                fputs("-priority option requires an argument\n", stderr);
                return 0;
            }
            ++i;
            record->start = 1;
            record->priority = atoi(next);
        } else if (unix_option_compare(arg, "-user", 4)) {
            if (!next) {
                fputs("-user option requires an argument\n", stderr);
                return 0;
            }
            ++i;
            copy_field(record->user, next);
        } else if (unix_option_compare(arg, "-verbose", 4)) {
            record->start = 1;
            record->verbose = 1;
        } else if (unix_option_compare(arg, "-noverbose", 6)) {
            record->start = 1;
            record->verbose = 0;
        } else if (unix_option_compare(arg, "-port", 4)) {
            if (next) {
                ++i;
                apply_port(next, &record->port, record);
            }
        } else if (unix_option_compare(arg, "-port_rtdc", 8)) {
            if (next) {
                ++i;
                apply_port(next, &record->port_rtdc, record);
            }
        } else if (unix_option_compare(arg, "-scan", 4)) {
            if (!next) {
                fputs("-scan option requires an argument\n", stderr);
                return 0;
            }
            ++i;
            record->scan = atoi(next);
        } else if (unix_option_compare(arg, "-collectprocess", 8)) {
            record->collect_process = 1;
            record->class_process = 1;
        } else if (unix_option_compare(arg, "-nocollectprocess", 10)) {
            record->collect_process = 0;
            record->class_process = 0;
        } else if (unix_option_compare(arg, "-noalert", 6)) {
            record->alerts = 0;
        } else if (unix_option_compare(arg, "-alert", 5)) {
            record->alerts = 1;
        } else if (unix_option_compare(arg, "-purge", 4)) {
            // Accepted for old scripts; there is nothing to purge.
        } else {
            record->usage = 1;
        }
    }

    if (record->rootdir_set) {
        if (!record->datadir_set)
            snprintf(record->data_dir, sizeof record->data_dir, "%s/data", record->install_dir);
        if (!record->logdir_set)
            snprintf(record->log_dir, sizeof record->log_dir, "%s/logs", record->install_dir);
        derive_root_dirs(record);
        derive_settings_and_lock(record);
    }
    if (record->rootdir_set || record->logdir_set) build_log_file(record);
    return 1;
}

void rta_print_usage() {
    const char* p = kProgramName;
    printf("\nUsage\t:\n\n");
    printf("%s [-start|-stop|-status|-[no]verbose|-version]|[-port n]\n", p);
    printf("[-logdir dir |  -nofork -nolock ]\n\n");
    printf("Flags\t:\n");
    printf("\t-start\n");
    printf("\t\tStart %s \n", p);
    printf("\t-stop\n");
    printf("\t\tStop %s\n", p);
    printf("\t-status\n");
    printf("\t\tGet %s status\n", p);
    printf("\t-port [number]\n");
    printf("\t\tSet port number (default 2101) \n");
    printf("\t-priority\n");
    printf("\t\tSet priority (default 0) \n");
    printf("\t-scan [number]\n");
    printf("\t\tSet scan rate (default 2 seconds) \n");
    printf("\t-logdir\n");
    printf("\t\tSet directory for log files. \n");
    printf("\t-nofork\n");
    printf("\t\tRun without becoming a daemon process\n");
    printf("\t-nolock\n");
    printf("\t\tRun without using/checking lock file\n");
    printf("\t-[no]collectproc\n");
    printf("\t\tCollect process data\n");
    printf("\t-[no]alert\n");
    printf("\t\tCollect alert data\n");
    printf("\t-version\n");
    printf("\t\tShow version\n");
    printf("\t-write_config\n");
    printf("\t\tWrite settings file\n");
    printf("\t-verbose\n");
    printf("\t\tVerbose logging\n");
    printf("\n");
}
