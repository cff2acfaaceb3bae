#include "collectors/rtdc_kernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/kernel.h"

int kmem = -1;
char KernelDev[256] = "/dev/kmem";

namespace {
char string_buffer[1024];

template <typename T>
T read_scalar(uint64_t address) {
    T value{};
    if (GetKData(address, &value, sizeof value) != static_cast<int>(sizeof value)) return T{};
    return value;
}
}  // namespace

int OpenKernel() {
    if (kmem >= 0) return 1;
    kmem = open(KernelDev, O_RDONLY | O_CLOEXEC);
    return kmem >= 0 ? 1 : 0;
}

void CloseKernel() {
    if (kmem >= 0) close(kmem);
    kmem = -1;
}

int Position(uint64_t address) {
    if (kmem < 0) return 0;
    // Kernel addresses lie in the top half of the 64-bit space; the device takes them as
    // unsigned offsets, so the negative off_t is expected and only errno tells failure.
    errno = 0;
    off_t at = lseek(kmem, static_cast<off_t>(address), SEEK_SET);
    if (at == static_cast<off_t>(-1) && errno != 0) return 0;
    return 1;
}

int GetKData(uint64_t address, void* buffer, int length) {
    if (length < 0 || !buffer) return -1;
    if (!Position(address)) return 0;
    ssize_t n;
    do {
        n = read(kmem, buffer, static_cast<size_t>(length));
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : static_cast<int>(n);
}

uint64_t GetKAddr(uint64_t address) {
    return read_scalar<uint64_t>(address);
}
int64_t GetKLong(uint64_t address) {
    return read_scalar<int64_t>(address);
}
int32_t GetKInt(uint64_t address) {
    return read_scalar<int32_t>(address);
}
int16_t GetKShort(uint64_t address) {
    return read_scalar<int16_t>(address);
}
uint8_t GetKByte(uint64_t address) {
    return read_scalar<uint8_t>(address);
}

char* GetKString(uint64_t address) {
    int n = GetKData(address, string_buffer, sizeof string_buffer - 1);
    string_buffer[n > 0 ? n : 0] = '\0';
    return string_buffer;
}

int kernlist(KernelSymbol* list) {
    if (!list) return -1;
    std::vector<const char*> names;
    for (KernelSymbol* s = list; s->n_name; ++s) names.push_back(s->n_name);
    std::vector<uint64_t> addresses(names.size());
    int missing = platform::find_kernel_symbols(names.data(), addresses.data(),
                                                static_cast<int>(names.size()));
    for (size_t i = 0; i < names.size(); ++i) list[i].n_value = addresses[i];
    return missing;
}
