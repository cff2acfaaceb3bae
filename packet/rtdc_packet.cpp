// Packets on the data connection: a length prefix, then a tagged body holding the packet
// number, time, scan interval, the header lines and the data lines.
#include "packet/rtdc_packet.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

#include "agent/rtdc_clock.h"
#include "agent/rtdc_connection.h"
#include "packet/rtdc_state.h"
#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_lines.h"

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

// Bytes of one section; the line lengths are kept for the copy that follows.
size_t section_length(char** lines, int count, std::vector<size_t>& lengths, std::string_view open,
                      std::string_view close, std::string_view empty) {
    if (count == 0) return empty.size();
    size_t total = open.size() + close.size();
    for (int i = 0; i < count; ++i) {
        size_t n = rtdc_lines::length(lines, i);
        lengths.push_back(n);
        total += n;
    }
    return total;
}

char* copy_section(char* p, char** lines, int count, const size_t* lengths, std::string_view open,
                   std::string_view close, std::string_view empty) {
    if (count == 0) {
        memcpy(p, empty.data(), empty.size());
        return p + empty.size();
    }
    memcpy(p, open.data(), open.size());
    p += open.size();
    for (int i = 0; i < count; ++i) {
        if (lengths[i]) memcpy(p, lines[i], lengths[i]);
        p += lengths[i];
    }
    memcpy(p, close.data(), close.size());
    return p + close.size();
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

}  // namespace

int rtdc_packetize_data(char** headers, int header_count, char** buffers, int buffer_count,
                        char* out, int length_hint) {
    if (!out) return 0;
    out[0] = '\0';
    header_count = clamp_count(headers, header_count);
    buffer_count = clamp_count(buffers, buffer_count);

    int number = PacketNumber.load(std::memory_order_relaxed);
    if (number > kPacketNumberLimit) number = 1;
    char when[80];
    TimeString(rtdc_now(), when);  // the second the packet is made in
    char head[256];
    int head_len = snprintf(head, sizeof head,
                            "<START>\n<PACKET>\n%d\n</PACKET>\n<TIME>\n%s\n</TIME>\n"
                            "<INTERVAL>\n%d\n</INTERVAL>\n",
                            number, when, scan_intvl.load(std::memory_order_relaxed));
    if (head_len < 0) return 0;
    if (static_cast<size_t>(head_len) >= sizeof head) head_len = sizeof head - 1;

    // Line lengths are measured once and reused for the copy.
    thread_local std::vector<size_t> lengths;
    lengths.clear();
    size_t body = static_cast<size_t>(head_len);
    body += section_length(headers, header_count, lengths, kHeaderOpen, kHeaderClose, kHeaderEmpty);
    const size_t header_lengths = lengths.size();
    body += section_length(buffers, buffer_count, lengths, kDataOpen, kDataClose, kDataEmpty);
    body += kEnd.size();

    char prefix[48];
    int prefix_len = snprintf(prefix, sizeof prefix,
                              FirstBuffer.load(std::memory_order_relaxed) ? " \nBUFFERSIZE=%06zu\n"
                                                                          : "BUFFERSIZE=%06zu\n",
                              body);
    // The caller sized the buffer from the line totals plus room for the tags; a packet
    // that would not fit is refused rather than written past the end.
    const size_t capacity = static_cast<size_t>(length_hint > 0 ? length_hint : 0) + 8192;
    if (prefix_len < 0 || static_cast<size_t>(prefix_len) + body + 1 > capacity) return 0;

    // The body goes straight behind the prefix: its length is known before it is written.
    char* p = out;
    memcpy(p, prefix, static_cast<size_t>(prefix_len));
    p += prefix_len;
    memcpy(p, head, static_cast<size_t>(head_len));
    p += head_len;
    p = copy_section(p, headers, header_count, lengths.data(), kHeaderOpen, kHeaderClose,
                     kHeaderEmpty);
    p = copy_section(p, buffers, buffer_count, lengths.data() + header_lengths, kDataOpen,
                     kDataClose, kDataEmpty);
    memcpy(p, kEnd.data(), kEnd.size());
    p += kEnd.size();
    *p = '\0';

    PacketNumber.store(number + 1, std::memory_order_relaxed);
    return 1;
}

char* rtdc_packet_buffer(int length_hint) {
    static char* buffer = nullptr;
    static size_t capacity = 0;
    const size_t size = static_cast<size_t>(length_hint > 0 ? length_hint : 0) + 8192;
    // Grow with some headroom so a host that adds a few lines does not reallocate every
    // scan; give the memory back when the packets became much smaller.
    if (size > capacity || (capacity > (size_t{4} << 20) && size < capacity / 4)) {
        size_t want = size + size / 4;
        auto* fresh = static_cast<char*>(malloc(want));
        if (!fresh) {
            if (size > capacity) return nullptr;
        } else {
            free(buffer);
            buffer = fresh;
            capacity = want;
        }
    }
    buffer[0] = '\0';
    return buffer;
}

int rtdc_send_packet(int fd, const char* text, int trace) {
    const size_t len = strlen(text);
    if (len <= kSmallPacket) {
        ssize_t status = write_out(fd, text, len);
        if (status != static_cast<ssize_t>(len)) {
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
            rtdc_release_data_connection(fd);
            // The console is gone: the collection thread ends here; a later <DATA> request
            // starts a new one.
            pthread_exit(nullptr);
        }
    } else {
        const char* p = text;
        size_t left = len;
        bool failed = false;
        while (left > 0) {
            size_t chunk = left < kChunk ? left : kChunk;
            if (trace) printf("WRITE=  %.*s\n\n", static_cast<int>(chunk), p);
            ssize_t n = write_out(fd, p, chunk);
            if (n < 0) {
                if (errno == EINTR) continue;
                if ((errno == EAGAIN || errno == EWOULDBLOCK) && worth_retrying(fd)) continue;
                failed = true;
                break;
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
        if (failed) {
            // A failed large packet stops sending; the collection thread goes on.
            start_rtdc = 0;
            if (rtdc_release_data_connection(fd)) return 1;
        }
    }
    // Drain whatever the console sent back, without waiting for it.
    char scratch[8];
    (void)!recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
    return 1;
}
