#include "console/vm_net.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vornmon {
namespace {

using Clock = std::chrono::steady_clock;

int ms_left(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(std::min<long long>(left.count(), 1 << 30));
}

bool set_nonblocking(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return false;
    return fcntl(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) == 0;
}

}  // namespace

std::string Endpoint::text() const {
    if (host.find(':') != std::string::npos) return "[" + host + "]:" + std::to_string(port);
    return host + ":" + std::to_string(port);
}

bool parse_host_port(std::string_view text, Endpoint& out, std::string& err) {
    std::string_view host, port;
    if (!text.empty() && text.front() == '[') {
        std::size_t close = text.find(']');
        if (close == std::string_view::npos || close + 1 >= text.size() || text[close + 1] != ':') {
            err = "expected [address]:port, got '" + std::string(text) + "'";
            return false;
        }
        host = text.substr(1, close - 1);
        port = text.substr(close + 2);
    } else {
        std::size_t colon = text.rfind(':');
        if (colon == std::string_view::npos) {
            err = "expected host:port, got '" + std::string(text) + "'";
            return false;
        }
        host = text.substr(0, colon);
        port = text.substr(colon + 1);
    }
    long p = 0;
    if (host.empty() || !parse_long(port, p) || p < 0 || p > 65535) {
        err = "expected host:port with a port from 0 to 65535, got '" + std::string(text) + "'";
        return false;
    }
    out.host = std::string(host);
    out.port = static_cast<int>(p);
    return true;
}

Socket& Socket::operator=(Socket&& o) noexcept {
    if (this != &o) {
        close();
        fd_ = o.release();
    }
    return *this;
}

void Socket::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

addrinfo* resolve(const Endpoint& ep, bool passive, std::string& err) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    if (passive) hints.ai_flags = AI_PASSIVE;
    addrinfo* res = nullptr;
    std::string port = std::to_string(ep.port);
    int rc = getaddrinfo(ep.host.c_str(), port.c_str(), &hints, &res);
    if (rc != 0) {
        err = "cannot resolve " + ep.host + ": " + gai_strerror(rc);
        return nullptr;
    }
    return res;
}

bool connect_to(const Endpoint& ep, int timeout_ms, Socket& out, std::string& err) {
    addrinfo* res = resolve(ep, false, err);
    if (!res) return false;
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    std::string last = "no address";
    for (addrinfo* ai = res; ai; ai = ai->ai_next) {
        Socket s(socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
        if (!s.valid()) {
            last = std::strerror(errno);
            continue;
        }
        set_nonblocking(s.fd(), true);
        if (connect(s.fd(), ai->ai_addr, ai->ai_addrlen) != 0) {
            if (errno != EINPROGRESS) {
                last = std::strerror(errno);
                continue;
            }
            pollfd p{s.fd(), POLLOUT, 0};
            int n;
            do n = poll(&p, 1, ms_left(deadline));
            while (n < 0 && errno == EINTR);
            if (n == 0) {
                last = "timed out after " + std::to_string(timeout_ms / 1000) + " s";
                continue;
            }
            int soerr = 0;
            socklen_t len = sizeof soerr;
            getsockopt(s.fd(), SOL_SOCKET, SO_ERROR, &soerr, &len);
            if (n < 0 || soerr != 0) {
                last = std::strerror(n < 0 ? errno : soerr);
                continue;
            }
        }
        int one = 1;
        setsockopt(s.fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        freeaddrinfo(res);
        out = std::move(s);
        return true;
    }
    freeaddrinfo(res);
    err = "cannot connect to the agent at " + ep.text() + ": " + last;
    return false;
}

bool send_all(const Socket& s, std::string_view data, int timeout_ms, std::string& err) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!data.empty()) {
        ssize_t n = send(s.fd(), data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            data.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            err = std::string("sending to the agent failed: ") + std::strerror(errno);
            return false;
        }
        pollfd p{s.fd(), POLLOUT, 0};
        int left = ms_left(deadline);
        if (left == 0 || poll(&p, 1, left) == 0) {
            err = "sending to the agent timed out";
            return false;
        }
    }
    return true;
}

ReadResult read_some(const Socket& s, std::string& buf, int timeout_ms, std::string& err) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        char chunk[16384];
        ssize_t n = recv(s.fd(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) {
            buf.append(chunk, static_cast<std::size_t>(n));
            return ReadResult::kData;
        }
        if (n == 0) return ReadResult::kEof;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            err = std::string("reading from the agent failed: ") + std::strerror(errno);
            return ReadResult::kError;
        }
        pollfd p{s.fd(), POLLIN, 0};
        int left = ms_left(deadline);
        if (left == 0) return ReadResult::kTimeout;
        int r = poll(&p, 1, left);
        if (r == 0) return ReadResult::kTimeout;
        if (r < 0 && errno != EINTR) {
            err = std::string("waiting for the agent failed: ") + std::strerror(errno);
            return ReadResult::kError;
        }
    }
}

bool exchange(const Endpoint& ep, std::string_view request, bool half_close, int timeout_ms,
              const std::function<bool(std::string_view)>& complete, Exchange& out,
              std::string& err) {
    out = Exchange{};
    Socket s;
    if (!connect_to(ep, timeout_ms, s, err)) return false;
    if (!send_all(s, request, timeout_ms, err)) return false;
    if (half_close) shutdown(s.fd(), SHUT_WR);
    for (;;) {
        if (complete && complete(out.reply)) {
            out.complete = true;
            return true;
        }
        switch (read_some(s, out.reply, timeout_ms, err)) {
            case ReadResult::kData:
                if (out.reply.size() > (64u << 20)) {
                    err = "reply from the agent is too large";
                    return false;
                }
                break;
            case ReadResult::kEof:
                out.complete = complete ? complete(out.reply) : true;
                return true;
            case ReadResult::kTimeout:
                err = "no reply from the agent at " + ep.text() + " within " +
                      std::to_string(timeout_ms / 1000) + " s";
                return false;
            case ReadResult::kError:
                return false;
        }
    }
}

bool DataStream::open(std::string& err) {
    close();
    Socket s;
    if (!connect_to(ep_, timeout_ms_, s, err)) return false;
    std::string request = "<DATA>\n" + std::to_string(interval_) + "\n";
    if (!send_all(s, request, timeout_ms_, err)) return false;
    sock_ = std::move(s);
    framer_.reset();
    last_interval_ = 0;
    got_packet_ = false;
    last_packet_ = Clock::now();
    return true;
}

void DataStream::close() {
    sock_.close();
    framer_.reset();
}

int DataStream::silence_ms() const {
    // The agent's own sleep follows the interval it was started with, which may differ
    // from the one asked for; allow three of the longer of the two. The header packet of
    // a new connection walks every process first, which takes seconds on a busy host.
    int interval = std::max(interval_, last_interval_);
    int allowance = timeout_ms_ + 3000 * std::max(interval, 1);
    return got_packet_ ? allowance : allowance + 30000;
}

DataStream::Status DataStream::pump(Packet& out, std::string& err) {
    if (!sock_.valid()) {
        err = "not connected";
        return Status::kLost;
    }
    for (;;) {
        switch (next_packet(framer_, out, err)) {
            case Framer::Result::kPacket:
                last_packet_ = Clock::now();
                got_packet_ = true;
                if (out.interval > 0 && out.interval < 86400) last_interval_ = out.interval;
                return Status::kPacket;
            case Framer::Result::kError:
                close();
                return Status::kMalformed;
            case Framer::Result::kNeedMore:
                break;
        }
        char chunk[65536];
        ssize_t n = recv(sock_.fd(), chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) {
            framer_.feed(chunk, static_cast<std::size_t>(n));
            continue;
        }
        if (n == 0) {
            close();
            err = "the agent at " + ep_.text() + " closed the data connection";
            return Status::kLost;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            err = "reading from the agent at " + ep_.text() + " failed: " + std::strerror(errno);
            close();
            return Status::kLost;
        }
        if (Clock::now() - last_packet_ > std::chrono::milliseconds(silence_ms())) {
            err = "no packet from the agent at " + ep_.text() + " for " +
                  std::to_string(silence_ms() / 1000) + " s";
            close();
            return Status::kLost;
        }
        return Status::kIdle;
    }
}

DataStream::Status DataStream::wait(int timeout_ms, Packet& out, std::string& err) {
    Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        Status st = pump(out, err);
        if (st != Status::kIdle) return st;
        int left = ms_left(deadline);
        if (left == 0) return Status::kIdle;
        pollfd p{sock_.fd(), POLLIN, 0};
        int n = poll(&p, 1, std::min(left, 1000));
        if (n < 0 && errno != EINTR) {
            err = std::string("waiting for the agent failed: ") + std::strerror(errno);
            close();
            return Status::kLost;
        }
    }
}

Reconnector::Reconnector(int give_up_s)
    : give_up_s_(give_up_s), last_progress_(Clock::now()), connected_at_(Clock::now()) {}

void Reconnector::progress() {
    last_progress_ = Clock::now();
}

void Reconnector::connected() {
    lost_ = false;
    connected_at_ = Clock::now();
}

void Reconnector::lost() {
    if (!lost_) {
        // A connection that ends soon after it was made (another console taking the data
        // connection back, an agent that closes at once) must not be retried in a tight loop.
        if (Clock::now() - connected_at_ > std::chrono::seconds(30))
            pause_ms_ = 500;
        else
            pause_ms_ = std::min(pause_ms_ * 2, 8000);
    }
    lost_ = true;
    next_ = Clock::now() + std::chrono::milliseconds(pause_ms_);
}

bool Reconnector::due() const {
    return lost_ && Clock::now() >= next_;
}

bool Reconnector::given_up() const {
    return lost_ && give_up_s_ > 0 &&
           Clock::now() - last_progress_ > std::chrono::seconds(give_up_s_);
}

int Reconnector::ms_until_due() const {
    return lost_ ? ms_left(next_) : 0;
}

void Reconnector::failed_attempt() {
    pause_ms_ = std::min(pause_ms_ * 2, 8000);
    next_ = Clock::now() + std::chrono::milliseconds(pause_ms_);
}

}  // namespace vornmon
