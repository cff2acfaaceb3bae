// One pass over the enabled classes: a header pass builds the packet that teaches the
// console every counter, a data pass the packet of current values.
#include "packet/rtdc_snapshot.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"
#include "packet/rtdc_process_headers.h"
#include "packet/rtdc_state.h"

namespace {

// The classes in pass order. The all-classes switch covers every class but processes,
// which are costly enough to need their own switch.
SnapshotClass classes[] = {
    {"GetCPUCLassInfo", "GetCPUClassInfo", true, &RtaCmdline::class_cpu, true, GetCPUClassInfo,
     "vornrta: error getcpu class...\n"},
    {"GetMachineClassInfo", "GetMachineClassInfo", false, &RtaCmdline::class_processor, true,
     GetMachineClassInfo, "vornrta: error getmachine class...\n"},
    {"GetMetricClassInfo", "GetMetricClassInfo", false, &RtaCmdline::class_vm, true,
     GetMetricClassInfo, "vornrta: error get metric class...\n"},
    {"GetDiskClassInfo", "GetDiskClassInfo", true, &RtaCmdline::class_disk, true, GetDiskClassInfo,
     "vornrta: error getdisk class...\n"},
    {"GetNetClassInfo", "GetNetClassInfo", false, &RtaCmdline::class_net, true, GetNetClassInfo,
     "vornrta: GetNetClassInfo returned error ...\n"},
    {"GetFsClassInfo", "GetFsStatClassInfo", false, &RtaCmdline::class_fs, true, GetFsStatClassInfo,
     "vornrta: error get fs class...\n"},
    {"GetProcessClassInfo", "GetProcessClassInfo", true, &RtaCmdline::class_process, false,
     GetProcessClassInfo, "error get process class..."},
};

bool enabled(const SnapshotClass& c, const RtaCmdline* settings) {
    if (settings->*c.own_switch == 1) return true;
    return c.all_switch && settings->collect_default == 1;
}

}  // namespace

SnapshotClass* rtdc_snapshot_classes(int* count) {
    *count = static_cast<int>(sizeof classes / sizeof classes[0]);
    return classes;
}

int SnapshotHeader(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
                   int* buffer_count) {
    std::lock_guard<std::recursive_mutex> pass(snapshot_mutex);
    const int verbose = settings->verbose;
    ProcessHeaderLines& process_headers = rtdc_pass_process_headers();
    process_headers.clear();
    for (const SnapshotClass& c : classes) {
        if (!enabled(c, settings)) continue;
        if (verbose)
            rtdc_logf("SnapshotHeader: Call  %s ..(Headers %d, Databufs %d)\n", c.header_label,
                      *header_count, *buffer_count);
        c.collect(headers, header_count, buffers, buffer_count, 1, verbose);
    }
    if (verbose)
        rtdc_logf(
            "SnapshotHeader: building packet ..(Headers %d, Databufs %d)  (Header Len %d, "
            "DataLen %d)\n",
            *header_count, *buffer_count, n_rtdc_header_len, n_rtdc_data_len);

    const int entries = *header_count + process_headers.entries();
    if (entries >= kMaxLines) {
        rtdc_logf("FATAL: Too many metrics! %d \n", entries);
        printf("FATAL: Too many metrics! %d \n", entries);
    }
    // A header packet also carries whatever data strings exist.
    if (start_rtdc == 1)
        rtdc_send_lines(ctrl_sock,
                        {headers, *header_count, &process_headers, buffers, *buffer_count});
    else
        rtdc_skip_packet();
    process_headers.clear();
    FirstPass = 0;
    counter_added = 1;
    return 1;
}

int Snapshot(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
             int* buffer_count, int send) {
    std::lock_guard<std::recursive_mutex> pass(snapshot_mutex);
    const int verbose = settings->verbose;
    for (const SnapshotClass& c : classes) {
        if (!enabled(c, settings)) continue;
        if (verbose && c.log_data_call)
            rtdc_logf("Snapshot: Call  %s ..(Headers %d, Databufs %d)\n", c.data_label,
                      *header_count, *buffer_count);
        if (c.collect(headers, header_count, buffers, buffer_count, 0, verbose) < 0) {
            fputs(c.error_text, stdout);
            fflush(stdout);
        }
    }
    if (verbose)
        rtdc_logf(
            "Snapshot: building packet ..(Headers %d, Databufs %d)  (Header Len %d, "
            "DataLen %d)\n",
            *header_count, *buffer_count, n_rtdc_header_len, n_rtdc_data_len);

    // A data packet never carries header lines, even ones a collector appended just now.
    if (send == 1 && start_rtdc == 1)
        rtdc_send_lines(ctrl_sock, {nullptr, 0, nullptr, buffers, *buffer_count});
    else
        rtdc_skip_packet();
    if (verbose) RTDCAppendLog("Snapshot:  returning...\n");
    return 1;
}
