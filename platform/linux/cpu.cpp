// Processor ticks from /proc/stat (proc(5)): the "cpu" line sums every possible processor,
// each "cpuN" line is one processor that is on line now. Fields, in USER_HZ ticks: user
// nice system idle iowait irq softirq steal guest guest_nice; guest time is already inside
// user and nice, so it is not added again. Older kernels print fewer fields.
#include "platform/cpu.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/roots.h"

namespace platform {
namespace {

// /proc/stat stays open between scans and is re-read from offset 0 into a buffer that grows
// to fit (hosts with many interrupt lines make it large). Only the collection thread reads.
struct StatFile {
    int fd = -1;
    unsigned generation = 0;
    std::vector<char> buffer = std::vector<char>(16384);
    size_t length = 0;
};
StatFile stat_file;

ReadStatus read_whole(StatFile& f, std::string* error) {
    const std::string path = roots().proc + "/stat";
    if (f.fd >= 0 && f.generation != roots_generation()) {
        close(f.fd);
        f.fd = -1;
    }
    if (f.fd < 0) {
        f.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (f.fd < 0) {
            if (error) *error = path + ": " + strerror(errno);
            return ReadStatus::open_failed;
        }
        f.generation = roots_generation();
    }
    for (;;) {
        ssize_t n = pread(f.fd, f.buffer.data(), f.buffer.size(), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (error) *error = path + ": " + strerror(errno);
            close(f.fd);  // reopened on the next scan
            f.fd = -1;
            return ReadStatus::read_failed;
        }
        if (static_cast<size_t>(n) < f.buffer.size()) {
            f.length = static_cast<size_t>(n);
            return ReadStatus::ok;
        }
        // The file did not fit: read it again, whole, into a larger buffer.
        f.buffer.resize(f.buffer.size() * 2);
    }
}

uint64_t parse_u64(const char*& p, const char* end) {
    while (p < end && *p == ' ') ++p;
    uint64_t v = 0;
    while (p < end && *p >= '0' && *p <= '9') v = v * 10 + static_cast<uint64_t>(*p++ - '0');
    return v;
}

CpuTicks parse_ticks(const char* p, const char* end) {
    uint64_t f[8] = {};
    for (uint64_t& field : f) {
        while (p < end && *p == ' ') ++p;
        if (p >= end || *p < '0' || *p > '9') break;
        field = parse_u64(p, end);
    }
    CpuTicks t;
    t.user = f[0] + f[1];
    t.kernel = f[2] + f[5] + f[6] + f[7];
    t.idle = f[3];
    t.wait = f[4];
    return t;
}

int read_int_file(const std::string& path, long long* value) {
    FILE* f = fopen(path.c_str(), "re");
    if (!f) return 0;
    int ok = fscanf(f, "%lld", value) == 1;
    fclose(f);
    return ok;
}

// "cpu MHz" of /proc/cpuinfo by processor number; empty where the architecture prints none.
std::map<int, int> cpuinfo_clocks() {
    std::map<int, int> clocks;
    FILE* f = fopen((roots().proc + "/cpuinfo").c_str(), "re");
    if (!f) return clocks;
    char line[512];
    int current = -1;
    while (fgets(line, sizeof line, f)) {
        const char* colon = strchr(line, ':');
        if (!colon) continue;
        if (strncmp(line, "processor", 9) == 0) {
            current = atoi(colon + 1);
        } else if (strncmp(line, "cpu MHz", 7) == 0 && current >= 0) {
            clocks[current] = static_cast<int>(strtod(colon + 1, nullptr));
        }
    }
    fclose(f);
    return clocks;
}

void fill_clocks(std::vector<ProcessorTicks>& processors) {
    bool cpuinfo_read = false;
    std::map<int, int> fallback;
    for (ProcessorTicks& p : processors) {
        long long khz = 0;
        const std::string freq = roots().sys + "/devices/system/cpu/cpu" + std::to_string(p.cpu) +
                                 "/cpufreq/scaling_cur_freq";
        if (read_int_file(freq, &khz) && khz > 0) {
            p.clock_mhz = static_cast<int>(khz / 1000);
            continue;
        }
        if (!cpuinfo_read) {
            fallback = cpuinfo_clocks();
            cpuinfo_read = true;
        }
        auto it = fallback.find(p.cpu);
        p.clock_mhz = it != fallback.end() ? it->second : 0;
    }
}

}  // namespace

ReadStatus read_cpu(CpuSample& out, bool with_clock, std::string* error) {
    out.total = CpuTicks{};
    out.processors.clear();
    if (ReadStatus status = read_whole(stat_file, error); status != ReadStatus::ok) return status;

    const char* p = stat_file.buffer.data();
    const char* end = p + stat_file.length;
    bool have_total = false;
    while (p < end) {
        const char* eol = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
        if (!eol) eol = end;
        if (eol - p < 4 || memcmp(p, "cpu", 3) != 0) {
            if (have_total || !out.processors.empty()) break;  // the cpu lines come first
            p = eol + 1;
            continue;
        }
        if (p[3] == ' ') {
            out.total = parse_ticks(p + 3, eol);
            have_total = true;
        } else if (p[3] >= '0' && p[3] <= '9') {
            const char* q = p + 3;
            ProcessorTicks pt;
            pt.cpu = static_cast<int>(parse_u64(q, eol));
            pt.ticks = parse_ticks(q, eol);
            out.processors.push_back(pt);
        }
        p = eol + 1;
    }
    if (!have_total && out.processors.empty()) {
        if (error) *error = roots().proc + "/stat: no processor lines";
        return ReadStatus::read_failed;
    }
    if (!have_total) {
        for (const ProcessorTicks& pt : out.processors) {
            out.total.idle += pt.ticks.idle;
            out.total.user += pt.ticks.user;
            out.total.kernel += pt.ticks.kernel;
            out.total.wait += pt.ticks.wait;
        }
    }
    if (with_clock) fill_clocks(out.processors);
    return ReadStatus::ok;
}

}  // namespace platform
