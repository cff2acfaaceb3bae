// The settings file: any bytes at the settings path, read into a fresh settings record.
#include <cstdio>

#include "control/rta_cmdline.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_stdout();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzz::scratch() + "/settings/rta_fuzzhost.config";
    fuzz::write_file(path, std::string_view(reinterpret_cast<const char*>(data), size));
    static RtaCmdline record;
    rta_init_command_line(&record);
    snprintf(record.config_file, sizeof record.config_file, "%s", path.c_str());
    rta_parse_startup_file(&record);
    return 0;
}
