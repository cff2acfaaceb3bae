// Host description on Linux: sysconf for memory and processors, the DMI product name for
// the platform (absent in many virtual machines and containers), uname, and the resolver.
#include "platform/config.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/roots.h"

namespace platform {

int64_t physical_memory_kb() {
    long pages = sysconf(_SC_PHYS_PAGES);
    long page_size = getpagesize();
    if (pages < 0) return 0;
    return static_cast<int64_t>(pages) * page_size / 1024;
}

int configured_processors() {
    long n = sysconf(_SC_NPROCESSORS_CONF);
    return n > 0 ? static_cast<int>(n) : 1;
}

std::string platform_name() {
    std::string name;
    if (FILE* f = fopen((roots().sys + "/devices/virtual/dmi/id/product_name").c_str(), "re")) {
        char line[256];
        if (fgets(line, sizeof line, f)) name = line;
        fclose(f);
    }
    while (!name.empty() && (name.back() == '\n' || name.back() == ' ' || name.back() == '\t'))
        name.pop_back();
    if (!name.empty()) return name;
    SystemNames names;
    return system_names(names) ? names.machine : std::string();
}

bool system_names(SystemNames& out) {
    utsname u{};
    if (uname(&u) != 0) return false;
    out.nodename = u.nodename;
    out.sysname = u.sysname;
    out.release = u.release;
    out.version = u.version;
    out.machine = u.machine;
    return true;
}

namespace {
bool resolve(const std::string& name, int family, HostAddress& out) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* result = nullptr;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &result) != 0 || !result) return false;
    out.canonical = result->ai_canonname ? result->ai_canonname : name;
    char text[INET6_ADDRSTRLEN] = "";
    if (getnameinfo(result->ai_addr, result->ai_addrlen, text, sizeof text, nullptr, 0,
                    NI_NUMERICHOST) == 0)
        out.address = text;
    freeaddrinfo(result);
    return true;
}
}  // namespace

bool lookup_host(const std::string& name, HostAddress& out) {
    // Consoles expect a dotted IPv4 address; a host known only by IPv6 still resolves.
    return resolve(name, AF_INET, out) || resolve(name, AF_UNSPEC, out);
}

}  // namespace platform
