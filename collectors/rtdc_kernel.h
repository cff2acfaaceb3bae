// Values read straight out of kernel memory through the kernel memory device, with symbol
// addresses from the kernel's symbol table. Most hosts have no such device or do not let
// the agent open it; everything here is optional. Collection thread only.
#pragma once

#include <cstdint>

extern int kmem;             // descriptor of the device, -1 while closed
extern char KernelDev[256];  // path of the device, "/dev/kmem"

/// One entry of a symbol list for kernlist; the list ends at a null name.
struct KernelSymbol {
    const char* n_name;
    uint64_t n_value;  // address, 0 when not found
};

int OpenKernel();
void CloseKernel();
/// Moves to an absolute kernel address; 1 on success, 0 on failure.
int Position(uint64_t address);
/// Scalar readers: the value in the host's byte order, 0 when it cannot be read.
uint64_t GetKAddr(uint64_t address);
int64_t GetKLong(uint64_t address);
int32_t GetKInt(uint64_t address);
int16_t GetKShort(uint64_t address);
uint8_t GetKByte(uint64_t address);
/// Bytes read, 0 when the address cannot be reached, -1 when the read fails.
int GetKData(uint64_t address, void* buffer, int length);
/// Up to 1023 bytes at the address, NUL-terminated, in one buffer shared by every call
/// (valid until the next call); empty when nothing could be read.
char* GetKString(uint64_t address);
/// Fills n_value of each entry; the number of names not found, -1 when the symbol table
/// cannot be read.
int kernlist(KernelSymbol* list);
