// The table of known processes and the removal of a dead process from the metric tree.
#include "collectors/rtdc_proclist.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_tree.h"
#include "packet/rtdc_buffer.h"

List* proc_list[kProcBuckets];
int ResetForMaxProcesses = 0;

namespace {

// One allocation per process: the bucket item followed by its record.
struct ProcSlot {
    ProcListItem item;
    ProcessInfo info;
};
static_assert(offsetof(ProcSlot, item) == 0, "list data must be the start of the block");

// Removes the instance of `pid` from a counter leaf. The process node owns the instance
// (its leaves share it) and frees it when the node goes.
void remove_pid_instance(MetricDescription* md, int pid) {
    std::lock_guard<std::mutex> lock(tree_mutex);
    if (!md->instances) return;
    for (ListItem* it = md->instances->first; it; it = it->next) {
        auto* inst = static_cast<MetricInstance*>(it->data);
        if (inst && atoi(inst->name) == pid) {
            RemoveItem(md->instances, it);
            return;
        }
    }
}

// Closes every rule on a counter that has lost its last instance: the statistics gathered
// so far go out as an alert at once, and the rule goes, since its counter is about to.
void close_rules_on(MetricDescription* md) {
    std::lock_guard<std::mutex> lock(expdef_mutex);
    if (!Expdef_list) return;
    ListItem* it = Expdef_list->first;
    while (it) {
        ListItem* next = it->next;
        auto* rule = static_cast<ExceptionObject*>(it->data);
        if (rule && strcmp(rule->name, md->description) == 0) {
            rule->raised = rtal_now();
            if (rule->intervals == 0) rule->intervals = 1;
            rule->ave = rule->sum / static_cast<double>(rule->intervals);
            // The rule may still point at an earlier node of this path (freed when another
            // process of the name went); the alert copies its description from here.
            rule->metric = md;
            ExceptionObject* alert = nullptr;
            if (AllocateExceptionObject(rule, &alert)) {
                if (rtal_queue_alert(alert) < 0)
                    RTDCAppendLog("VORNRTA-E-LIST: Failed to append to alert list\n");
            } else {
                rtal_free_alert(alert);
            }
            RemoveItem(Expdef_list, it);
            free(rule);
        }
        it = next;
    }
}

}  // namespace

int GetIndex(int pid) {
    return pid % kProcBuckets;
}

void GetFromProcList(List* list, int pid, ProcListItem** item_out) {
    *item_out = nullptr;
    if (!list) return;
    // The scan lists /proc in ascending pid order and a bucket holds its processes in the
    // order they were found, so the item wanted is nearly always the one after the last hit:
    // the search starts there (the list's cursor) and wraps round. Pids are unique in the
    // table, so where it starts does not change what it finds.
    ListItem* start = list->current && list->current->next ? list->current->next : list->first;
    for (int pass = 0; pass < 2; ++pass) {
        for (ListItem* it = pass ? list->first : start; it && !(pass && it == start);
             it = it->next) {
            auto* item = static_cast<ProcListItem*>(it->data);
            if (item && item->info && item->info->record.pid == pid) {
                list->current = it;
                *item_out = item;
                return;
            }
        }
        if (start == list->first) return;
    }
}

void NullifyList() {
    for (List* list : proc_list) {
        if (!list) continue;
        for (ListItem* it = list->first; it; it = it->next)
            if (auto* item = static_cast<ProcListItem*>(it->data)) item->seen = 0;
    }
    ResetForMaxProcesses = 1;
}

int GenProcessHeader(char** headers, int* count) {
    const int rows = PROC_FIELDS() - 1;
    int left_out = 0;
    for (List* list : proc_list) {
        if (!list) continue;
        for (ListItem* it = list->first; it; it = it->next) {
            auto* item = static_cast<ProcListItem*>(it->data);
            if (!item || !item->info) continue;
            // A process whose lines would not all fit is left out whole, so the console
            // never sees half a process.
            if (*count + rows > kMaxLines) {
                ++left_out;
                continue;
            }
            rtdc_buffer_process_headers(headers, count, ProcessCounters, &item->info->record,
                                        item->info->record.pid, item->info->name);
        }
    }
    if (left_out)
        rtdc_logf("VORNRTA-W-PROCHDR: header lines full, %d processes left out\n", left_out);
    return 1;
}

void deleteProcessList() {
    for (List*& list : proc_list) {
        if (!list) continue;
        for (ListItem* it = list->first; it; it = it->next) {
            auto* item = static_cast<ProcListItem*>(it->data);
            if (item && item->info && item->info->in_tree) {
                RemoveProcessFromTree(item->info->name, item->info->record.pid, 0);
                item->info->in_tree = 0;
            }
        }
        DestroyList(list);
        list = nullptr;
    }
}

void dumpprocesslist() {
    for (List* list : proc_list) {
        if (!list) continue;
        for (ListItem* it = list->first; it; it = it->next) {
            auto* item = static_cast<ProcListItem*>(it->data);
            if (item && item->info)
                printf("process = %d: %s \n", item->info->record.pid, item->info->name);
        }
    }
}

void RemoveProcessFromTree(const char* name, int pid, int) {
    if (!name || !*name) {
        rtdc_logf("NULL name passed to remove process node: pid = %d\n", pid);
        return;
    }
    treeNode* node = FindProcessNode(name);
    if (!node) return;
    if (!node->child) {
        RemoveNode(node);
        return;
    }
    // Only this thread adds or removes process nodes, so the children stay put between
    // the locked steps below.
    for (treeNode* child = node->child; child; child = child->next) {
        if (!child->data) {
            RTDCAppendLog("Child description NULL in Remove process\n");
            continue;
        }
        remove_pid_instance(child->data, pid);
        if (GetListCount(child->data->instances) == 0) close_rules_on(child->data);
    }
    RemoveNode(node);
}

ProcListItem* AddToProcList(int pid) {
    auto* slot = static_cast<ProcSlot*>(calloc(1, sizeof(ProcSlot)));
    if (!slot) return nullptr;
    slot->item.info = &slot->info;
    slot->info.record.pid = pid;
    List*& bucket = proc_list[GetIndex(pid)];
    if ((!bucket && !CreateList(&bucket)) || AppendToList(&bucket, &slot->item) != 1) {
        free(slot);
        return nullptr;
    }
    return &slot->item;
}

void RemoveFromProcList(ProcListItem* item) {
    if (!item || !item->info) return;
    List* bucket = proc_list[GetIndex(item->info->record.pid)];
    if (bucket) RemoveFromList(bucket, item);
    free(item);  // the record lives in the same block
}

int SweepUnseen(void (*on_gone)(ProcessInfo* info, void* arg), void* arg) {
    int removed = 0;
    for (List* list : proc_list) {
        if (!list) continue;
        ListItem* it = list->first;
        while (it) {
            ListItem* next = it->next;
            auto* item = static_cast<ProcListItem*>(it->data);
            if (item && !item->seen) {
                if (on_gone && item->info) on_gone(item->info, arg);
                RemoveItem(list, it);
                free(item);
                ++removed;
            }
            it = next;
        }
    }
    return removed;
}

int ProcListCount() {
    int n = 0;
    for (List* list : proc_list) n += GetListCount(list);
    return n;
}
