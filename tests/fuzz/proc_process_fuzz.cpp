// One process's files: the input's NUL-separated pieces become its stat, status and io in a
// scratch tree; the process is read alone and in a scan, and its terminal named.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/source.h"

namespace {

const char* const kFiles[] = {"stat", "status", "io"};

void name_terminal(const platform::ProcessSample& sample, void*) {
    char tty[32];
    platform::tty_name(sample.tty_nr, tty, sizeof tty);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string& root = fuzz::scratch();
    for (const char* file : kFiles) fuzz::write_file(root + "/proc/4242/" + file, "");
    platform::set_roots({root + "/proc", root + "/sys", root + "/proc/self/mounts"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string_view> pieces = fuzz::split(data, size, 3);
    for (size_t i = 0; i < 3; ++i)
        fuzz::write_file(fuzz::scratch() + "/proc/4242/" + kFiles[i],
                         i < pieces.size() ? pieces[i] : "");
    platform::ProcessSample sample;
    if (platform::read_process(4242, sample)) name_terminal(sample, nullptr);
    platform::read_processes(name_terminal, nullptr);
    return 0;
}
