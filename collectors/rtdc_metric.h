// Memory and paging class ("Memory", MetricCounters used in place).
#pragma once

#include <cstdint>

#include "collectors/rtdc_output.h"
#include "collectors/rtdc_tables.h"
#include "platform/memory.h"

/// The record MetricCounters' offsets point into; the metric tree reads it.
extern MetricRecord rtdc_metric_record;

/// What PerfMetric turns into the record.
struct MetricSample {
    uint64_t total_kb = 0;
    uint64_t free_kb = 0;
    platform::PagingCounters paging;  // events during the interval
    double seconds = 0;               // length of the interval; 0: no paging figures yet
};

/// Fills the memory figures and, when `seconds` > 0, the paging rates; with no interval the
/// paging figures keep their last values. Returns 1.
int PerfMetric(const MetricSample* sample, MetricRecord* record);

/// The class's pass (header_flag 1: announce, 0: report), through `out`. 1 on success, 0
/// when the memory figures cannot be read.
int rtdc_collect_metric(ClassOutput& out, int header_flag);

/// Test hook: forget the previous counters and figures.
void rtdc_metric_reset_for_tests();
