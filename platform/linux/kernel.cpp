// /proc/kallsyms: "address type name [module]" per line, one line per symbol. Without the
// privilege to see kernel addresses (kptr_restrict) every address reads as zero.
#include "platform/kernel.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/linux/proc_file.h"
#include "platform/roots.h"

namespace platform {

int find_kernel_symbols(const char* const* names, uint64_t* addresses, int count) {
    for (int i = 0; i < count; ++i) addresses[i] = 0;
    std::string path = roots().proc + "/kallsyms";
    FILE* table = fopen(path.c_str(), "re");
    if (!table) return -1;
    int missing = count;
    char line[512];
    // The table is large (a few hundred thousand lines): stream it rather than buffer it.
    while (missing > 0 && fgets(line, sizeof line, table)) {
        std::string_view rest(line, strcspn(line, "\n"));
        std::string_view address_text = procfs::next_token(rest);
        procfs::next_token(rest);  // symbol type
        std::string_view name = procfs::next_token(rest);
        if (name.empty() || address_text.size() > 16) continue;
        uint64_t address = 0;
        bool valid = true;
        for (char c : address_text) {
            int digit = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
            if (digit < 0) {
                valid = false;
                break;
            }
            address = address << 4 | static_cast<uint64_t>(digit);
        }
        if (!valid || address == 0) continue;
        for (int i = 0; i < count; ++i) {
            if (addresses[i] == 0 && names[i] && name == names[i]) {
                addresses[i] = address;
                --missing;
            }
        }
    }
    fclose(table);
    return missing;
}

}  // namespace platform
