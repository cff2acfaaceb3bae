// Processor classes: host-wide averages ("Cpu", CPUCounters) and one instance per
// processor (the machine class, MachineCounters named " <n>->...").
#pragma once

#include <cstdint>

#include "collectors/rtdc_output.h"
#include "collectors/rtdc_tables.h"
#include "platform/cpu.h"

/// The last host-wide overall utilisation; the process collector scales by it later in the
/// same pass.
extern double CpuUtil;
/// The host-wide record that CPUCounters' offsets point into (and the metric tree reads).
extern CpuRecord rtdc_cpu_record;

/// Host-wide percentages from four tick deltas: idle, user, kernel, wait. Null deltas zero
/// the record and return 0; otherwise 1. Also stores the overall figure in CpuUtil.
int PerfCpu(const uint64_t* deltas, CpuRecord* record);

/// What the machine class keeps per processor. States are never freed: the metric tree
/// holds the address of their records for the whole run.
struct ProcessorState {
    int number = 0;      // dense processor number at the last read
    int kernel_cpu = 0;  // the kernel's own number
    int clock_mhz = 0;
    platform::CpuTicks current;
    platform::CpuTicks previous;
    bool present = false;
    MachineRecord record{};
    CounterDef* table = nullptr;  // per-processor copy, made by the first header pass
};

/// One processor's percentages from its current and previous ticks; also copies the
/// processor number and clock into the record. Returns 1.
int PerfMachine(ProcessorState* state, MachineRecord* record);

/// The machine class's state for a kernel processor number, or null.
ProcessorState* rtdc_processor_state(int kernel_cpu);

/// Per-interval tick deltas; a counter that stepped back (the kernel's iowait can) gives 0.
platform::CpuTicks rtdc_tick_deltas(const platform::CpuTicks& now,
                                    const platform::CpuTicks& before);

/// The two classes' passes (header_flag 1: announce, 0: report), through `out`. 1 on
/// success, 0 when the processor counters cannot be read.
int rtdc_collect_cpu(ClassOutput& out, int header_flag);
int rtdc_collect_machine(ClassOutput& out, int header_flag);

/// Test hooks: forget previous ticks (host-wide class) and per-processor states (machine
/// class). Only while no metric tree refers to them.
void rtdc_cpu_reset_for_tests();
void rtdc_machine_reset_for_tests();
