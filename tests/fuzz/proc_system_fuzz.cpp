// The system-wide kernel files: the input's NUL-separated pieces become, in order, the files
// below, written into a scratch tree the readers are pointed at; then every reader runs.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "platform/kernel.h"
#include "platform/source.h"

namespace {

// In the order the input's pieces fill them; files past the last piece are left empty.
const char* const kFiles[] = {
    "proc/stat",
    "proc/cpuinfo",
    "proc/meminfo",
    "proc/vmstat",
    "proc/diskstats",
    "proc/net/snmp",
    "proc/net/netstat",
    "proc/kallsyms",
    "sys/devices/system/cpu/online",
    "sys/devices/system/cpu/cpu0/cpufreq/scaling_cur_freq",
    "sys/devices/virtual/dmi/id/product_name",
};
constexpr size_t kFileCount = sizeof kFiles / sizeof kFiles[0];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string& root = fuzz::scratch();
    for (const char* file : kFiles) fuzz::write_file(root + "/" + file, "");
    platform::set_roots({root + "/proc", root + "/sys", root + "/proc/self/mounts"});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string_view> pieces = fuzz::split(data, size, kFileCount);
    for (size_t i = 0; i < kFileCount; ++i)
        fuzz::write_file(fuzz::scratch() + "/" + kFiles[i], i < pieces.size() ? pieces[i] : "");

    static platform::CpuSample cpu;
    platform::read_cpu(cpu, true);
    platform::MemoryInfo memory;
    platform::read_memory(memory);
    platform::PagingCounters paging;
    platform::read_paging(paging);
    static std::vector<platform::DiskDevice> disks;
    platform::read_disks(disks);
    platform::NetProtoCounters net;
    platform::read_net(net);
    const char* const symbols[] = {"nproc", "avenrun", "max_nprocs"};
    uint64_t addresses[3];
    platform::find_kernel_symbols(symbols, addresses, 3);
    platform::online_processors();
    platform::platform_name();
    return 0;
}
