// Shared helpers of the control tests. Status, stop, the /proc lookups and the privilege
// functions change capabilities, ids or the working directory, or exit: run_in_child keeps
// all of that away from the test runner.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "control/rta_cmdline.h"
#include "platform/roots.h"

namespace control_test {

/// A fresh directory under the system temp dir, removed with everything in it.
struct TempDir {
    std::string path = std::filesystem::temp_directory_path() / "vornctl.XXXXXX";
    TempDir() {
        if (!mkdtemp(path.data())) path.clear();
        chmod(path.c_str(), 0755);  // some tests look in after dropping to another account
    }
    ~TempDir() { std::error_code ec; if (!path.empty()) std::filesystem::remove_all(path, ec); }
    TempDir(const TempDir&) = delete;
    std::string operator/(const std::string& rel) const { return path + "/" + rel; }
};

inline void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}
inline std::string read_file(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}
inline const std::string kFixtures = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/";

/// Adds a process entry "<root>/<pid>/stat" whose short name is comm.
inline void add_proc(const std::string& root, int pid, const std::string& comm) {
    write_file(root + "/" + std::to_string(pid) + "/stat", std::to_string(pid) + " (" + comm + ") S 1 1 1 0 -1 0\n");
}
inline void use_proc_root(const std::string& root) { platform::Roots r; r.own_proc = root; platform::set_roots(r); }
/// A settings record with the built-in defaults, as main sets it up.
inline RtaCmdline default_record() { RtaCmdline r{}; rta_init_command_line(&r); return r; }

struct ChildResult { int exit_code = -1; std::string out, err; };  // exit_code -1: no normal exit

/// Runs fn in a forked child (its result becomes the exit status) with both streams captured.
template <typename Fn>
ChildResult run_in_child(Fn fn) {
    FILE *out = tmpfile(), *err = tmpfile();
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);  // a signal sent to "the group" reaches only this child, never the runner
        alarm(20);      // a hung child dies instead of hanging the run
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        int rc = 98;  // an exception must not carry the child on into the runner's next tests
        try { rc = fn(); } catch (...) {}
        fflush(nullptr);
        _exit(rc);
    }
    ChildResult r;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) r.exit_code = WEXITSTATUS(status);
    // The files are unlinked; reopened through /dev/fd they read from the start.
    r.out = read_file("/dev/fd/" + std::to_string(fileno(out)));
    r.err = read_file("/dev/fd/" + std::to_string(fileno(err)));
    fclose(out);
    fclose(err);
    return r;
}

}  // namespace control_test
