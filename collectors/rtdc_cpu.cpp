// The host-wide processor class "Cpu" and the percentage arithmetic shared with the
// per-processor class.
#include "collectors/rtdc_cpu.h"

#include "collectors/rtdc_rate.h"

#include "collectors/rtdc_complain.h"
#include "packet/rtdc_output.h"

double CpuUtil = 0.0;
CpuRecord rtdc_cpu_record{};

namespace {
platform::CpuTicks previous_sums;  // zero at start: the first figures average since boot
platform::CpuSample sample;        // reused between scans
Complaint cpu_failures;

struct Percentages {
    double total, user, system, idle, wait;
};

Percentages percentages(uint64_t idle, uint64_t user, uint64_t kernel, uint64_t wait) {
    double t = static_cast<double>(idle) + static_cast<double>(user) + static_cast<double>(kernel) +
               static_cast<double>(wait);
    if (t == 0) t = 1.0;  // no tick passed: every figure is 0
    Percentages p;
    p.system = static_cast<double>(kernel) / t * 100.0;
    p.user = static_cast<double>(user) / t * 100.0;
    p.wait = static_cast<double>(wait) / t * 100.0;
    p.idle = static_cast<double>(idle) / t * 100.0;
    // Waiting for I/O is idle time with a reason, not work: it stays out of the total.
    p.total = p.user + p.system;
    if (p.total > 100.0) p.total = 100.0;
    if (p.total < 0.0) p.total = 0.0;
    return p;
}
}  // namespace

platform::CpuTicks rtdc_tick_deltas(const platform::CpuTicks& now,
                                    const platform::CpuTicks& before) {
    return {rtdc_counter_delta(now.idle, before.idle), rtdc_counter_delta(now.user, before.user),
            rtdc_counter_delta(now.kernel, before.kernel),
            rtdc_counter_delta(now.wait, before.wait)};
}

int PerfCpu(const uint64_t* deltas, CpuRecord* record) {
    if (!deltas) {
        *record = CpuRecord{};
        return 0;
    }
    Percentages p = percentages(deltas[0], deltas[1], deltas[2], deltas[3]);
    record->total = p.total;
    record->user = p.user;
    record->system = p.system;
    record->idle = p.idle;
    record->wait = p.wait;
    CpuUtil = p.total;
    return 1;
}

int PerfMachine(ProcessorState* state, MachineRecord* record) {
    platform::CpuTicks d = rtdc_tick_deltas(state->current, state->previous);
    Percentages p = percentages(d.idle, d.user, d.kernel, d.wait);
    record->total = p.total;
    record->user = p.user;
    record->system = p.system;
    record->idle = p.idle;
    record->wait = p.wait;
    record->cpu_id = state->number;
    record->clock_mhz = state->clock_mhz;
    return 1;
}

int GetCPUClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers, int header_flag,
                    int /*verbose*/) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_cpu(out, header_flag);
}

int rtdc_collect_cpu(ClassOutput& out, int header_flag) {
    platform::ReadStatus status = platform::read_cpu(sample, false);
    if (status != platform::ReadStatus::ok) {
        cpu_failures.fail(status == platform::ReadStatus::open_failed ? "kstat_open failed\n"
                                                                      : "kstat_read failed\n");
        return 0;
    }
    cpu_failures.ok();
    const platform::CpuTicks& sums = sample.total;
    if (header_flag == 1) {
        PerfCpu(nullptr, &rtdc_cpu_record);
        out.announce("Cpu", CPUCounters, &rtdc_cpu_record);
    } else {
        platform::CpuTicks d = rtdc_tick_deltas(sums, previous_sums);
        const uint64_t deltas[4] = {d.idle, d.user, d.kernel, d.wait};
        PerfCpu(deltas, &rtdc_cpu_record);
        out.report(&rtdc_cpu_record, CPUCounters);
    }
    previous_sums = sums;
    return 1;
}

void rtdc_cpu_reset_for_tests() {
    previous_sums = platform::CpuTicks{};
    rtdc_cpu_record = CpuRecord{};
    CpuUtil = 0.0;
    cpu_failures.ok();
}
