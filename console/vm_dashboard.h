// What the web dashboard reads from the hub: a measurement in a compact form (host-wide
// values by path, processes as table rows) and one summary row per agent for the fleet page.
// A host with thousands of processes makes the full JSON of a measurement megabytes long;
// the compact form names every process counter once, in a column list.
#pragma once

#include <cstdint>
#include <string>

#include "console/vm_model.h"

namespace vornmon {

struct AgentStatus;

/// {"agent","packet","time","interval","unix_ms","values":{path:number},
///  "texts":{path:text},"process_columns":[...],"processes":[[...],...]}
/// for one measurement taken at `unix_ms`.
std::string compact_sample_json(const std::string& agent, const Sample& sample,
                                std::int64_t unix_ms);

/// Host-wide figures of one agent for the fleet page, every rate per second. `latest` is
/// null before the first measurement.
struct FleetFigures {
    int processors = 0;
    double cpu = 0, user = 0, system = 0, wait = 0;
    double memory_util = 0, memory_total_mb = 0, memory_used_mb = 0;
    double disk_ops = 0, disk_bytes = 0;  // whole disks only: partitions would count twice
    double net_in = 0, net_out = 0;
    long processes = 0;
};
FleetFigures fleet_figures(const Sample& latest);

/// True when `name` is a partition of another device of `devices` (sda1 of sda,
/// nvme0n1p2 of nvme0n1, mmcblk0p1 of mmcblk0).
bool is_partition(const std::string& name, const std::vector<std::string>& devices);

/// One fleet row: the agent's status, its figures when it has measured, its recent
/// processor utilisation (oldest first, for a sparkline) and its rules.
std::string fleet_row_json(const AgentStatus& status, const Sample* latest,
                           const std::vector<double>& cpu_recent, int rules, int rules_firing);

}  // namespace vornmon
