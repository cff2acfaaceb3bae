// Runs a piece of the control code in a forked child with its standard output and error
// captured. Status, stop, the /proc lookups and the privilege functions change the
// process's capabilities, ids or working directory, or may exit; a child keeps all of that
// away from the test process.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace control_test {

struct ChildResult {
    int exit_code = -1;   // exit status, or -1 when the child did not exit normally
    int term_signal = 0;  // the signal that ended it, if any
    std::string out;      // what it wrote to standard output
    std::string err;      // what it wrote to standard error
};

inline std::string drain(FILE* f) {
    std::string s;
    rewind(f);
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) s.append(buf, n);
    fclose(f);
    return s;
}

/// Forks, runs fn in the child (its result becomes the exit status) and collects both
/// streams. The child is killed after about timeout_ms.
template <typename Fn>
ChildResult run_in_child(Fn fn, int timeout_ms = 10000) {
    ChildResult result;
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    fflush(nullptr);
    pid_t pid = (out && err) ? fork() : -1;
    if (pid == 0) {
        // Its own process group: a signal the code under test sends to "the group"
        // reaches only this child, never the test runner.
        setpgid(0, 0);
        dup2(fileno(out), 1);
        dup2(fileno(err), 2);
        int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    int status = 0;
    pid_t done = 0;
    for (int waited = 0; pid > 0 && done == 0; waited += 5) {
        done = waitpid(pid, &status, WNOHANG);
        if (done == 0 && waited >= timeout_ms) {
            kill(pid, SIGKILL);
            done = waitpid(pid, &status, 0);
        } else if (done == 0) {
            usleep(5000);
        }
    }
    if (done == pid && WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (done == pid && WIFSIGNALED(status)) result.term_signal = WTERMSIG(status);
    if (out) result.out = drain(out);
    if (err) result.err = drain(err);
    return result;
}

}  // namespace control_test
