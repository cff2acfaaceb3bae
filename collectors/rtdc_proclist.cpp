// The table of known processes, kept between scans.
#include "collectors/rtdc_proclist.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "agent/rtdc_log.h"
#include "alerts/rtal_process.h"

List* proc_list[kProcBuckets];
int ResetForMaxProcesses = 0;

namespace {

// One allocation per process: the bucket item followed by its record.
struct ProcSlot {
    ProcListItem item;
    ProcessInfo info;
};
static_assert(offsetof(ProcSlot, item) == 0, "list data must be the start of the block");

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

int GenProcessHeader(ClassOutput& out) {
    int left_out = 0;
    for (List* list : proc_list) {
        if (!list) continue;
        for (ListItem* it = list->first; it; it = it->next) {
            auto* item = static_cast<ProcListItem*>(it->data);
            if (!item || !item->info) continue;
            // A process whose lines would not all fit is left out whole.
            if (!out.announce_process(item->info->name, item->info->record.pid, ProcessCounters,
                                      &item->info->record))
                ++left_out;
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
