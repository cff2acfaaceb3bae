// A scripted stand-in for the agent on 127.0.0.1: each accepted connection runs the test's
// script in its own thread. Every read has a deadline, so a console that misbehaves fails
// the test instead of hanging it.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vornmon_test {

class FakeConn {
  public:
    explicit FakeConn(int fd) : fd_(fd) {}
    ~FakeConn() { close(); }
    FakeConn(const FakeConn&) = delete;
    FakeConn& operator=(const FakeConn&) = delete;

    /// One line without its line end; false at end of stream or after `timeout_ms`.
    bool read_line(std::string& line, int timeout_ms = 3000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            std::size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                line = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return true;
            }
            if (!fill(deadline)) return false;
        }
    }
    /// Everything until the console closes its side (or the deadline).
    std::string read_to_end(int timeout_ms = 3000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (fill(deadline)) {
        }
        std::string all = buf_;
        buf_.clear();
        return all;
    }
    void write(const std::string& text) {
        std::size_t off = 0;
        while (off < text.size()) {
            ssize_t n = ::send(fd_, text.data() + off, text.size() - off, MSG_NOSIGNAL);
            if (n <= 0) return;
            off += static_cast<std::size_t>(n);
        }
    }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

  private:
    bool fill(std::chrono::steady_clock::time_point deadline) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0 || fd_ < 0) return false;
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
        char chunk[4096];
        ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) return false;
        buf_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }
    int fd_;
    std::string buf_;
};

class FakeAgent {
  public:
    using Script = std::function<void(FakeConn&)>;

    explicit FakeAgent(Script script) : script_(std::move(script)) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = 0;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd_, 8) != 0) {
            ::close(fd_);
            fd_ = -1;
            return;
        }
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        acceptor_ = std::thread([this] { run(); });
    }
    ~FakeAgent() {
        stop_ = true;
        if (acceptor_.joinable()) acceptor_.join();
        for (auto& t : workers_) t.join();
        if (fd_ >= 0) ::close(fd_);
    }
    FakeAgent(const FakeAgent&) = delete;
    FakeAgent& operator=(const FakeAgent&) = delete;

    int port() const { return port_; }
    int connections() const { return connections_.load(); }

  private:
    void run() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            int c = ::accept(fd_, nullptr, nullptr);
            if (c < 0) continue;
            ++connections_;
            workers_.emplace_back([this, c] {
                FakeConn conn(c);
                script_(conn);
            });
        }
    }
    Script script_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread acceptor_;
    std::vector<std::thread> workers_;
};

/// A port on 127.0.0.1 where nothing listens (bound, then released).
inline int closed_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

}  // namespace vornmon_test
