// The command line: the input's NUL-separated pieces are the arguments after the program
// name, parsed by both passes (install root first, then everything).
#include <string>
#include <vector>

#include "control/rta_cmdline.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Arguments are C strings: each piece is its own allocation, so reading one past its
    // end is caught.
    std::vector<std::string> args{"vornrta"};
    for (std::string_view piece : fuzz::split(data, size, 64)) args.emplace_back(piece);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(args.size());

    static RtaCmdline record;
    rta_init_command_line(&record);
    rta_parse_cmdline_for_rootdir(argv.data(), argc, &record);
    rta_parse_command_line(argv.data(), argc, &record);
    return 0;
}
