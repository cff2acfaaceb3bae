// The mount table: any bytes as the mounts file, listed as the file-system class lists it.
#include <vector>

#include "fuzz_support.h"
#include "platform/source.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string& root = fuzz::scratch();
    platform::set_roots({root + "/proc", root + "/sys", root + "/mounts"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::write_file(fuzz::scratch() + "/mounts",
                     std::string_view(reinterpret_cast<const char*>(data), size));
    std::vector<platform::MountEntry> mounts;
    platform::read_mounts(mounts);
    return 0;
}
