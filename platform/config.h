// Host description: memory size, processor count, platform, names and address.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

/// Physical memory in kilobytes: physical pages times page size, divided by 1024.
int64_t physical_memory_kb();
/// Configured processors (on line or not).
int configured_processors();
/// The hardware's product name, else the machine type of the running kernel.
std::string platform_name();

struct SystemNames {
    std::string nodename;
    std::string sysname;  // operating-system name
    std::string release;
    std::string version;
    std::string machine;
};
bool system_names(SystemNames& out);

struct HostAddress {
    std::string canonical;  // the official (canonical) host name
    std::string address;    // first address, dotted (IPv4 preferred)
};
/// Resolves a host name; false when the name is unknown.
bool lookup_host(const std::string& name, HostAddress& out);

}  // namespace platform
