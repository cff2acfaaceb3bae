// Packets on the data connection: a length prefix, then a tagged body holding the packet
// number, time, scan interval, the header lines and the data lines.
#include "packet/rtdc_packet.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "agent/rtdc_clock.h"
#include "agent/rtdc_connection.h"
#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_lines.h"
#include "packet/rtdc_process_headers.h"
#include "packet/rtdc_state.h"

namespace {

constexpr int kPacketNumberLimit = 1000000000;
constexpr size_t kSmallPacket = 8192;  // written in one go; larger ones in chunks
constexpr size_t kChunk = 1024;
// How long a chunked write waits for a non-blocking descriptor to take more bytes.
constexpr int kWritableWaitMs = 5000;

constexpr std::string_view kHeaderOpen = "<HEADER>\n";
constexpr std::string_view kHeaderClose = "</HEADER>\n";
constexpr std::string_view kHeaderEmpty = "<HEADER>\n </HEADER>\n";
constexpr std::string_view kDataOpen = "<DATA>\n";
constexpr std::string_view kDataClose = "</DATA>\n";
constexpr std::string_view kDataEmpty = "<DATA>\n </DATA>\n";
constexpr std::string_view kEnd = "</START>\n";

int clamp_count(char** lines, int count) {
    if (!lines || count < 0) return 0;
    return count > kMaxLines ? kMaxLines : count;
}

size_t lines_length(char** lines, int count) {
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += rtdc_lines::length(lines, i);
    return total;
}

void put_lines(PacketSink& sink, char** lines, int count) {
    for (int i = 0; i < count; ++i) {
        const size_t n = rtdc_lines::length(lines, i);
        if (n) sink.put(std::string_view(lines[i], n));
    }
}

// Writes without raising SIGPIPE, whatever the process's signal setup.
ssize_t write_out(int fd, const char* p, size_t n) {
    ssize_t rc = send(fd, p, n, MSG_NOSIGNAL);
    if (rc < 0 && errno == ENOTSOCK) rc = write(fd, p, n);
    return rc;
}

// A chunk that found the socket full. With a send timeout on the socket the write has
// already waited that long: the console stopped reading. Without one (a non-blocking
// descriptor) wait a bounded time for room.
bool worth_retrying(int fd) {
    timeval tv{};
    socklen_t len = sizeof tv;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, &len) == 0 && (tv.tv_sec || tv.tv_usec))
        return false;
    pollfd pfd{fd, POLLOUT, 0};
    int rc;
    do rc = poll(&pfd, 1, kWritableWaitMs);
    while (rc < 0 && errno == EINTR);
    return rc > 0 && (pfd.revents & POLLOUT);
}

// Sends a packet as it is put: a small one (whose size is known first) in one write, a
// large one in chunks of a kilobyte, so a packet of any size never needs a copy of itself.
class SocketSink final : public PacketSink {
  public:
    SocketSink(int fd, size_t size, int trace) : fd_(fd), size_(size), trace_(trace) {
        pending_.reserve(size <= kSmallPacket ? size : kChunk);
    }

    void put(std::string_view text) override {
        const bool small = size_ <= kSmallPacket;
        const size_t limit = small ? size_ : kChunk;
        while (!text.empty() && !failed_) {
            const size_t take = std::min(text.size(), limit - pending_.size());
            if (take == 0) return;  // more than the size announced: never sent
            pending_.append(text.data(), take);
            text.remove_prefix(take);
            if (!small && pending_.size() == limit) write_chunk();
        }
    }

    // Writes what is left and applies the failure rules; may end the calling thread.
    int finish() {
        if (size_ <= kSmallPacket) {
            write_small();
        } else {
            while (!pending_.empty() && !failed_) write_chunk();
            if (failed_) {
                // A failed large packet stops sending; the collection thread goes on.
                start_rtdc = 0;
                if (rtdc_release_data_connection(fd_)) return 1;
            }
        }
        // Drain whatever the console sent back, without waiting for it.
        char scratch[8];
        (void)!recv(fd_, scratch, sizeof scratch, MSG_DONTWAIT);
        return 1;
    }

  private:
    void write_small() {
        const size_t len = pending_.size();
        ssize_t status = write_out(fd_, pending_.data(), len);
        if (status == static_cast<ssize_t>(len)) return;
        int err = errno;
        if (status >= 0) err = 0;  // a short write sets no error
        rtdc_logf("WriteSocket failed, errno (%d) : len = %d , status = %d , %s \n", err,
                  static_cast<int>(len), static_cast<int>(status), strerror(err));
        rtdc_logf("WriteSocket: DataSize:  %d,  DataSent: %d\n", static_cast<int>(len),
                  static_cast<int>(status));
        RTDCAppendLog("WriteSocket: client probably exited, decrement start_rtdc...\n");
        start_rtdc = 0;
        exit_recieved = 1;
        collect_started = 0;
        rtdc_release_data_connection(fd_);
        // The console is gone: the collection thread ends here; a later <DATA> request
        // starts a new one.
        pthread_exit(nullptr);
    }

    // One write of the pending chunk; what a short write leaves is topped up by the next put.
    void write_chunk() {
        if (trace_) printf("WRITE=  %.*s\n\n", static_cast<int>(pending_.size()), pending_.data());
        for (;;) {
            ssize_t n = write_out(fd_, pending_.data(), pending_.size());
            if (n >= 0) {
                pending_.erase(0, static_cast<size_t>(n));
                return;
            }
            if (errno == EINTR) continue;
            if ((errno == EAGAIN || errno == EWOULDBLOCK) && worth_retrying(fd_)) continue;
            failed_ = true;
            return;
        }
    }

    int fd_;
    size_t size_;
    int trace_;
    std::string pending_;
    bool failed_ = false;
};

int next_packet_number() {
    int number = PacketNumber.load(std::memory_order_relaxed);
    return number > kPacketNumberLimit ? 1 : number;
}

}  // namespace

PacketFrame::PacketFrame(const PacketLines& lines) : lines_(lines) {
    lines_.header_count = clamp_count(lines.headers, lines.header_count);
    lines_.buffer_count = clamp_count(lines.buffers, lines.buffer_count);
    number_ = next_packet_number();

    char when[80];
    TimeString(rtdc_now(), when);  // the second the packet is made in
    char head[256];
    int head_len = snprintf(head, sizeof head,
                            "<START>\n<PACKET>\n%d\n</PACKET>\n<TIME>\n%s\n</TIME>\n"
                            "<INTERVAL>\n%d\n</INTERVAL>\n",
                            number_, when, scan_intvl.load(std::memory_order_relaxed));
    if (head_len < 0) head_len = 0;
    if (static_cast<size_t>(head_len) >= sizeof head) head_len = sizeof head - 1;

    const size_t header_lines = lines_length(lines_.headers, lines_.header_count) +
                                (lines_.process_headers ? lines_.process_headers->length() : 0);
    const bool has_headers = lines_.header_count > 0 ||
                             (lines_.process_headers && lines_.process_headers->entries() > 0);
    if (!has_headers) lines_.process_headers = nullptr;
    body_ =
        has_headers ? kHeaderOpen.size() + header_lines + kHeaderClose.size() : kHeaderEmpty.size();
    body_ += lines_.buffer_count
                 ? kDataOpen.size() + lines_length(lines_.buffers, lines_.buffer_count) +
                       kDataClose.size()
                 : kDataEmpty.size();
    body_ += kEnd.size();

    char prefix[48];
    const size_t total = static_cast<size_t>(head_len) + body_;
    int prefix_len = snprintf(prefix, sizeof prefix,
                              FirstBuffer.load(std::memory_order_relaxed) ? " \nBUFFERSIZE=%06zu\n"
                                                                          : "BUFFERSIZE=%06zu\n",
                              total);
    prefix_.assign(prefix, prefix_len > 0 ? static_cast<size_t>(prefix_len) : 0);
    prefix_.append(head, static_cast<size_t>(head_len));
}

void PacketFrame::write(PacketSink& sink) const {
    sink.put(prefix_);
    if (lines_.header_count == 0 && !lines_.process_headers) {
        sink.put(kHeaderEmpty);
    } else {
        sink.put(kHeaderOpen);
        put_lines(sink, lines_.headers, lines_.header_count);
        if (lines_.process_headers) lines_.process_headers->write(sink);
        sink.put(kHeaderClose);
    }
    if (lines_.buffer_count == 0) {
        sink.put(kDataEmpty);
    } else {
        sink.put(kDataOpen);
        put_lines(sink, lines_.buffers, lines_.buffer_count);
        sink.put(kDataClose);
    }
    sink.put(kEnd);
    PacketNumber.store(number_ + 1, std::memory_order_relaxed);
}

int rtdc_packetize_data(char** headers, int header_count, char** buffers, int buffer_count,
                        char* out, int length_hint) {
    if (!out) return 0;
    out[0] = '\0';
    const PacketFrame frame({headers, header_count, nullptr, buffers, buffer_count});
    // The caller sized the buffer from the line totals plus room for the tags; a packet
    // that would not fit is refused rather than written past the end.
    const size_t capacity = static_cast<size_t>(length_hint > 0 ? length_hint : 0) + 8192;
    if (frame.size() + 1 > capacity) return 0;
    struct BufferSink final : PacketSink {
        explicit BufferSink(char* at) : at(at) {}
        void put(std::string_view text) override {
            memcpy(at, text.data(), text.size());
            at += text.size();
        }
        char* at;
    } sink(out);
    frame.write(sink);
    *sink.at = '\0';
    return 1;
}

int rtdc_send_lines(int fd, const PacketLines& lines) {
    const PacketFrame frame(lines);
    SocketSink sink(fd, frame.size(), 0);
    frame.write(sink);
    return sink.finish();
}

void rtdc_skip_packet() {
    PacketNumber.store(next_packet_number() + 1, std::memory_order_relaxed);
}

int rtdc_send_packet(int fd, const char* text, int trace) {
    const size_t len = strlen(text);
    SocketSink sink(fd, len, trace);
    sink.put(std::string_view(text, len));
    return sink.finish();
}
