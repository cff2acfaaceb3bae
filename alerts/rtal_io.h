// Small helpers shared by the alerting files: console writes, fixed-width copies, the
// verbose switch. Internal to alerts/.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "agent/rtdc_log.h"

namespace rtal {

inline bool verbose() {
    return verbose_flag.load(std::memory_order_relaxed) > 0;
}

/// Copies `src` into a fixed field of `N` bytes, cut to fit, always NUL-terminated.
template <size_t N>
inline void copy_field(char (&dst)[N], const char* src) {
    if (!src) {
        dst[0] = '\0';
        return;
    }
    size_t n = strnlen(src, N - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

/// Writes the whole buffer to a console connection. A console that went away must not kill
/// the agent with SIGPIPE, so sockets are written with MSG_NOSIGNAL; other descriptors fall
/// back to write(). False on any failure, errno set.
inline bool write_all(int fd, const char* buf, size_t len) {
    bool plain = false;
    while (len > 0) {
        ssize_t n = plain ? write(fd, buf, len) : send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (!plain && errno == ENOTSOCK) {
                plain = true;
                continue;
            }
            return false;
        }
        if (n == 0) {
            errno = EPIPE;
            return false;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

inline bool write_text(int fd, const char* text) {
    return write_all(fd, text, strlen(text));
}

}  // namespace rtal
