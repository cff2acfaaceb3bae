// Connections to the agent. Every wait has a deadline: a console must never hang on an
// agent that stopped answering.
#pragma once

#include <netdb.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "console/vm_model.h"
#include "console/vm_wire.h"

namespace vornmon {

struct Endpoint {
    std::string host = "127.0.0.1";
    int port = 2101;
    std::string text() const;
    bool operator==(const Endpoint&) const = default;
};

/// Parses "host:port" (IPv6 as "[addr]:port"); false with a message when it is not one.
bool parse_host_port(std::string_view text, Endpoint& out, std::string& err);

/// An owned socket descriptor.
class Socket {
  public:
    Socket() = default;
    explicit Socket(int fd) : fd_(fd) {}
    Socket(Socket&& o) noexcept : fd_(o.release()) {}
    Socket& operator=(Socket&& o) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { close(); }
    int fd() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void close();

  private:
    int fd_ = -1;
};

/// The addresses of an endpoint (`passive` for listening on it); null with the message on
/// failure. Release with freeaddrinfo.
::addrinfo* resolve(const Endpoint& ep, bool passive, std::string& err);
/// Connects within `timeout_ms`; the message names the endpoint and the reason.
bool connect_to(const Endpoint& ep, int timeout_ms, Socket& out, std::string& err);
/// Writes everything within `timeout_ms`.
bool send_all(const Socket& s, std::string_view data, int timeout_ms, std::string& err);

enum class ReadResult { kData, kEof, kTimeout, kError };
/// Appends what arrives within `timeout_ms` (at least one byte) to `buf`.
ReadResult read_some(const Socket& s, std::string& buf, int timeout_ms, std::string& err);

/// One request connection: sends `request`, closes the sending side when `half_close`
/// (the agent reads some requests to end of stream), then reads until `complete` says the
/// reply is whole, the agent closes, or nothing arrives for `timeout_ms`. Returns false
/// only for connection failures and timeouts; `closed_early` tells whether the agent
/// closed before `complete` was satisfied.
struct Exchange {
    std::string reply;
    bool complete = false;
};
bool exchange(const Endpoint& ep, std::string_view request, bool half_close, int timeout_ms,
              const std::function<bool(std::string_view)>& complete, Exchange& out,
              std::string& err);

/// The data connection: sends "<DATA>" with the scan interval and yields packets as they
/// arrive. It reads without blocking so callers can wait on it beside other descriptors.
class DataStream {
  public:
    enum class Status { kIdle, kPacket, kLost, kMalformed };

    DataStream(Endpoint ep, int interval, int timeout_ms)
        : ep_(std::move(ep)), interval_(interval), timeout_ms_(timeout_ms) {}

    bool open(std::string& err);
    void close();
    bool is_open() const { return sock_.valid(); }
    int fd() const { return sock_.fd(); }
    const Endpoint& endpoint() const { return ep_; }

    /// Reads what is there and returns the next packet if one is complete. Reports a lost
    /// connection when the agent closed it or sent nothing for longer than the silence limit.
    Status pump(Packet& out, std::string& err);
    /// Waits up to `timeout_ms` for the next packet.
    Status wait(int timeout_ms, Packet& out, std::string& err);
    /// Time a silent agent is given before the connection counts as lost.
    int silence_ms() const;

  private:
    Endpoint ep_;
    int interval_;
    int timeout_ms_;
    int last_interval_ = 0;
    bool got_packet_ = false;
    Socket sock_;
    Framer framer_;
    std::chrono::steady_clock::time_point last_packet_;
};

/// Decides when to try again after a lost data connection: doubling pauses up to a cap,
/// and giving up after `give_up_s` seconds without a packet (0: never give up).
class Reconnector {
  public:
    explicit Reconnector(int give_up_s);
    void lost();
    void connected();
    /// A packet arrived: the agent is useful again.
    void progress();
    bool is_lost() const { return lost_; }
    bool due() const;
    bool given_up() const;
    int ms_until_due() const;
    void failed_attempt();

  private:
    int give_up_s_;
    bool lost_ = false;
    int pause_ms_ = 250;
    std::chrono::steady_clock::time_point last_progress_, next_, connected_at_;
};

}  // namespace vornmon
