#include "agent_harness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace e2e {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int elapsed_ms(Clock::time_point since) {
    return static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

int decode_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

pid_t spawn(const InstallRoot& root, const std::vector<std::string>& args,
            const std::string& out, const std::string& err) {
    std::vector<std::string> env_strings;
    for (char** e = environ; *e; ++e)
        if (strncmp(*e, "QUORBEX_LIBRARY=", 16) != 0) env_strings.emplace_back(*e);
    env_strings.push_back("QUORBEX_LIBRARY=" + root.path);
    std::vector<char*> envp;
    for (auto& s : env_strings) envp.push_back(s.data());
    envp.push_back(nullptr);

    std::string bin = agent_binary();
    std::vector<std::string> argv_strings{bin};
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : argv_strings) argv.push_back(s.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // The test runner may block signals; the agent must start with the default mask.
    sigset_t empty;
    sigemptyset(&empty);
    posix_spawnattr_setsigmask(&attr, &empty);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    if (posix_spawn(&pid, bin.c_str(), &actions, &attr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    return pid;
}

int wait_pid(pid_t pid, int timeout_ms) {
    auto start = Clock::now();
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return decode_status(status);
        if (r < 0) return -1;
        if (elapsed_ms(start) > timeout_ms) return -2;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace

std::string agent_binary() { return std::string(VORN_BINARY_DIR) + "/vornrta"; }

std::string short_hostname() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    std::string h(host);
    auto dot = h.find('.');
    if (dot != std::string::npos) h.resize(dot);
    return h.substr(0, 31);
}

namespace {

// Whether a listener could bind the loopback port now.
bool bindable(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

// The lowest port the kernel hands out to outgoing connections.
int ephemeral_low() {
    int low = 32768, high = 60999;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> low >> high;
    return low;
}

}  // namespace

// A port below the kernel's ephemeral range: a port the kernel chose for a listener would
// be free again once that socket closes, and any connection made before the agent binds it
// (the tests' own consoles, the hub's) could take it as its source port. The start varies
// with the pid, so that test programs running side by side take different ports.
int free_port() {
    static const int high = std::max(ephemeral_low() - 1, 2048);
    static const int low = std::max(high - 12000, 1024);
    static int next = low + static_cast<int>(getpid()) % (high - low);
    for (int tries = 0; tries < high - low; ++tries) {
        const int port = next;
        next = next >= high ? low : next + 1;
        if (bindable(port)) return port;
    }
    return 0;
}

InstallRoot::InstallRoot() {
    char tmpl[] = "/tmp/vornrootXXXXXX";
    path = mkdtemp(tmpl);
    for (const char* sub : {"logs", "tmp", "settings", "data", "bin"}) fs::create_directory(path + "/" + sub);
}

InstallRoot::~InstallRoot() {
    std::error_code ec;
    fs::remove_all(path, ec);
}

std::string InstallRoot::log_text() const {
    std::string text;
    for (auto& entry : fs::directory_iterator(path + "/logs")) text += slurp(entry.path());
    return text;
}

std::string InstallRoot::lock_file() const { return path + "/tmp/" + short_hostname() + "_rtdc.lock"; }

std::string InstallRoot::settings_file() const {
    return path + "/settings/rta_" + short_hostname() + ".config";
}

RunResult run_agent(const InstallRoot& root, const std::vector<std::string>& args, int timeout_s) {
    RunResult result;
    std::string out = root.path + "/run.out", err = root.path + "/run.err";
    pid_t pid = spawn(root, args, out, err);
    if (pid < 0) return result;
    result.exit_code = wait_pid(pid, timeout_s * 1000);
    if (result.exit_code == -2) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        result.exit_code = -1;
    }
    result.out = slurp(out);
    result.err = slurp(err);
    return result;
}

Agent::Agent(const InstallRoot& root, std::vector<std::string> args) {
    static int serial = 0;
    std::string base = root.path + "/agent" + std::to_string(++serial);
    out_path_ = base + ".out";
    err_path_ = base + ".err";
    pid_ = spawn(root, args, out_path_, err_path_);
}

Agent::~Agent() {
    if (pid_ > 0 && status_ == -1) {
        if (stop(5000) < 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
}

bool Agent::wait_listening(int port, int timeout_ms) {
    auto start = Clock::now();
    while (elapsed_ms(start) < timeout_ms) {
        if (status_ == -1) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = decode_status(status);
                return false;
            }
        } else {
            return false;
        }
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(port));
        bool up = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        if (up) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

int Agent::stop(int timeout_ms) {
    if (status_ != -1) return status_;
    if (pid_ <= 0) return -1;
    kill(pid_, SIGINT);
    return wait_exit(timeout_ms);
}

int Agent::wait_exit(int timeout_ms) {
    if (status_ != -1) return status_;
    int r = wait_pid(pid_, timeout_ms);
    if (r >= 0) status_ = r;
    // A failing agent's own words (a sanitizer report, a fatal message) go to the test log.
    if (r != 0) fprintf(stderr, "agent %d ended with %d; its standard error:\n%s\n", pid_, r, err().c_str());
    return r < 0 ? -1 : r;
}

std::string Agent::out() const { return slurp(out_path_); }
std::string Agent::err() const { return slurp(err_path_); }

Client::Client(int port, const char* bind_addr) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    if (bind_addr) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, bind_addr, &local.sin_addr);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
            close(fd_);
            fd_ = -1;
            return;
        }
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        close(fd_);
        fd_ = -1;
    }
}

Client::~Client() { close_now(); }

void Client::close_now() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

bool Client::send(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

namespace {
// One bounded read; 0 on end of stream, -1 on timeout or error.
ssize_t read_some(int fd, std::string& into, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return -1;
    char buf[65536];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n > 0) into.append(buf, static_cast<size_t>(n));
    return n < 0 ? -1 : n;
}
}  // namespace

std::string Client::read_until(const std::string& marker, int timeout_ms) {
    auto start = Clock::now();
    while (pending_.find(marker) == std::string::npos) {
        int left = timeout_ms - elapsed_ms(start);
        if (left <= 0 || read_some(fd_, pending_, left) <= 0) break;
    }
    std::string out;
    out.swap(pending_);
    return out;
}

std::string Client::read_to_end(int timeout_ms, bool* eof) {
    auto start = Clock::now();
    bool ended = false;
    for (;;) {
        int left = timeout_ms - elapsed_ms(start);
        if (left <= 0) break;
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, left) <= 0) break;
        char buf[65536];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n > 0) {
            pending_.append(buf, static_cast<size_t>(n));
            continue;
        }
        ended = true;  // end of stream, or a reset, which ends it too
        break;
    }
    if (eof) *eof = ended;
    std::string out;
    out.swap(pending_);
    return out;
}

std::string Client::read_packet(int timeout_ms) {
    auto start = Clock::now();
    for (;;) {
        auto pos = pending_.find("BUFFERSIZE=");
        if (pos != std::string::npos) {
            auto nl = pending_.find('\n', pos);
            if (nl != std::string::npos) {
                size_t body = std::stoul(pending_.substr(pos + 11, nl - pos - 11));
                size_t total = nl + 1 + body;
                if (pending_.size() >= total) {
                    std::string packet = pending_.substr(0, total);
                    pending_.erase(0, total);
                    return packet;
                }
            }
        }
        int left = timeout_ms - elapsed_ms(start);
        if (left <= 0 || read_some(fd_, pending_, left) <= 0) return {};
    }
}

std::string request(int port, const std::string& text, int timeout_ms, const char* bind_addr) {
    Client client(port, bind_addr);
    if (!client.ok() || !client.send(text)) return {};
    return client.read_to_end(timeout_ms);
}

std::string request_to_eof(int port, const std::string& text, int timeout_ms) {
    Client client(port);
    if (!client.ok() || !client.send(text)) return {};
    client.finish_sending();
    return client.read_to_end(timeout_ms);
}

void Client::finish_sending() {
    if (fd_ >= 0) shutdown(fd_, SHUT_WR);
}

bool wait_for_log(const InstallRoot& root, const std::string& needle, int timeout_ms) {
    auto start = Clock::now();
    while (elapsed_ms(start) < timeout_ms) {
        if (root.log_text().find(needle) != std::string::npos) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

}  // namespace e2e
