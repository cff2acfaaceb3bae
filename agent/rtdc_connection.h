// One console connection as a request thread sees it: the descriptor, a read stream over
// it, and the client's address text. Closing is idempotent, and a descriptor handed over
// to the data connection is never closed here.
#pragma once

#include <cstdio>

class Connection {
public:
    Connection(int fd, const char* client);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Opens the read stream. It sits on a duplicate of the descriptor, so releasing the
    /// stream never closes a descriptor that now belongs to the data connection.
    bool open_stream();
    FILE* stream() const { return stream_; }
    int fd() const { return fd_; }
    const char* client() const { return client_; }
    bool closed() const { return closed_; }

    /// Closes stream and descriptor once; later calls do nothing.
    void close();
    /// The descriptor becomes the data connection's; only the stream is released here.
    void keep_descriptor() { kept_ = true; }

    /// The connection served by the calling request thread (null outside one).
    static void bind_current(Connection* conn);
    static Connection* current();

private:
    int fd_;
    FILE* stream_ = nullptr;
    char client_[64];
    bool closed_ = false;
    bool kept_ = false;
};

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
