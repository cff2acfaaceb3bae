// Runs a piece of the control code in a forked child with its standard output and error
// captured. Status, stop, the /proc lookups and the privilege functions change the
// process's capabilities, ids or working directory, or may exit; a child keeps all of that
// away from the test process.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace control_test {

struct ChildResult {
    int exit_code = -1;    // exit status, or -1 when the child did not exit normally
    int term_signal = 0;   // the signal that ended it, if any
    std::string out;       // what it wrote to standard output
    std::string err;       // what it wrote to standard error
};

/// Forks, runs fn in the child (its result becomes the exit status) and collects both
/// streams. The child is killed after timeout_ms.
template <typename Fn>
ChildResult run_in_child(Fn fn, int timeout_ms = 10000) {
    ChildResult result;
    int out_pipe[2], err_pipe[2];
    if (pipe(out_pipe) != 0) return result;
    if (pipe(err_pipe) != 0) {
        close(out_pipe[0]);
        close(out_pipe[1]);
        return result;
    }
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        // Its own process group: a signal sent to "the group" by code under test reaches
        // only this child, never the test runner.
        setpgid(0, 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        close(out_pipe[0]);
        close(out_pipe[1]);
        close(err_pipe[0]);
        close(err_pipe[1]);
        int rc = fn();
        fflush(stdout);
        fflush(stderr);
        _exit(rc);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (pid < 0) {
        close(out_pipe[0]);
        close(err_pipe[0]);
        return result;
    }
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_count = 2;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    while (open_count > 0) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsed >= timeout_ms) {
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(timeout_ms - elapsed)) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_count;
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) close(f.fd);
    int status = 0;
    if (waitpid(pid, &status, 0) == pid) {
        if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
        if (WIFSIGNALED(status)) result.term_signal = WTERMSIG(status);
    }
    return result;
}

}  // namespace control_test
