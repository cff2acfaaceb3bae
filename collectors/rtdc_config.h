// The configuration class: the host described once (collector, memory, processors,
// platform, names, address, time zone, intervals).
#pragma once

#include <cstdint>

#include "collectors/rtdc_tables.h"

/// Physical memory in kilobytes; set at start-up, read by the memory class.
extern int64_t phymem;
/// The configuration record as GetConfigInfoORIG last filled it.
extern ConfigRecord rtdc_config_record;

int64_t GetPhyMem();
/// Platform text in a process-wide 1024-byte buffer, overwritten on each call.
char* GetPlatform();
int GetNoCPUs();
/// Sets phymem. Always 1.
int GetConfigInfo();
/// Fills rtdc_config_record with the given scan and dump intervals (seconds); ends the
/// process with status 1 when the host's own name does not resolve.
int GetConfigInfoORIG(int scan_interval, int dump_interval);
/// The filling itself: 1, or 0 when the name lookup failed (the record is then partly set).
int rtdc_fill_config(ConfigRecord* record, int scan_interval, int dump_interval);
