// The memory and paging class: memory in use as a level, paging as events per second.
#include "collectors/rtdc_metric.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collectors/rtdc_complain.h"
#include "collectors/rtdc_rate.h"
#include "packet/rtdc_output.h"
#include "platform/clock.h"

MetricRecord rtdc_metric_record{};

namespace {
constexpr const char* kClass = "Memory";

platform::PagingCounters previous_paging;  // zero at boot: the first rates average since boot
RtdcInterval paging_interval;
Complaint memory_failures;
Complaint paging_failures;

void complain(Complaint& complaint, const char* what) {
    char text[256];
    snprintf(text, sizeof text, "GetMetricClassInfo: cannot read %s: %s\n", what, strerror(errno));
    complaint.fail(text);
}
}  // namespace

int PerfMetric(const MetricSample* sample, MetricRecord* record) {
    double total_mb = static_cast<double>(sample->total_kb) / 1024.0;
    double free_mb = static_cast<double>(sample->free_kb) / 1024.0;
    snprintf(record->sysmem, sizeof record->sysmem, "%lld",
             static_cast<long long>(sample->total_kb / 1024));
    record->spare = 0;
    record->free_mb = free_mb;
    record->used_mb = total_mb - free_mb;
    record->mem_util = total_mb > 0 ? record->used_mb / total_mb * 100.0 : 0.0;
    if (sample->seconds <= 0) return 1;

    const platform::PagingCounters& p = sample->paging;
    double seconds = sample->seconds;
    record->paging_total = rtdc_per_second(p.faults, seconds);
    record->major_faults = rtdc_per_second(p.major_faults, seconds);
    // Faults resolved without I/O: the address-space faults of the original accounting.
    record->as_faults = rtdc_per_second(rtdc_counter_delta(p.faults, p.major_faults), seconds);
    record->paging_io = rtdc_per_second(p.pages_in + p.pages_out, seconds);
    // The kernel keeps no count of these kinds of fault.
    record->cow_faults = record->zfod_faults = record->prot_faults = 0;
    record->softlock_faults = record->kernel_faults = record->hat_faults = 0;
    return 1;
}

int GetMetricClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers,
                       int header_flag, int /*verbose*/) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_metric(out, header_flag);
}

int rtdc_collect_metric(ClassOutput& out, int header_flag) {
    platform::MemoryInfo memory;
    if (!platform::read_memory(memory)) {
        complain(memory_failures, "memory figures");
        return 0;
    }
    memory_failures.ok();
    MetricSample sample;
    sample.total_kb = memory.total_kb;
    sample.free_kb = memory.free_kb;

    if (header_flag == 1) {
        // Only the memory size is an attribute sent with the headers; the paging baseline
        // stays, so the first data pass still reports rates since the last sample (or boot).
        PerfMetric(&sample, &rtdc_metric_record);
        out.announce(kClass, MetricCounters, &rtdc_metric_record);
        return 1;
    }

    platform::PagingCounters paging;
    if (platform::read_paging(paging)) {
        paging_failures.ok();
        double now = platform::seconds_since_boot();
        sample.seconds = paging_interval.elapsed(now);
        if (sample.seconds > 0) {
            sample.paging.faults = rtdc_counter_delta(paging.faults, previous_paging.faults);
            sample.paging.major_faults =
                rtdc_counter_delta(paging.major_faults, previous_paging.major_faults);
            sample.paging.pages_in = rtdc_counter_delta(paging.pages_in, previous_paging.pages_in);
            sample.paging.pages_out =
                rtdc_counter_delta(paging.pages_out, previous_paging.pages_out);
            previous_paging = paging;
            paging_interval.advance(now);
        }
    } else {
        complain(paging_failures, "paging counters");  // memory figures still go out
    }
    PerfMetric(&sample, &rtdc_metric_record);
    out.report(&rtdc_metric_record, MetricCounters);
    return 1;
}

void rtdc_metric_reset_for_tests() {
    previous_paging = platform::PagingCounters{};
    paging_interval.reset();
    rtdc_metric_record = MetricRecord{};
    memory_failures.ok();
    paging_failures.ok();
}
