// One console connection as a request thread sees it: the descriptor, a read stream over
// it, and the client's address text. Closing is idempotent, and a descriptor handed over
// to the data connection is never closed here.
#pragma once

#include <chrono>
#include <cstdio>

class Connection {
public:
    using Clock = std::chrono::steady_clock;

    /// Reads from the connection end at `deadline`: whatever the client sends, and however
    /// slowly, the stream then reads as ended.
    Connection(int fd, const char* client, Clock::time_point deadline);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Opens the read stream. Releasing the stream never closes the descriptor, which may
    /// by then belong to the data connection.
    bool open_stream();
    FILE* stream() const { return stream_; }
    int fd() const { return fd_; }
    const char* client() const { return client_; }
    bool closed() const { return closed_; }

    /// Closes stream and descriptor once; later calls do nothing.
    void close();
    /// The descriptor becomes the data connection's; only the stream is released here.
    void keep_descriptor() { kept_ = true; }

    /// Waits `seconds` before a reply's connection goes, so the console can read it; never
    /// past the deadline.
    void linger(int seconds) const;

    /// The connection served by the calling request thread (null outside one).
    static void bind_current(Connection* conn);
    static Connection* current();

private:
    static ssize_t read_until_deadline(void* self, char* buf, size_t size);

    int fd_;
    Clock::time_point deadline_;
    FILE* stream_ = nullptr;
    char client_[64];
    bool closed_ = false;
    bool kept_ = false;
};

/// Lingers on the calling thread's connection (see Connection::linger); outside a request
/// connection it simply sleeps.
void rtdc_linger(int seconds);

/// Closes the request connection (stream and descriptor) of a handler that ends its
/// connection itself; harmless when it is closed again later.
void rtdc_close_request(FILE* stream, int fd);

/// Ends the data connection on descriptor fd if it still is the data connection: ctrl_sock
/// goes to 0 and the descriptor is closed exactly once, whoever calls first. True when this
/// call released it.
bool rtdc_release_data_connection(int fd);

/// Makes fd the data connection; a previous one is closed so that its console sees end of
/// stream.
void rtdc_adopt_data_connection(int fd);

/// The dotted address of the last accepted peer.
void rtdc_peer_address(char* out, unsigned long size);
