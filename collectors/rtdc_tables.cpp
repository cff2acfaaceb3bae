// The compiled-in counter tables. Their texts are sent to consoles as they stand (leading
// blanks and odd spellings included): consoles match on them, so they are never "fixed".
#include "collectors/rtdc_tables.h"

#include <cstddef>
#include <cstdio>
#include <iterator>

#include "collectors/rtdc_value_types.h"
#include "packet/rtdc_buffer.h"

int32_t ConfigClassIDs = 0, ObjTypes = 0, MeasurementTypes = 0, BufTypes = 0, DebugTypes = 0;

#define OFF(record, field) static_cast<int32_t>(offsetof(record, field))

// Every configuration row is a data-only value described by its own name.
#define CONFIG_ROW(name, type, field) \
    { 1, OFF(ConfigRecord, field), name, type, name, 0, "", 0 }

CounterDef ConfigClass[] = {
    CONFIG_ROW("Config->_COLL_VER", kValueText, coll_ver),
    CONFIG_ROW("Config->_COLL_NAME", kValueText, coll_name),
    CONFIG_ROW("Config->_PHY_MEM", kValueLongLong, phymem),
    CONFIG_ROW("Config->_NCPUS", kValueInt32, ncpus),
    CONFIG_ROW("Config->_PLATFORM", kValueText, platform),
    CONFIG_ROW("Config->_SYSNAME", kValueText, sysname),
    CONFIG_ROW("Config->_GMTOFF", kValueInt32, gmtoff),
    CONFIG_ROW("Config->_OSNAME", kValueText, osname),
    CONFIG_ROW("Config->_OSVERS", kValueText, osvers),
    CONFIG_ROW("Config->_NETNAME", kValueText, netname),
    CONFIG_ROW("Config->_IPADDR", kValueText, ipaddr),
    CONFIG_ROW("Config->_ISDST", kValueInt32, isdst),
    CONFIG_ROW("Config->_SCAN_INTVL", kValueInt32, scan_intvl),
    CONFIG_ROW("Config->_DUMP_INTVL", kValueInt32, dump_intvl),
    {},
};

CounterDef CPUCounters[] = {
    {1, OFF(CpuRecord, idle), " Mode Averages->Idle", kValueReal, "CPU in Idle mode", 1, "%", 1},
    {1, OFF(CpuRecord, system), " Mode Averages->System", kValueReal,
     "CPU  Utilizatoin in System mode", 1, "%", 1},
    {1, OFF(CpuRecord, user), " Mode Averages->User", kValueReal, "CPU Utilization in User mode", 1,
     "%", 1},
    {1, OFF(CpuRecord, wait), " Mode Averages->Wait", kValueReal, "CPU Utilizatoin in Wait mode", 1,
     "%", 1},
    {1, OFF(CpuRecord, total), "Average Utilization", kValueReal, "Overall CPU Utilzation", 1, "%",
     1},
    {},
};

CounterDef DiskCounters[] = {
    {1, OFF(DiskRecord, name), "Name", kAttrText, "Disk name", 1, "0", 0},
    {1, OFF(DiskRecord, total_ops), "Total Operations", kValueReal,
     "Total number of read/write operations", 1, "/Sec", 1},
    {1, OFF(DiskRecord, total_transfers), "Total Transfers", kValueReal,
     "Total number of bytes read/written", 1, "/Sec", 1},
    {1, OFF(DiskRecord, waiting), "Waiting Elements", kValueInt32,
     "Number of elements in Wait state", 1, "#", 1},
    {1, OFF(DiskRecord, running), "Run State Elements", kValueInt32,
     "Number of elements in Run state", 1, "#", 1},
    {},
};

CounterDef MetricCounters[] = {
    {1, OFF(MetricRecord, sysmem), " System Memory (MB)", kSharedText, "Total Memory", 1, " ", 0},
    {1, OFF(MetricRecord, mem_util), " % Memory Utilization", kValueReal, "Memory Utilization", 1,
     "%", 1},
    {1, OFF(MetricRecord, free_mb), " Allocation(MB)-> Free", kValueReal, "Free memory", 1, "MBs",
     1},
    {1, OFF(MetricRecord, used_mb), " Allocation(MB)-> Used", kValueReal, "Used Memory", 1, "MBs",
     1},
    {1, OFF(MetricRecord, paging_total), " Paging by Type-> Total", kValueReal, "Paging rate", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, major_faults), " Paging by Type-> Major", kValueReal, "Major Faults", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, cow_faults), " Paging by Type-> Cow", kValueReal,
     "Copy On Write page faults", 1, "/Sec", 1},
    {1, OFF(MetricRecord, zfod_faults), " Paging by Type-> Zfod", kValueReal,
     "Zero Filled on Demand PFs", 1, "/Sec", 1},
    {1, OFF(MetricRecord, prot_faults), " Paging by Type-> Protection", kValueReal,
     "Protection PFs", 1, "/Sec", 1},
    {1, OFF(MetricRecord, softlock_faults), " Paging by Type-> Soft Lock", kValueReal,
     "SoftLock PFs", 1, "/Sec", 1},
    {1, OFF(MetricRecord, kernel_faults), " Paging by Type-> Kernel Fault", kValueReal,
     "Kernel As Faults", 1, "/Sec", 1},
    {1, OFF(MetricRecord, hat_faults), " Paging by Type-> Hat fault", kValueReal, "Hat Falults", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, as_faults), " Paging by Type-> As fault", kValueReal, "As Faults", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, paging_io), " Paging IO Rate", kValueReal, "Paging IO", 1, "/Sec", 1},
    {},
};

// Row k reads the k-th 64-bit field of the network record.
#define NET_ROW(k, name, type, description)                                                      \
    {                                                                                            \
        1, static_cast<int32_t>(offsetof(NetRecord, value) + (k) * sizeof(int64_t)), name, type, \
            description, 0, "/Sec", 1                                                            \
    }

CounterDef NetCounters[] = {
    NET_ROW(0, "TCP->Packet Rate->Sent", kValueLongLong, "TCP Segments sent"),
    NET_ROW(1, "TCP->Packet Rate->Received", kValueLongLong, "TCP Segments received"),
    NET_ROW(2, "TCP->Data Rate->Sent", kValueLongLong, "TCP Data Sent"),
    NET_ROW(3, "TCP->Data Rate->Received", kValueLongLong, "TCP Data Received"),
    NET_ROW(4, "TCP->Sent Packets Breakdown->Data", kValueLongLong, "TCP DataSegments Sent"),
    NET_ROW(5, "TCP->Sent Packets Breakdown->Acknowledgment", kValueLongLong,
            "TCP Ack Segments Sent"),
    NET_ROW(6, "TCP->Sent Packets Breakdown->Urg", kValueLongLong, "TCP URG Segments Sent"),
    NET_ROW(7, "TCP->Sent Packets Breakdown->Retrans", kValueLongLong, "TCP Retrans Segments Sent"),
    NET_ROW(8, "TCP->Received Packets Breakdown->In Order", kValueLongLong,
            "TCP InOrder Segments Received"),
    NET_ROW(9, "TCP->Received Packets Breakdown->Out of Order", kValueLongLong,
            "TCP Out of Order Segments Received"),
    NET_ROW(10, "TCP->Received Packets Breakdown->Duplicate", kValueLongLong,
            "TCP Duplicate Segments Received"),
    NET_ROW(11, "TCP->Received Packets Breakdown->Acknowledgment", kValueLongLong,
            "TCP Ack Segments Received"),
    NET_ROW(12, "TCP->Received Packets Breakdown->Duplicate Ack ", kValueLongLong,
            "TCP Duplicate ACK Segments Received"),
    NET_ROW(13, "TCP->Connection Establish Rate->Number of Connections", kValueLong,
            "TCP Number of connections"),
    NET_ROW(14, "TCP->Connections Opened->Active", kValueLong, "TCP Active Open Connections"),
    NET_ROW(15, "TCP->Connections Opened->Passive", kValueLong, "TCP Passive Open Connections"),
    NET_ROW(16, "TCP->Connections Aborted->Attempt Fail", kValueLong,
            "TCP Connection Attempt Failures"),
    NET_ROW(17, "TCP->Connections Aborted->Established Reset", kValueLong,
            "TCP Connection Establishment resets"),
    NET_ROW(18, "UDP->Packet Rate->Sent", kValueLongLong, "UDP Packets Sent"),
    NET_ROW(19, "UDP->Packet Rate->Received", kValueLongLong, "UDP Packets Received"),
    NET_ROW(20, "IP->Packet Rate->Sent", kValueLongLong, "IP Packets Sent"),
    NET_ROW(21, "IP->Packet Rate->Received", kValueLongLong, "IP Packets Received"),
    NET_ROW(22, "IP->Sent Packets Breakdown->Out Requests", kValueLongLong, "IP Sent Out Requests"),
    NET_ROW(23, "IP->Sent Packets Breakdown->Discard", kValueLongLong, "IP Sent Discard"),
    NET_ROW(24, "IP->Received Packets Breakdown->Datagram Delivery", kValueLongLong,
            "IP Received Datagram Deliveries"),
    NET_ROW(25, "IP->Received Packets Breakdown->Discard", kValueLongLong,
            "IP Discard datagrams Received"),
    NET_ROW(26, "IP->Received Packets Breakdown->Unknown Protocol Dg", kValueLongLong,
            "IP Unknown Protocol dgs received & discarded"),
    NET_ROW(27, "IP->Received Packets Breakdown->Forwarded", kValueLongLong,
            "IP Received Forwarding Packets"),
    NET_ROW(28, "IP->Received Packets Breakdown->Address Error", kValueLongLong,
            "IP Address error packets received"),
    NET_ROW(29, "IP->Received Packets Breakdown->Header Error", kValueLongLong,
            "IP Header error packets received"),
    NET_ROW(30, "IP->Received Packets Breakdown->Other", kValueLongLong,
            "IP Other packets received"),
    {},
};

CounterDef ProcessCounters[] = {
    {1, OFF(ProcessRecord, pid), "PID", kSharedInt32, "Process Id", 1, " ", 0},
    {1, OFF(ProcessRecord, ppid), "ParentPID", kSharedInt32, "Parent PID", 1, " ", 0},
    {1, OFF(ProcessRecord, user_name), "User Name", kSharedText, "User Name", 1, " ", 0},
    {1, OFF(ProcessRecord, tty_name), "tty name", kSharedText, "Terminal", 1, " ", 0},
    {1, OFF(ProcessRecord, cpu_pct), "% CPU Utilization", kValueReal, "% CPU Utilization", 1, "%",
     1},
    {1, OFF(ProcessRecord, user_pct), "% user CPU", kValueReal, "User time", 1, "%", 1},
    {1, OFF(ProcessRecord, sys_pct), "% sys CPU", kValueReal, "Sys time", 1, "%", 1},
    {1, OFF(ProcessRecord, trap_rate), "System Trap Time", kValueReal, "System Trap Time", 1,
     "/Sec", 1},
    {1, OFF(ProcessRecord, blocks_in), "Blocks In", kValueLong, "Block in", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, blocks_out), "Blocks Out", kValueLong, "Block out", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, minor_faults), "Minor Faults", kValueLong, "Minor Faults", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, major_faults), "Major Faults", kValueLong, "Major Faults", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, io_chars), "IO Chars", kValueLong, "IO Chars", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, syscalls), "System calls", kValueLong, "System Calls", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, swaps), "Swaps", kValueLong, "Swaps", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, rss_kb), "Rss (Kb)", kValueLong, "Rss", 1, "Kb", 1},
    {1, OFF(ProcessRecord, priority), "Priority", kValueInt32, "Priority", 1, "#", 1},
    {},
};

CounterDef FsCounters[] = {
    {1, OFF(FsRecord, name), "Name", kAttrText, "File system name", 1, " ", 0},
    {1, OFF(FsRecord, pct_used), "% Space Used", kValueReal, "Space Used", 1, "%", 1},
    {1, OFF(FsRecord, avail_blocks), "Available", kValueReal, "Available space", 1, "Kb", 1},
    {1, OFF(FsRecord, used_blocks), "Used", kValueReal, "Used Space", 1, "%", 1},
    {1, OFF(FsRecord, total_blocks), "Total", kValueReal, "Total Space", 1, "Kb", 1},
    {},
};

CounterDef MachineCounters[] = {
    {1, OFF(MachineRecord, cpu_id), " Processor ID", kAttrInt32, "Processor ID", 1, " ", 0},
    {1, OFF(MachineRecord, idle), " Idle", kValueReal, "Cpu State in Idle", 1, "%", 1},
    {1, OFF(MachineRecord, system), " System", kValueReal, "Cpu State in System", 1, "%", 1},
    {1, OFF(MachineRecord, user), " User", kValueReal, "Cpu State in User", 1, "%", 1},
    {1, OFF(MachineRecord, wait), " Wait", kValueReal, "Cpu State in Wait", 1, "%", 1},
    {1, OFF(MachineRecord, total), "Total", kValueReal, "CPU Utilization", 1, "%", 1},
    {},
};

#undef NET_ROW
#undef CONFIG_ROW
#undef OFF

// Row counts include the terminating row: collectors size per-instance copies with them.
int CPU_FIELDS() {
    return static_cast<int>(std::size(CPUCounters));
}
int DISK_FIELDS() {
    return static_cast<int>(std::size(DiskCounters));
}
int METRIC_FIELDS() {
    return static_cast<int>(std::size(MetricCounters));
}
int NET_FIELDS() {
    return static_cast<int>(std::size(NetCounters));
}
int PROC_FIELDS() {
    return static_cast<int>(std::size(ProcessCounters));
}
int FS_FIELDS() {
    return static_cast<int>(std::size(FsCounters));
}
int MAC_FIELDS() {
    return static_cast<int>(std::size(MachineCounters));
}

CounterDef* rtdc_instance_table(const CounterDef* table, int rows, const char* instance) {
    if (!table || rows < 1) return nullptr;
    void* block = nullptr;
    if (!rtdc_alloc64(static_cast<size_t>(rows) * sizeof(CounterDef), &block)) return nullptr;
    auto* copy = static_cast<CounterDef*>(block);
    // The last row of the copy is left zero so every walk stops where the table stops,
    // even when the caller's row count is short.
    for (int i = 0; i + 1 < rows && table[i].id != 0; ++i) {
        copy[i] = table[i];
        snprintf(copy[i].name, sizeof copy[i].name, "%s->%s", instance ? instance : "",
                 table[i].name);
    }
    return copy;
}
