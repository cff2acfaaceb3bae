// The process class: one instance per process, rates over the time between two scans.
// GetProcessClassInfo itself is declared with the other classes in packet/rtdc_snapshot.h.
#pragma once

#include <cstdint>

#include "collectors/rtdc_output.h"
#include "collectors/rtdc_proclist.h"
#include "platform/process.h"

/// Rates are not recomputed over less than this many seconds: a data pass that follows a
/// header pass at once would otherwise report the noise of a few milliseconds. The earlier
/// figures stand and the interval keeps growing until the next pass.
inline constexpr double kMinRateSeconds = 0.5;

/// Brings a process's record up to date from a fresh sample. `is_new`: the first sample of
/// this process, whose rates are its averages since it started. Percentages are shares of
/// all `processors` together, so the processes add up to the host's utilisation. Returns the
/// CPU ticks the process used in the interval (0 when the figures were kept).
uint64_t PerfProcess(ProcessInfo& info, const platform::ProcessSample& sample, bool is_new,
                     uint64_t ticks_per_second, int processors);

/// Forgets every known process (taking them out of the metric tree) so that the next pass
/// starts afresh.
void rtdc_process_reset();

/// The class's pass through `out`: a header pass announces every known process (scanning
/// first if no scan ran yet), a data pass scans and reports. 1, or 0 when the processes
/// cannot be listed; 1 without doing anything while process collection is off.
int rtdc_collect_process(ClassOutput& out, int header_flag);
