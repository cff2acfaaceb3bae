// The per-processor class: one "Cpu" instance per processor present, named " <n>->..." by
// its dense number. Processors come and go (hot-plug, a host that turns CPUs off line), so
// state is kept by the kernel's processor number, grows when a higher number appears, and
// is never indexed by a count taken at start-up.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "collectors/rtdc_complain.h"
#include "collectors/rtdc_cpu.h"
#include "packet/rtdc_output.h"

namespace {
std::vector<std::unique_ptr<ProcessorState>> states;  // indexed by kernel processor number
platform::CpuSample sample;
Complaint machine_failures;

ProcessorState& state_for(int kernel_cpu) {
    if (static_cast<size_t>(kernel_cpu) >= states.size()) states.resize(kernel_cpu + 1);
    auto& slot = states[kernel_cpu];
    if (!slot) {
        slot = std::make_unique<ProcessorState>();
        slot->kernel_cpu = kernel_cpu;
    }
    return *slot;
}

// The copy is named after the processor's current number; a header pass renames it when
// processors before it went off line or came back.
bool name_table(ProcessorState& s) {
    char instance[24];
    snprintf(instance, sizeof instance, " %d", s.number);
    if (!s.table) {
        s.table = rtdc_instance_table(MachineCounters, MAC_FIELDS(), instance);
        return s.table != nullptr;
    }
    for (int i = 0; i + 1 < MAC_FIELDS() && MachineCounters[i].id != 0; ++i)
        snprintf(s.table[i].name, sizeof s.table[i].name, "%s->%s", instance,
                 MachineCounters[i].name);
    return true;
}
}  // namespace

ProcessorState* rtdc_processor_state(int kernel_cpu) {
    if (kernel_cpu < 0 || static_cast<size_t>(kernel_cpu) >= states.size()) return nullptr;
    return states[kernel_cpu].get();
}

int GetMachineClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers,
                        int header_flag, int /*verbose*/) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_machine(out, header_flag);
}

int rtdc_collect_machine(ClassOutput& out, int header_flag) {
    platform::ReadStatus status = platform::read_cpu(sample, header_flag == 1);
    if (status != platform::ReadStatus::ok) {
        machine_failures.fail(status == platform::ReadStatus::open_failed
                                  ? "kstat_open failedin machine info\n"
                                  : "kstat_read failed\n");
        return 0;
    }
    machine_failures.ok();
    for (auto& s : states)
        if (s) s->present = false;

    int p = 0;
    for (const platform::ProcessorTicks& pt : sample.processors) {
        if (pt.cpu < 0) continue;
        ProcessorState& s = state_for(pt.cpu);
        s.number = p++;
        s.present = true;
        s.current = pt.ticks;
        if (header_flag == 1) {
            s.clock_mhz = pt.clock_mhz;
            if (name_table(s)) {
                s.record.cpu_id = s.number;
                s.record.clock_mhz = s.clock_mhz;
                out.announce("Cpu", s.table, &s.record);
            }
        } else if (s.table) {
            // A processor that appeared since the last header pass has no ids the console
            // knows; it is reported from the next header pass on.
            PerfMachine(&s, &s.record);
            out.report(&s.record, s.table);
        }
        s.previous = s.current;
    }
    return 1;
}

void rtdc_machine_reset_for_tests() {
    for (auto& s : states)
        if (s) free(s->table);
    states.clear();
}
