#include "agent/rtdc_connection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "packet/rtdc_state.h"

namespace {
thread_local Connection* current_connection = nullptr;
}

Connection::Connection(int fd, const char* client, Clock::time_point deadline)
    : fd_(fd), deadline_(deadline) {
    snprintf(client_, sizeof client_, "%s", client);
}

Connection::~Connection() { close(); }

// The stream's read function. Once the deadline has passed it reports end of stream, so the
// lines read so far stand as the whole request; stdio keeps that end for later reads.
ssize_t Connection::read_until_deadline(void* self, char* buf, size_t size) {
    auto* conn = static_cast<Connection*>(self);
    for (;;) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(conn->deadline_ - Clock::now());
        if (left.count() <= 0) return 0;
        pollfd p{conn->fd_, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 60000)));
        if (ready < 0 && errno != EINTR) return -1;
        if (ready <= 0) continue;
        ssize_t n = recv(conn->fd_, buf, size, 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        return n;
    }
}

bool Connection::open_stream() {
    cookie_io_functions_t io{};
    io.read = read_until_deadline;
    stream_ = fopencookie(this, "r", io);
    return stream_ != nullptr;
}

void Connection::close() {
    if (stream_) {
        fclose(stream_);
        stream_ = nullptr;
    }
    if (closed_) return;
    closed_ = true;
    if (!kept_) ::close(fd_);
}

void Connection::linger(int seconds) const {
    std::this_thread::sleep_until(
        std::min(Clock::now() + std::chrono::seconds(seconds), deadline_));
}

void Connection::bind_current(Connection* conn) { current_connection = conn; }

Connection* Connection::current() { return current_connection; }

void rtdc_linger(int seconds) {
    if (Connection* conn = Connection::current())
        conn->linger(seconds);
    else
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
}

void rtdc_close_request(FILE* stream, int fd) {
    Connection* conn = Connection::current();
    if (conn && conn->fd() == fd) {
        conn->close();
        return;
    }
    if (stream) fclose(stream);
    ::close(fd);
}

bool rtdc_release_data_connection(int fd) {
    if (fd <= 0) return false;
    int expected = fd;
    if (!ctrl_sock.compare_exchange_strong(expected, 0)) return false;
    shutdown(fd, SHUT_RDWR);
    ::close(fd);
    return true;
}

void rtdc_adopt_data_connection(int fd) {
    int old = ctrl_sock.exchange(fd);
    if (old > 0 && old != fd) {
        shutdown(old, SHUT_RDWR);
        ::close(old);
    }
}
