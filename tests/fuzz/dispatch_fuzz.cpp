// Request dispatch and line reading: the input is everything a console sends on one
// connection, handed to the request thread's entry on one end of a socket pair; whatever
// the handlers answer is drained from the other end.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>

#include "agent/rtdc_connection.h"
#include "agent/rtdc_server.h"
#include "agent_fixture.h"

// Handlers pause so a console can read a reply before the connection goes. Time does not
// pass for the fuzzer: these pauses return at once.
extern "C" unsigned int sleep(unsigned int) { return 0; }
extern "C" int nanosleep(const struct timespec*, struct timespec*) { return 0; }

namespace {

// Larger inputs would fill the socket pair before the request thread starts reading.
constexpr size_t kMaxInput = 96 * 1024;

void drain(int fd) {
    char buf[8192];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 0) > 0 && read(fd, buf, sizeof buf) > 0) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_agent();
    signal(SIGPIPE, SIG_IGN);
    // A collection thread is running as far as the handlers know, so none is started: the
    // fuzzer stays single-threaded and every class switch is off, so a <DATA> pass is cheap.
    collect_started = 1;
    rta_cmdline.collect_default = rta_cmdline.collect_process = 0;
    rta_cmdline.class_cpu = rta_cmdline.class_disk = rta_cmdline.class_process = 0;
    rta_cmdline.class_vm = rta_cmdline.class_net = rta_cmdline.class_fs = 0;
    rta_cmdline.class_processor = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return -1;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    int room = 256 * 1024;
    setsockopt(sv[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    setsockopt(sv[0], SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    timeval limit{0, 100000};
    setsockopt(sv[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(sv[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    for (size_t sent = 0; sent < size;) {
        ssize_t n = send(sv[1], data + sent, size - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    shutdown(sv[1], SHUT_WR);

    // The request thread's body; it takes the descriptor unless <DATA> kept it. The input is
    // all there before it starts, so the deadline only bounds a handler that waits.
    rtdc_serve_request(sv[0], " 127.0.0.9", std::chrono::steady_clock::now() + std::chrono::seconds(2));
    drain(sv[1]);
    // A <DATA> request made the descriptor the data connection: end it as a takeover would.
    if (ctrl_sock > 0) rtdc_release_data_connection(ctrl_sock);
    close(sv[1]);
    fuzz::clear_stores();
    return 0;
}
