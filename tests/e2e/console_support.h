// Runs the vornmon binary against a real agent: one-shot runs with a deadline, and
// background runs (the OpenMetrics bridge, long streams) that the test stops by pid.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace console_e2e {

inline std::string vornmon_binary() {
    return std::string(VORN_BINARY_DIR) + "/vornmon";
}

struct Result {
    int status = -1;  // exit status, or 128 + signal, or -1 when killed at the deadline
    std::string out, err;
    double seconds = 0;
};

inline pid_t spawn(const std::vector<std::string>& args, int in_fd, int out_fd, int err_fd) {
    std::vector<char*> argv;
    std::string bin = vornmon_binary();
    argv.push_back(bin.data());
    std::vector<std::string> copy = args;
    for (std::string& a : copy) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in_fd, 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

inline int decode_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

/// Runs vornmon to completion, feeding `input`; kills it (by its pid) at the deadline.
inline Result run(const std::vector<std::string>& args, const std::string& input = "",
                  int timeout_s = 90) {
    int in[2], out[2], err[2];
    // Close-on-exec everywhere: a child holding the write end of its own standard input
    // would never see it end.
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        return {};
    pid_t pid = spawn(args, in[0], out[1], err[1]);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (!input.empty() && write(in[1], input.data(), input.size()) < 0) {
    }
    close(in[1]);
    auto start = std::chrono::steady_clock::now();
    auto deadline = start + std::chrono::seconds(timeout_s);
    Result r;
    int open_fds = 2;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    bool killed = false;
    while (open_fds > 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) {
            kill(pid, SIGKILL);
            killed = true;
            break;
        }
        if (poll(fds, 2, static_cast<int>(left)) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
            char buf[65536];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open_fds;
            } else {
                (i == 0 ? r.out : r.err).append(buf, static_cast<std::size_t>(n));
            }
        }
    }
    for (pollfd& p : fds)
        if (p.fd >= 0) close(p.fd);
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = killed ? -1 : decode_status(status);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return r;
}

/// vornmon running in the background with its output in temporary files.
class Background {
  public:
    explicit Background(const std::vector<std::string>& args) {
        char out_path[] = "/tmp/vornmon-e2e-out-XXXXXX";
        char err_path[] = "/tmp/vornmon-e2e-err-XXXXXX";
        int out_fd = mkostemp(out_path, O_CLOEXEC);
        int err_fd = mkostemp(err_path, O_CLOEXEC);
        out_path_ = out_path;
        err_path_ = err_path;
        int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        pid_ = spawn(args, null_fd, out_fd, err_fd);
        close(null_fd);
        close(out_fd);
        close(err_fd);
    }
    ~Background() {
        stop();
        unlink(out_path_.c_str());
        unlink(err_path_.c_str());
    }
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    pid_t pid() const { return pid_; }
    std::string out() const { return slurp(out_path_); }
    std::string err() const { return slurp(err_path_); }
    /// Waits for the process to end by itself; the exit status, or -1 at the deadline.
    int wait(int timeout_ms) {
        for (int waited = 0; pid_ > 0 && waited <= timeout_ms; waited += 20) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                status_ = decode_status(status);
                return status_;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return pid_ > 0 ? -1 : status_;
    }
    /// Ends it with SIGTERM (then SIGKILL) and returns its status.
    int stop() {
        if (pid_ <= 0) return status_;
        kill(pid_, SIGTERM);
        if (wait(5000) == -1 && pid_ > 0) {
            kill(pid_, SIGKILL);
            wait(5000);
        }
        return status_;
    }

  private:
    static std::string slurp(const std::string& path) {
        std::string text;
        int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0) return text;
        char buf[65536];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
            text.append(buf, static_cast<std::size_t>(n));
        close(fd);
        return text;
    }
    pid_t pid_ = -1;
    int status_ = -1;
    std::string out_path_, err_path_;
};

}  // namespace console_e2e
