// The install root, the per-host settings file (KEY~value lines) and the path rewrite of
// -update.
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "control/rta_cmdline.h"
#include "control/rta_files.h"
#include "control/rta_text.h"

namespace {

using rta::copy_field;
using rta::copy_text;

constexpr const char* kDefaultRoot = "/opt/quorbex";

// Settings lines are read in pieces of this size; a longer line is searched piece by piece.
constexpr int kSettingsLine = 512;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// A text value: everything after the key, minus its last character (the line end).
void store_path_value(char* field, size_t cap, const char* value) { rta::copy_value(field, cap, value); }

// A value read like USER~: blanks and the line end around it removed. The agent checks it
// when it starts.
void store_trimmed_value(char* field, size_t cap, const char* value) {
    char text[kSettingsLine];
    copy_text(text, sizeof text, value);
    LibTrim2(text);
    copy_text(field, cap, text);
}

}  // namespace

int get_quorbex_root(char* buffer) {
    const char* env = getenv("QUORBEX_LIBRARY");
    if (env && strlen(env) > 1) {
        copy_text(buffer, rta::kPathWidth, env);
        size_t n = strlen(buffer);
        if (n > 0 && buffer[n - 1] == '/') buffer[n - 1] = '\0';
        return 1;
    }
    copy_text(buffer, rta::kPathWidth, kDefaultRoot);
    return 2;
}

int LibTrim2(char* text) {
    if (!text) return 0;
    const char* start = text;
    while (is_blank(*start)) ++start;
    if (*start == '\0') {
        text[0] = '\0';
        return 0;
    }
    size_t len = strlen(start);
    while (len > 0) {
        char c = start[len - 1];
        if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
        --len;
    }
    memmove(text, start, len);
    text[len] = '\0';
    return static_cast<int>(len);
}

int delete_file(const char* path) {
    if (path) unlink(path);
    return 1;
}

int rta_parse_startup_file(RtaCmdline* record) {
    std::string problem;
    FILE* fp = rta_open_regular(record->config_file, &problem);
    if (!fp) {
        // No settings file is the usual case and goes unsaid; anything else is a mistake.
        if (errno != ENOENT)
            fprintf(stderr, "vornrta, settings file %s %s: ignored\n", record->config_file,
                    problem.c_str());
        return 0;
    }

    char line[kSettingsLine];
    int found = 0;
    while (fgets(line, sizeof line, fp)) {
        // The keys are tried in this order and may stand anywhere in the line, so any
        // comment convention works as long as it does not contain a key.
        const char* v;
        if ((v = strstr(line, "INSTALL_DIR~"))) {
            store_path_value(record->install_dir, sizeof record->install_dir, v + 12);
        } else if ((v = strstr(line, "LOG_DIR~"))) {
            store_path_value(record->log_dir, sizeof record->log_dir, v + 8);
            record->logdir_set = 1;
        } else if ((v = strstr(line, "DATA_DIR~"))) {
            store_path_value(record->data_dir, sizeof record->data_dir, v + 9);
            record->datadir_set = 1;
        } else if ((v = strstr(line, "VERBOSE~"))) {
            record->verbose = atoi(v + 8);
        } else if ((v = strstr(line, "RTA_PORT~"))) {
            record->port = atoi(v + 9);
        } else if ((v = strstr(line, "PROCESSES~"))) {
            record->collect_process = atoi(v + 10);
            record->class_process = record->collect_process;
        } else if ((v = strstr(line, "ALERTS~"))) {
            record->alerts = atoi(v + 7);
        } else if ((v = strstr(line, "SCAN_RATE~"))) {
            record->scan = atoi(v + 10);
        } else if ((v = strstr(line, "PRIORITY~"))) {
            record->priority = atoi(v + 9);
            record->priority_from_file = 1;
        } else if ((v = strstr(line, "USER~"))) {
            char user[kSettingsLine];
            copy_text(user, sizeof user, v + 5);
            LibTrim2(user);
            copy_field(record->user, user);
        } else if ((v = strstr(line, "ADDRESS~"))) {
            store_trimmed_value(record->address, sizeof record->address, v + 8);
        } else if ((v = strstr(line, "ALLOW~"))) {
            store_trimmed_value(record->allow, sizeof record->allow, v + 6);
        } else if ((v = strstr(line, "PROC_DIR~"))) {
            store_trimmed_value(record->proc_dir, sizeof record->proc_dir, v + 9);
        } else if ((v = strstr(line, "SYS_DIR~"))) {
            store_trimmed_value(record->sys_dir, sizeof record->sys_dir, v + 8);
        } else {
            continue;
        }
        ++found;
    }
    fclose(fp);
    if (found == 0) return 0;
    if (record->alerts != 0 && record->alerts != 1) {
        printf("ALERTS setting must be either 1 or 0 \n");
        record->alerts = 1;
    }
    return 1;
}

int rta_write_settings_file(RtaCmdline* record) {
    char path[rta::kPathWidth * 2];
    snprintf(path, sizeof path, "%s/rta_%s.config", record->settings_dir, record->hostname);
    printf("Writing config file %s \n", path);
    // Root runs this: a link planted at the path must be replaced, never written through.
    RtaNewFile file(path, 0644);
    FILE* fp = file.stream();
    if (!fp) {
        fprintf(stderr, "vornrta, unable to write settings file %s, %s\n", path, strerror(errno));
        return 0;
    }
    fprintf(fp, "PRIORITY~%d\n", record->priority);
    fprintf(fp, "VERBOSE~%d\n", record->verbose);
    fprintf(fp, "USER~%s\n", record->user);
    fprintf(fp, "RTA_PORT~%d\n", record->port);
    fprintf(fp, "SCAN_RATE~%d\n", record->scan);
    fprintf(fp, "ALERTS~%d\n", record->alerts);
    fprintf(fp, "PROCESSES~%d\n", record->collect_process);
    if (!file.replace()) {
        fprintf(stderr, "vornrta, unable to write settings file %s, %s\n", path, strerror(errno));
        return 0;
    }
    return 1;
}

int rta_resolve_softlink(const char* path, char* result, int verbose) {
    struct stat st;
    int rc = lstat(path, &st);
    if (rc != 0) return rc;
    if (!S_ISLNK(st.st_mode)) {
        copy_text(result, rta::kPathWidth, path);
        return 0;
    }
    char resolved[PATH_MAX];
    // A link that cannot be resolved (dangling, loop) still counts as a link; the caller
    // keeps the name as it was.
    if (realpath(path, resolved))
        copy_text(result, rta::kPathWidth, resolved);
    else
        copy_text(result, rta::kPathWidth, path);
    if (verbose) printf("%s ->    %s \n", path, result);
    return 1;
}

int rta_update_paths(RtaCmdline* record, const char* root) {
    // root is usually the record's own install_dir; work from a copy.
    char new_root[rta::kPathWidth];
    copy_text(new_root, sizeof new_root, root);
    struct stat st;
    if (stat(new_root, &st) != 0) return 0;

    copy_field(record->install_dir, new_root);
    char derived[rta::kPathWidth];
    char resolved[rta::kPathWidth];

    snprintf(derived, sizeof derived, "%s/data", new_root);
    copy_field(record->data_dir, derived);
    if (rta_resolve_softlink(derived, resolved, 0) == 1) copy_field(record->data_dir, resolved);

    snprintf(derived, sizeof derived, "%s/logs", new_root);
    copy_field(record->log_dir, derived);
    if (rta_resolve_softlink(derived, resolved, 0) == 1) copy_field(record->log_dir, resolved);
    return 1;
}

int rta_setup_install_paths(const char* program_name, RtaCmdline* record, int verbose) {
    // 1. Where does the program file live?
    std::string found;
    struct stat st;
    if (lstat(program_name, &st) == 0) {
        found = program_name;
        if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t n = readlink(program_name, target, sizeof target - 1);
            if (n > 0) {
                target[n] = '\0';
                // A relative link target is relative to the link's own directory.
                const char* slash = strrchr(program_name, '/');
                if (target[0] != '/' && slash)
                    found = std::string(program_name, slash + 1) + target;
                else
                    found = target;
            }
        }
    } else if (const char* path_env = getenv("PATH")) {
        std::string dirs(path_env);
        size_t start = 0;
        while (start <= dirs.size()) {
            size_t end = dirs.find(':', start);
            if (end == std::string::npos) end = dirs.size();
            std::string candidate = dirs.substr(start, end - start) + "/" + program_name;
            if (lstat(candidate.c_str(), &st) == 0) {
                found = candidate;
                break;
            }
            start = end + 1;
        }
    }

    // 2. Its directory's parent is the install root.
    std::string dir = ".";
    size_t slash = found.rfind('/');
    if (slash != std::string::npos) dir = slash == 0 ? "/" : found.substr(0, slash);
    char root[PATH_MAX];
    if (chdir(dir.c_str()) != 0 || chdir("..") != 0 || getcwd(root, sizeof root) == nullptr) {
        if (verbose) fprintf(stderr, "error: stat failed on %s: %s\n", dir.c_str(), strerror(errno));
        return 0;
    }

    // 3. The directories under it.
    copy_field(record->install_dir, root);
    snprintf(record->tmp_dir, sizeof record->tmp_dir, "%s%s", root, "/tmp");
    snprintf(record->log_dir, sizeof record->log_dir, "%s%s", root, "/logs");
    snprintf(record->data_dir, sizeof record->data_dir, "%s%s", root, "/data");
    int result = chdir(root) == 0 ? 1 : 0;

    // 4. Check that they exist.
    if (lstat(record->install_dir, &st) != 0) {
        result = 0;
        if (verbose) fprintf(stderr, "error: stat failed on %s: %s\n", record->install_dir, strerror(errno));
    }
    if (lstat(record->data_dir, &st) != 0) {
        result = 0;
        if (verbose)
            fprintf(stderr, "error: lstat failed on DATA_PATH, %s : %s\n", record->data_dir,
                    strerror(errno));
    }
    if (lstat(record->log_dir, &st) != 0) {
        result = 0;
        if (verbose) fprintf(stderr, "error: stat failed on %s : %s\n", record->log_dir, strerror(errno));
    }
    if (lstat(record->tmp_dir, &st) != 0) {
        result = 0;
        if (verbose) fprintf(stderr, "error: stat failed on %s : %s\n", record->tmp_dir, strerror(errno));
    }
    return result;
}
