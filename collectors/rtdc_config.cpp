// The configuration class. Only the memory size is needed at start-up; the full record is
// built on request and kept where a configuration packet would be sent from.
#include "collectors/rtdc_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "platform/config.h"

int64_t phymem = 0;
ConfigRecord rtdc_config_record{};

// The disk class owns this count; the weak definition only keeps this file linkable on its
// own (tests), and the disk class's definition takes its place in the agent.
__attribute__((weak)) int DiskCount = 0;

namespace {
template <size_t N>
void copy_field(char (&field)[N], const std::string& text) {
    snprintf(field, N, "%s", text.c_str());
}
}  // namespace

int64_t GetPhyMem() {
    return platform::physical_memory_kb();
}

char* GetPlatform() {
    static char text[1024];
    snprintf(text, sizeof text, "%s", platform::platform_name().c_str());
    return text;
}

int GetNoCPUs() {
    return platform::configured_processors();
}

int GetConfigInfo() {
    phymem = GetPhyMem();
    return 1;
}

int rtdc_fill_config(ConfigRecord* record, int scan_interval, int dump_interval) {
    DiskCount = 0;
    *record = ConfigRecord{};
    copy_field(record->coll_name, "Korrin for Sun SOLARIS");
    copy_field(record->coll_ver, "V60");
    copy_field(record->platform, GetPlatform());
    record->ncpus = GetNoCPUs();
    phymem = GetPhyMem();
    record->phymem = phymem;

    platform::SystemNames names;
    platform::system_names(names);
    // The short host name: the node name up to its first dot.
    copy_field(record->sysname, names.nodename.substr(0, names.nodename.find('.')));
    copy_field(record->osname, names.sysname);
    copy_field(record->osvers, names.release + " " + names.version);

    time_t now = time(nullptr);
    struct tm utc, local;
    gmtime_r(&now, &utc);
    localtime_r(&now, &local);
    record->gmtoff = static_cast<int32_t>(now - mktime(&utc));
    record->isdst = local.tm_isdst;
    record->scan_intvl = scan_interval * 100;  // hundredths of a second
    record->dump_intvl = dump_interval / 10;   // tens of seconds

    // The network name and address come last: a host whose own name does not resolve
    // still has every other field filled.
    platform::HostAddress host;
    if (!platform::lookup_host(names.nodename, host)) return 0;
    copy_field(record->netname, host.canonical);
    copy_field(record->ipaddr, host.address);
    return 1;
}

int GetConfigInfoORIG(int scan_interval, int dump_interval) {
    if (!rtdc_fill_config(&rtdc_config_record, scan_interval, dump_interval)) exit(1);
    return 1;
}
