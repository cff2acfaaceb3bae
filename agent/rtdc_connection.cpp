#include "agent/rtdc_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "agent/rtdc_globals.h"

namespace {
thread_local Connection* current_connection = nullptr;
}

Connection::Connection(int fd, const char* client) : fd_(fd) {
    snprintf(client_, sizeof client_, "%s", client);
}

Connection::~Connection() { close(); }

bool Connection::open_stream() {
    int dup_fd = dup(fd_);
    if (dup_fd < 0) return false;
    stream_ = fdopen(dup_fd, "r");
    if (!stream_) {
        ::close(dup_fd);
        return false;
    }
    return true;
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

void Connection::bind_current(Connection* conn) { current_connection = conn; }

Connection* Connection::current() { return current_connection; }

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
