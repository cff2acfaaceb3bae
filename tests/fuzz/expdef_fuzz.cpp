// Alert rules: the input is the body of an <EXPDEF> request from one console. The rules it
// leaves are then evaluated twice, a pass apart, and the alerts collected, so whatever a
// rule line managed to store is also read back.
#include <sys/socket.h>
#include <unistd.h>

#include "agent_fixture.h"

namespace {
time_t fake_now = 1000000;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::start_agent();
    rtal_set_clock([] { return fake_now; });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    {
        fuzz::InputStream stream(data, size);
        rtal_expdef_action(stream.get(), " 127.0.0.9");
    }
    start_rtal = 1;
    rtal_checkexp();
    fake_now += 3600;
    rtal_checkexp();
    // The alerts go to a peer that never reads; the reply is small enough to fit its buffer.
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0) {
        rtal_getalert_action(sv[0], " 127.0.0.9");
        close(sv[0]);
        close(sv[1]);
    }
    fuzz::clear_stores();
    return 0;
}
