// Raw processor time: cumulative ticks per processor, as the kernel counts them since boot.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// Ticks in the four states the agent reports.
struct CpuTicks {
    uint64_t idle = 0;
    uint64_t user = 0;
    uint64_t kernel = 0;
    uint64_t wait = 0;
};

/// One processor that is present (on line) now.
struct ProcessorTicks {
    int cpu = 0;  // the kernel's processor number; gaps where processors are off line
    CpuTicks ticks;
    int clock_mhz = 0;  // filled only when asked for; 0 when unknown
};

struct CpuSample {
    /// Host-wide ticks over every processor the kernel knows, including ones now off line
    /// (their counts are frozen), so the sum never steps back when a processor leaves.
    CpuTicks total;
    /// Present processors in the kernel's order; their position is the agent's dense
    /// processor number.
    std::vector<ProcessorTicks> processors;
};

enum class ReadStatus { ok, open_failed, read_failed };

/// Reads the processor counters. with_clock also reads each processor's clock, which costs
/// a file per processor and is only wanted when headers are built. The sample's vector keeps
/// its capacity between calls.
ReadStatus read_cpu(CpuSample& out, bool with_clock, std::string* error = nullptr);

}  // namespace platform
