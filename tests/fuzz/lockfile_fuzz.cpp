// The lock file: any bytes at the lock path, read as -status and -stop read it.
#include "control/rta_lock.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzz::scratch() + "/tmp/fuzzhost_rtdc.lock";
    fuzz::write_file(path, std::string_view(reinterpret_cast<const char*>(data), size));
    static RtaLockInfo info;
    info = RtaLockInfo{};
    rta_read_lockfile(path.c_str(), &info, 0, 0);
    return 0;
}
