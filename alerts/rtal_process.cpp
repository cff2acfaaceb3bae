#include "alerts/rtal_process.h"

#include <cstdlib>
#include <cstring>
#include <mutex>

#include "agent/rtdc_log.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_state.h"
#include "alerts/rtal_tree.h"

namespace {

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
            rtal_rule_left_locked(rule);
            free(rule);
        }
        it = next;
    }
}

}  // namespace

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
