// The disk class. Devices are tracked by the kernel's name: the set announced to the console
// is fixed at each header pass (a device that appears later is announced at the next one),
// and a device keeps its state for the whole run, because the metric tree holds the address
// of its record.
#include "collectors/rtdc_disk.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "collectors/rtdc_complain.h"
#include "collectors/rtdc_rate.h"
#include "packet/rtdc_output.h"

int DiskCount = 0;

namespace {
constexpr const char* kClass = "Disk";

struct DiskInstance {
    std::string name;
    DiskState state{};            // the counters of the last read
    platform::DiskIo previous{};  // zero until first seen: a first interval runs from boot
    bool present = false;         // in the last read
    DiskRecord record{};
    CounterDef* table = nullptr;  // "<device>->..." copy of DiskCounters
    ~DiskInstance() { free(table); }
};

std::vector<std::unique_ptr<DiskInstance>> instances;  // never shrinks while the agent runs
std::unordered_map<std::string, DiskInstance*> by_name;
std::vector<DiskInstance*> listed;  // announced at the last header pass, in the kernel's order
bool listed_once = false;
std::vector<platform::DiskDevice> devices;  // reused between scans
Complaint failures;

DiskInstance* instance_for(const char* name) {
    auto found = by_name.find(name);
    if (found != by_name.end()) return found->second;
    auto made = std::make_unique<DiskInstance>();
    made->name = name;
    DiskInstance* instance = made.get();
    instances.push_back(std::move(made));
    by_name.emplace(instance->name, instance);
    return instance;
}

void relist() {
    listed.clear();
    for (const platform::DiskDevice& device : devices) {
        DiskInstance* instance = instance_for(device.name);
        if (!instance->table)
            instance->table = rtdc_instance_table(DiskCounters, DISK_FIELDS(), device.name);
        if (instance->table) listed.push_back(instance);
    }
    listed_once = true;
    DiskCount = static_cast<int>(listed.size());
}

platform::DiskIo growth(const platform::DiskIo& now, const platform::DiskIo& before) {
    // Every field, queue lengths included: a shrinking queue is reported as 0, like a
    // counter that started again after the device was re-created.
    platform::DiskIo d;
    d.nread = rtdc_counter_delta(now.nread, before.nread);
    d.nwritten = rtdc_counter_delta(now.nwritten, before.nwritten);
    d.reads = rtdc_counter_delta(now.reads, before.reads);
    d.writes = rtdc_counter_delta(now.writes, before.writes);
    d.wtime = rtdc_counter_delta(now.wtime, before.wtime);
    d.wlentime = rtdc_counter_delta(now.wlentime, before.wlentime);
    d.wlastupdate = rtdc_counter_delta(now.wlastupdate, before.wlastupdate);
    d.rtime = rtdc_counter_delta(now.rtime, before.rtime);
    d.rlentime = rtdc_counter_delta(now.rlentime, before.rlentime);
    d.rlastupdate = rtdc_counter_delta(now.rlastupdate, before.rlastupdate);
    d.wcnt = rtdc_counter_delta(now.wcnt, before.wcnt);
    d.rcnt = rtdc_counter_delta(now.rcnt, before.rcnt);
    return d;
}

int32_t clamp32(uint64_t v) {
    return v > INT32_MAX ? INT32_MAX : static_cast<int32_t>(v);
}
}  // namespace

int PerfDisk(const DiskState* state, DiskRecord* record) {
    snprintf(record->name, sizeof record->name, "%s", state->name);
    const platform::DiskIo& io = state->io;
    record->total_ops = static_cast<double>(io.reads) + static_cast<double>(io.writes);
    record->total_transfers = static_cast<double>(io.nread + io.nwritten);
    record->waiting = clamp32(io.wcnt);
    record->running = clamp32(io.rcnt);
    return 1;
}

int GetDiskClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers, int header_flag,
                     int /*verbose*/) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_disk(out, header_flag);
}

int rtdc_collect_disk(ClassOutput& out, int header_flag) {
    if (!platform::read_disks(devices)) {
        failures.fail("kstat_open failed in disk info\n");
        return 0;
    }
    failures.ok();
    if (header_flag == 1 || !listed_once) relist();
    for (auto& instance : instances) instance->present = false;
    for (const platform::DiskDevice& device : devices) {
        auto found = by_name.find(device.name);
        if (found == by_name.end()) continue;  // not announced yet: waits for a header pass
        found->second->state.io = device.io;
        found->second->present = true;
    }

    for (DiskInstance* d : listed) {
        if (header_flag == 1) {
            PerfDisk(&d->state, &d->record);  // totals since boot
            out.announce(kClass, d->table, &d->record);
        } else {
            // A device gone since the header pass did nothing in this interval.
            DiskState working{};
            if (d->present) working.io = growth(d->state.io, d->previous);
            PerfDisk(&working, &d->record);
            out.report(&d->record, d->table);
        }
        if (d->present) d->previous = d->state.io;
    }
    return 1;
}

const DiskRecord* rtdc_disk_record(const char* device) {
    for (DiskInstance* d : listed)
        if (d->name == device) return &d->record;
    return nullptr;
}

void rtdc_disk_reset_for_tests() {
    listed.clear();
    by_name.clear();
    instances.clear();
    devices.clear();
    listed_once = false;
    DiskCount = 0;
    failures.ok();
}
