// Events: the input is read as an <EVENT> body, as the rule lines of an event definition and
// as an <EVENT_DEF> body (written to the settings directory), then the stored events are
// handed to a console.
#include <sys/socket.h>
#include <unistd.h>

#include "agent_fixture.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_agent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        fuzz::InputStream stream(data, size);
        handle_event_request(stream.get(), -1, " 127.0.0.9");
    }
    {
        fuzz::InputStream stream(data, size);
        rtal_event_action(stream.get(), " 127.0.0.9");
    }
    {
        fuzz::InputStream stream(data, size);
        handle_event_def_request(stream.get(), -1, "<EVENT_DEF>\n", " 127.0.0.9");
    }
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0) {
        // Up to 512 events of 511 characters: more than a socket buffer, so a reader drains.
        shutdown(sv[1], SHUT_WR);
        timeval limit{0, 200000};
        setsockopt(sv[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        int bigger = 1 << 20;
        setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &bigger, sizeof bigger);
        setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &bigger, sizeof bigger);
        rtal_event_getalert_action(sv[0], " 127.0.0.9");
        close(sv[0]);
        close(sv[1]);
    }
    fuzz::clear_stores();
    return 0;
}
