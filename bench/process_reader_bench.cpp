// The process reader against the bare reads it cannot avoid, on this host's /proc.
//
// BM_ReadProcesses runs platform::read_processes as a scan of known processes does (the
// owner by fstatat, stat, statm and io opened from the proc root, parsed into samples; the
// uid already known, so status is not read). BM_BareReads lists /proc, takes the same
// fstatat and opens, reads and closes the same three files by full path, parsing nothing.
// Compare the two times of one run: their ratio is the reader's overhead per process.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "platform/process.h"

namespace {

void count(const platform::ProcessSample& sample, void* arg) {
    *static_cast<uint64_t*>(arg) += sample.utime + sample.rchar;
}

bool uid_known(const platform::ProcessSample&, uint32_t& uid, void*) {
    uid = 0;
    return true;
}

void BM_ReadProcesses(benchmark::State& state) {
    uint64_t sink = 0;
    int processes = 0;
    for (auto _ : state) processes = platform::read_processes(count, &sink, uid_known);
    benchmark::DoNotOptimize(sink);
    state.counters["processes"] = processes;
}
BENCHMARK(BM_ReadProcesses)->Unit(benchmark::kMillisecond);

void BM_BareReads(benchmark::State& state) {
    char buf[8192];
    char path[64];
    uint64_t bytes = 0;
    int processes = 0;
    for (auto _ : state) {
        processes = 0;
        DIR* dir = opendir("/proc");
        while (dirent* e = dir ? readdir(dir) : nullptr) {
            if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
            ++processes;
            struct stat owner;
            snprintf(path, sizeof path, "/proc/%s", e->d_name);
            if (stat(path, &owner) == 0) bytes += owner.st_uid & 1;
            for (const char* file : {"stat", "statm", "io"}) {
                snprintf(path, sizeof path, "/proc/%s/%s", e->d_name, file);
                int fd = open(path, O_RDONLY | O_CLOEXEC);
                if (fd < 0) continue;
                ssize_t n = read(fd, buf, sizeof buf);
                close(fd);
                if (n > 0) bytes += static_cast<uint64_t>(n);
            }
        }
        if (dir) closedir(dir);
    }
    benchmark::DoNotOptimize(bytes);
    state.counters["processes"] = processes;
}
BENCHMARK(BM_BareReads)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
