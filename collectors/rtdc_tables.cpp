// The compiled-in counter tables. Their texts are sent to consoles as they stand (leading
// blanks and odd spellings included): consoles match on them, so they are never "fixed".
#include "collectors/rtdc_tables.h"

#include <cstddef>
#include <cstdio>
#include <iterator>

#include "packet/rtdc_buffer.h"

int32_t ConfigClassIDs = 0, ObjTypes = 0, MeasurementTypes = 0, BufTypes = 0, DebugTypes = 0;

#define OFF(record, field) static_cast<int32_t>(offsetof(record, field))

// Every configuration row is a data-only value described by its own name.
#define CONFIG_ROW(name, type, field) \
    { 1, OFF(ConfigRecord, field), name, type, name, 0, "", 0 }

CounterDef ConfigClass[] = {
    CONFIG_ROW("Config->_COLL_VER", 3, coll_ver),
    CONFIG_ROW("Config->_COLL_NAME", 3, coll_name),
    CONFIG_ROW("Config->_PHY_MEM", 6, phymem),
    CONFIG_ROW("Config->_NCPUS", 1, ncpus),
    CONFIG_ROW("Config->_PLATFORM", 3, platform),
    CONFIG_ROW("Config->_SYSNAME", 3, sysname),
    CONFIG_ROW("Config->_GMTOFF", 1, gmtoff),
    CONFIG_ROW("Config->_OSNAME", 3, osname),
    CONFIG_ROW("Config->_OSVERS", 3, osvers),
    CONFIG_ROW("Config->_NETNAME", 3, netname),
    CONFIG_ROW("Config->_IPADDR", 3, ipaddr),
    CONFIG_ROW("Config->_ISDST", 1, isdst),
    CONFIG_ROW("Config->_SCAN_INTVL", 1, scan_intvl),
    CONFIG_ROW("Config->_DUMP_INTVL", 1, dump_intvl),
    {},
};

CounterDef CPUCounters[] = {
    {1, OFF(CpuRecord, idle), " Mode Averages->Idle", 4, "CPU in Idle mode", 1, "%", 1},
    {1, OFF(CpuRecord, system), " Mode Averages->System", 4, "CPU  Utilizatoin in System mode", 1,
     "%", 1},
    {1, OFF(CpuRecord, user), " Mode Averages->User", 4, "CPU Utilization in User mode", 1, "%", 1},
    {1, OFF(CpuRecord, wait), " Mode Averages->Wait", 4, "CPU Utilizatoin in Wait mode", 1, "%", 1},
    {1, OFF(CpuRecord, total), "Average Utilization", 4, "Overall CPU Utilzation", 1, "%", 1},
    {},
};

CounterDef DiskCounters[] = {
    {1, OFF(DiskRecord, name), "Name", 11, "Disk name", 1, "0", 0},
    {1, OFF(DiskRecord, total_ops), "Total Operations", 4, "Total number of read/write operations",
     1, "/Sec", 1},
    {1, OFF(DiskRecord, total_transfers), "Total Transfers", 4,
     "Total number of bytes read/written", 1, "/Sec", 1},
    {1, OFF(DiskRecord, waiting), "Waiting Elements", 1, "Number of elements in Wait state", 1, "#",
     1},
    {1, OFF(DiskRecord, running), "Run State Elements", 1, "Number of elements in Run state", 1,
     "#", 1},
    {},
};

CounterDef MetricCounters[] = {
    {1, OFF(MetricRecord, sysmem), " System Memory (MB)", 16, "Total Memory", 1, " ", 0},
    {1, OFF(MetricRecord, mem_util), " % Memory Utilization", 4, "Memory Utilization", 1, "%", 1},
    {1, OFF(MetricRecord, free_mb), " Allocation(MB)-> Free", 4, "Free memory", 1, "MBs", 1},
    {1, OFF(MetricRecord, used_mb), " Allocation(MB)-> Used", 4, "Used Memory", 1, "MBs", 1},
    {1, OFF(MetricRecord, paging_total), " Paging by Type-> Total", 4, "Paging rate", 1, "/Sec", 1},
    {1, OFF(MetricRecord, major_faults), " Paging by Type-> Major", 4, "Major Faults", 1, "/Sec",
     1},
    {1, OFF(MetricRecord, cow_faults), " Paging by Type-> Cow", 4, "Copy On Write page faults", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, zfod_faults), " Paging by Type-> Zfod", 4, "Zero Filled on Demand PFs", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, prot_faults), " Paging by Type-> Protection", 4, "Protection PFs", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, softlock_faults), " Paging by Type-> Soft Lock", 4, "SoftLock PFs", 1,
     "/Sec", 1},
    {1, OFF(MetricRecord, kernel_faults), " Paging by Type-> Kernel Fault", 4, "Kernel As Faults",
     1, "/Sec", 1},
    {1, OFF(MetricRecord, hat_faults), " Paging by Type-> Hat fault", 4, "Hat Falults", 1, "/Sec",
     1},
    {1, OFF(MetricRecord, as_faults), " Paging by Type-> As fault", 4, "As Faults", 1, "/Sec", 1},
    {1, OFF(MetricRecord, paging_io), " Paging IO Rate", 4, "Paging IO", 1, "/Sec", 1},
    {},
};

// Row k reads the k-th 64-bit field of the network record.
#define NET_ROW(k, name, type, description)                                                      \
    {                                                                                            \
        1, static_cast<int32_t>(offsetof(NetRecord, value) + (k) * sizeof(int64_t)), name, type, \
            description, 0, "/Sec", 1                                                            \
    }

CounterDef NetCounters[] = {
    NET_ROW(0, "TCP->Packet Rate->Sent", 6, "TCP Segments sent"),
    NET_ROW(1, "TCP->Packet Rate->Received", 6, "TCP Segments received"),
    NET_ROW(2, "TCP->Data Rate->Sent", 6, "TCP Data Sent"),
    NET_ROW(3, "TCP->Data Rate->Received", 6, "TCP Data Received"),
    NET_ROW(4, "TCP->Sent Packets Breakdown->Data", 6, "TCP DataSegments Sent"),
    NET_ROW(5, "TCP->Sent Packets Breakdown->Acknowledgment", 6, "TCP Ack Segments Sent"),
    NET_ROW(6, "TCP->Sent Packets Breakdown->Urg", 6, "TCP URG Segments Sent"),
    NET_ROW(7, "TCP->Sent Packets Breakdown->Retrans", 6, "TCP Retrans Segments Sent"),
    NET_ROW(8, "TCP->Received Packets Breakdown->In Order", 6, "TCP InOrder Segments Received"),
    NET_ROW(9, "TCP->Received Packets Breakdown->Out of Order", 6,
            "TCP Out of Order Segments Received"),
    NET_ROW(10, "TCP->Received Packets Breakdown->Duplicate", 6, "TCP Duplicate Segments Received"),
    NET_ROW(11, "TCP->Received Packets Breakdown->Acknowledgment", 6, "TCP Ack Segments Received"),
    NET_ROW(12, "TCP->Received Packets Breakdown->Duplicate Ack ", 6,
            "TCP Duplicate ACK Segments Received"),
    NET_ROW(13, "TCP->Connection Establish Rate->Number of Connections", 2,
            "TCP Number of connections"),
    NET_ROW(14, "TCP->Connections Opened->Active", 2, "TCP Active Open Connections"),
    NET_ROW(15, "TCP->Connections Opened->Passive", 2, "TCP Passive Open Connections"),
    NET_ROW(16, "TCP->Connections Aborted->Attempt Fail", 2, "TCP Connection Attempt Failures"),
    NET_ROW(17, "TCP->Connections Aborted->Established Reset", 2,
            "TCP Connection Establishment resets"),
    NET_ROW(18, "UDP->Packet Rate->Sent", 6, "UDP Packets Sent"),
    NET_ROW(19, "UDP->Packet Rate->Received", 6, "UDP Packets Received"),
    NET_ROW(20, "IP->Packet Rate->Sent", 6, "IP Packets Sent"),
    NET_ROW(21, "IP->Packet Rate->Received", 6, "IP Packets Received"),
    NET_ROW(22, "IP->Sent Packets Breakdown->Out Requests", 6, "IP Sent Out Requests"),
    NET_ROW(23, "IP->Sent Packets Breakdown->Discard", 6, "IP Sent Discard"),
    NET_ROW(24, "IP->Received Packets Breakdown->Datagram Delivery", 6,
            "IP Received Datagram Deliveries"),
    NET_ROW(25, "IP->Received Packets Breakdown->Discard", 6, "IP Discard datagrams Received"),
    NET_ROW(26, "IP->Received Packets Breakdown->Unknown Protocol Dg", 6,
            "IP Unknown Protocol dgs received & discarded"),
    NET_ROW(27, "IP->Received Packets Breakdown->Forwarded", 6, "IP Received Forwarding Packets"),
    NET_ROW(28, "IP->Received Packets Breakdown->Address Error", 6,
            "IP Address error packets received"),
    NET_ROW(29, "IP->Received Packets Breakdown->Header Error", 6,
            "IP Header error packets received"),
    NET_ROW(30, "IP->Received Packets Breakdown->Other", 6, "IP Other packets received"),
    {},
};

CounterDef ProcessCounters[] = {
    {1, OFF(ProcessRecord, pid), "PID", 15, "Process Id", 1, " ", 0},
    {1, OFF(ProcessRecord, ppid), "ParentPID", 15, "Parent PID", 1, " ", 0},
    {1, OFF(ProcessRecord, user_name), "User Name", 16, "User Name", 1, " ", 0},
    {1, OFF(ProcessRecord, tty_name), "tty name", 16, "Terminal", 1, " ", 0},
    {1, OFF(ProcessRecord, cpu_pct), "% CPU Utilization", 4, "% CPU Utilization", 1, "%", 1},
    {1, OFF(ProcessRecord, user_pct), "% user CPU", 4, "User time", 1, "%", 1},
    {1, OFF(ProcessRecord, sys_pct), "% sys CPU", 4, "Sys time", 1, "%", 1},
    {1, OFF(ProcessRecord, trap_rate), "System Trap Time", 4, "System Trap Time", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, blocks_in), "Blocks In", 2, "Block in", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, blocks_out), "Blocks Out", 2, "Block out", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, minor_faults), "Minor Faults", 2, "Minor Faults", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, major_faults), "Major Faults", 2, "Major Faults", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, io_chars), "IO Chars", 2, "IO Chars", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, syscalls), "System calls", 2, "System Calls", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, swaps), "Swaps", 2, "Swaps", 1, "/Sec", 1},
    {1, OFF(ProcessRecord, rss_kb), "Rss (Kb)", 2, "Rss", 1, "Kb", 1},
    {1, OFF(ProcessRecord, priority), "Priority", 1, "Priority", 1, "#", 1},
    {},
};

CounterDef FsCounters[] = {
    {1, OFF(FsRecord, name), "Name", 11, "File system name", 1, " ", 0},
    {1, OFF(FsRecord, pct_used), "% Space Used", 4, "Space Used", 1, "%", 1},
    {1, OFF(FsRecord, avail_blocks), "Available", 4, "Available space", 1, "Kb", 1},
    {1, OFF(FsRecord, used_blocks), "Used", 4, "Used Space", 1, "%", 1},
    {1, OFF(FsRecord, total_blocks), "Total", 4, "Total Space", 1, "Kb", 1},
    {},
};

CounterDef MachineCounters[] = {
    {1, OFF(MachineRecord, cpu_id), " Processor ID", 10, "Processor ID", 1, " ", 0},
    {1, OFF(MachineRecord, idle), " Idle", 4, "Cpu State in Idle", 1, "%", 1},
    {1, OFF(MachineRecord, system), " System", 4, "Cpu State in System", 1, "%", 1},
    {1, OFF(MachineRecord, user), " User", 4, "Cpu State in User", 1, "%", 1},
    {1, OFF(MachineRecord, wait), " Wait", 4, "Cpu State in Wait", 1, "%", 1},
    {1, OFF(MachineRecord, total), "Total", 4, "CPU Utilization", 1, "%", 1},
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
