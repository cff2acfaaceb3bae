#include "packet/rtdc_output.h"

#include <cstdio>

#include "alerts/rtal_process.h"
#include "alerts/rtal_tree.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_state.h"

void PacketOutput::announce(const char* class_name, CounterDef* table, void* record,
                            HeaderLines lines, TreeCounters tree) {
    if (lines == HeaderLines::when_sending && start_rtdc == 1)
        rtdc_buffer_headers(headers_, nheaders_, record, table, class_name);
    if (tree == TreeCounters::always || counter_added == 0)
        AddCounter(class_name, table, record, Metric_Tree);
}

void PacketOutput::report(const void* record, const CounterDef* table) {
    if (start_rtdc == 1) rtdc_buffer_data(buffers_, nbuffers_, record, table);
}

void PacketOutput::report_or_register(const char* class_name, CounterDef* table, void* record) {
    if (start_rtdc == 1)
        rtdc_buffer_data(buffers_, nbuffers_, record, table);
    else if (counter_added == 0)
        AddCounter(class_name, table, record, Metric_Tree);
}

bool PacketOutput::announce_process(const char* name, long pid, CounterDef* table,
                                    const void* record) {
    if (!start_rtdc.load(std::memory_order_relaxed)) return true;
    if (exit_recieved.load(std::memory_order_relaxed) == 1) return true;  // shutting down
    return process_headers_.add(pid, name, table, record, kMaxLines - *nheaders_);
}

bool PacketOutput::register_process(const char* name, long pid, const CounterDef* table,
                                    void* record) {
    if (!Metric_Tree) return false;  // no console has connected yet
    return AddProcessCounter(name, table, record, Metric_Tree, static_cast<int>(pid)) == 1;
}

void PacketOutput::report_process(long pid, CounterDef* table, const void* record) {
    if (start_rtdc != 1) return;  // the scan still runs for the alerts: nobody reads the lines
    // Process ids derive from the pid, so one shared table serves every process.
    rtdc_ProcessFillIds(table, pid);
    rtdc_buffer_data(buffers_, nbuffers_, record, table);
}

void PacketOutput::withdraw_process(const char* name, long pid) {
    RemoveProcessFromTree(name, static_cast<int>(pid), 0);
}

bool PacketOutput::withdraw(const char* class_name, const char* instance) {
    char path[512];
    snprintf(path, sizeof path, "%s->%s", class_name, instance);
    treeNode* node = nullptr;
    if (!SearchDescription1(path, Metric_Tree, &node, 0) || !node) return false;
    RemoveNode(node);
    return true;
}
