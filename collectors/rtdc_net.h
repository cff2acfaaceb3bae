// Network class ("Network", NetCounters used in place): TCP, UDP and IP rates.
#pragma once

#include "collectors/rtdc_output.h"
#include "collectors/rtdc_tables.h"
#include "platform/net.h"

/// The record NetCounters' offsets point into; the metric tree reads it.
extern NetRecord rtdc_net_record;

/// Fills the record from counter growth over `seconds`; `delta.tcp_curr_estab` is the
/// current number of connections, reported as it is. Returns 1, or 0 (record unchanged)
/// when `seconds` is not positive.
int PerfNet(const platform::NetProtoCounters* delta, double seconds, NetRecord* record);

/// The class's pass (header_flag 1: announce, 0: report), through `out`. 1 on success,
/// 0 when the protocol counters cannot be read.
int rtdc_collect_net(ClassOutput& out, int header_flag);

/// Test hook: forget the previous counters and figures.
void rtdc_net_reset_for_tests();
