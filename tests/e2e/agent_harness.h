// Runs the real agent binary on a temporary install root and speaks to it over loopback.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace e2e {

/// A temporary install root with logs/, tmp/, settings/ and data/; removed on destruction.
struct InstallRoot {
    InstallRoot();
    ~InstallRoot();
    std::string path;
    std::string log_text() const;            // today's log file(s), concatenated
    std::string lock_file() const;           // tmp/<short host>_rtdc.lock
    std::string settings_file() const;       // settings/rta_<short host>.config
};

/// Output of a one-shot run of the agent program.
struct RunResult {
    int exit_code = -1;
    std::string out;
    std::string err;
};

std::string agent_binary();
std::string short_hostname();
int free_port();

/// Runs the agent with the arguments to completion (bounded by timeout_s).
RunResult run_agent(const InstallRoot& root, const std::vector<std::string>& args,
                    int timeout_s = 20);

/// An agent started in the background (normally with -nofork); stopped by SIGINT.
class Agent {
public:
    Agent(const InstallRoot& root, std::vector<std::string> args);
    ~Agent();
    pid_t pid() const { return pid_; }
    /// Waits until the port accepts connections; false when the agent exited first.
    bool wait_listening(int port, int timeout_ms = 10000);
    /// Sends SIGINT and waits for the exit status (-1 on timeout).
    int stop(int timeout_ms = 10000);
    /// Waits for exit without signalling; -1 on timeout.
    int wait_exit(int timeout_ms);
    std::string out() const;
    std::string err() const;

private:
    pid_t pid_ = -1;
    std::string out_path_, err_path_;
    int status_ = -1;
};

/// A loopback client connection with bounded reads.
class Client {
public:
    explicit Client(int port, const char* bind_addr = nullptr);
    ~Client();
    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool send(const std::string& text);
    /// Reads until `marker` has been seen or the time runs out; returns what was read.
    std::string read_until(const std::string& marker, int timeout_ms);
    /// Reads until end of stream or timeout; sets eof.
    std::string read_to_end(int timeout_ms, bool* eof = nullptr);
    /// Reads one whole packet (" \nBUFFERSIZE=nnnnnn\n" + body); empty on timeout/end.
    std::string read_packet(int timeout_ms);
    void close_now();
    /// Ends the sending side so that a request read to end of stream completes.
    void finish_sending();

private:
    int fd_ = -1;
    std::string pending_;
};

/// Sends one request on a fresh connection and returns everything the agent answered
/// before it closed the connection.
std::string request(int port, const std::string& text, int timeout_ms = 15000,
                    const char* bind_addr = nullptr);
/// The same for requests whose payload ends at end of stream (<EVENT>, <EVENT_DEF>).
std::string request_to_eof(int port, const std::string& text, int timeout_ms = 15000);

/// Waits until the predicate on the log text holds.
bool wait_for_log(const InstallRoot& root, const std::string& needle, int timeout_ms);

}  // namespace e2e
