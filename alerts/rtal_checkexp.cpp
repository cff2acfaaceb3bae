// Alert evaluation: one pass over the exception definitions against the latest snapshot
// values, and the per-rule state machine that turns a condition held long enough into an
// alert and its clearing into a second one.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "agent/rtdc_clock.h"
#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_io.h"
#include "collectors/rtdc_value_types.h"

List* Alert_list = nullptr;

namespace {

std::atomic<time_t (*)()> alert_clock{nullptr};

bool tracing() {
    const char* env = getenv("RTA_VERBOSE_ALERTS");
    return env && strcmp(env, "1") == 0;
}

// Every description that hangs in the tree right now, by address and by full path. Built
// under tree_mutex at the start of a pass: a rule's metric pointer is followed only when it
// is still one of these (a removed process frees its nodes while rules may still point there).
struct LiveMetrics {
    std::unordered_set<const MetricDescription*> ptrs;
    std::unordered_map<std::string_view, MetricDescription*> by_path;
};

void collect_live(treeNode* root, LiveMetrics& live) {
    // Iterative: a class with thousands of processes gives sibling chains far too long to
    // follow by recursion on the collection thread's stack.
    std::vector<treeNode*> stack;
    if (root) stack.push_back(root);
    while (!stack.empty()) {
        treeNode* node = stack.back();
        stack.pop_back();
        if (node->data) {
            live.ptrs.insert(node->data);
            live.by_path.emplace(std::string_view(node->data->description), node->data);
        }
        if (node->next) stack.push_back(node->next);
        if (node->child) stack.push_back(node->child);
    }
}

// The metric a rule reads this pass, or null when its node has left the tree. A rule whose
// node was re-created under the same path (a process that restarted) follows the new node.
MetricDescription* live_metric(ExceptionObject* rule, const LiveMetrics& live) {
    if (rule->metric && live.ptrs.count(rule->metric) &&
        (rule->bound[0] == '\0' || strcmp(rule->metric->description, rule->bound) == 0))
        return rule->metric;
    if (rule->bound[0] == '\0') return nullptr;
    auto it = live.by_path.find(std::string_view(rule->bound));
    if (it == live.by_path.end()) return nullptr;
    rule->metric = it->second;
    return rule->metric;
}

// Adds one instance's value to `value` as the description's type code reads it.
void add_instance_value(const MetricDescription* m, const void* base, double& value) {
    const ValueType& type = value_type(static_cast<int32_t>(m->type));
    if (!type.alerts_know) {
        RTDCAppendLog("rtal_checkexp: unknown data type \n");
        return;
    }
    // Texts and header-only attributes carry no number.
    if (type.alert_read != Storage::none) value += stored_number(type.alert_read, base, m->offset);
}

// -1 for an unknown condition text.
int condition_holds(const char* condition, double value, double limit) {
    if (strcmp(condition, ">") == 0) return value > limit;
    if (strcmp(condition, "<") == 0) return value < limit;
    if (strcmp(condition, ">=") == 0) return value >= limit;
    if (strcmp(condition, "<=") == 0) return value <= limit;
    if (strcmp(condition, "==") == 0) return value == limit;
    if (strcmp(condition, "!=") == 0) return value != limit;
    return -1;
}

// The alerts waiting for each console, and whether its over-the-cap refusal has been logged
// since it last collected. Guarded by alert_mutex.
struct WaitingAlerts {
    size_t count = 0;
    bool refusal_logged = false;
};
std::unordered_map<std::string, WaitingAlerts> alerts_waiting;

}  // namespace

void rtal_set_clock(time_t (*now)()) {
    alert_clock.store(now);
}

time_t rtal_now() {
    time_t (*now)() = alert_clock.load();
    return now ? now() : rtdc_now();
}

int rtal_queue_alert(ExceptionObject* alert) {
    std::lock_guard<std::mutex> lock(alert_mutex);
    if (!Alert_list || !Alert_list->first) alerts_waiting.clear();
    WaitingAlerts& waiting = alerts_waiting[alert->console];
    if (waiting.count >= kMaxAlertsPerConsole) {
        if (!waiting.refusal_logged)
            rtdc_logf("VORNRTA-W-ALERTS:    console%s has %zu alerts waiting, as many as one"
                      " console may; later alerts are refused until it collects them\n",
                      alert->console, waiting.count);
        waiting.refusal_logged = true;
        rtal_free_alert(alert);
        return 0;
    }
    if ((!Alert_list && !CreateList(&Alert_list)) || AppendToList(&Alert_list, alert) != 1) {
        rtal_free_alert(alert);
        return -1;
    }
    ++waiting.count;
    return 1;
}

void rtal_alert_collected(const char* console) {
    auto it = alerts_waiting.find(console);
    if (it == alerts_waiting.end()) return;
    if (it->second.count > 0) --it->second.count;
    if (it->second.count < kMaxAlertsPerConsole) it->second.refusal_logged = false;
}

void rtal_free_alert(ExceptionObject* alert) {
    if (!alert) return;
    // The copy's instance list is the tree's; only the copy itself is ours.
    free(alert->metric);
    free(alert);
}

int AllocateExceptionObject(ExceptionObject* rule, ExceptionObject** alert) {
    *alert = nullptr;
    auto* copy = static_cast<ExceptionObject*>(calloc(1, sizeof(ExceptionObject)));
    if (!copy) {
        RTDCAppendLog("VORNRTA-E-ALLOC: rtal_checkexp: malloc failed, ExceptionObject\n");
        return 0;
    }
    rtal::copy_field(copy->exp_name, rule->exp_name);
    rtal::copy_field(copy->name, rule->name);
    rtal::copy_field(copy->descript, rule->descript);
    rtal::copy_field(copy->condition, rule->condition);
    rtal::copy_field(copy->owner, rule->owner);
    rtal::copy_field(copy->bound, rule->bound);
    rtal::copy_field(copy->console, rule->console);
    copy->limit = rule->limit;
    copy->hours = rule->hours;
    copy->minutes = rule->minutes;
    copy->duration = rule->duration;
    copy->seconds = rule->seconds;
    copy->active = rule->active;
    copy->started = rule->started;
    copy->raised = rule->raised;
    copy->ave = rule->ave;
    copy->sum = rule->sum;
    copy->max = rule->max;
    copy->min = rule->min;
    *alert = copy;
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    if (!md) {
        RTDCAppendLog("VORNRTA-E-ALLOC: rtal_checkexp: malloc failed,metric description\n");
        return 0;
    }
    if (rule->metric) *md = *rule->metric;
    copy->metric = md;
    return 1;
}

void CheckForAlert(int satisfied, ExceptionObject* rule, double value) {
    const bool trace = tracing();
    const bool verbose = trace || rtal::verbose();
    const time_t now = rtal_now();
    const int interval = rtal_intvl.load(std::memory_order_relaxed);
    const char* path = rule->metric ? rule->metric->description : rule->name;

    if (verbose)
        rtdc_logf("CheckForAlert  %s,  statistifed = %d,  value = %0.2f, ACTIVE = %d \n",
                  rule->name, satisfied, value, static_cast<int>(rule->active));

    if (satisfied) {
        if (verbose)
            rtdc_logf("CheckForAlert  %s, Satisfied, intervals  %d  \n", rule->name,
                      static_cast<int>(rule->intervals));
        if (rule->intervals == 0) {
            rule->started = now;
            if (verbose)
                rtdc_logf("CheckForAlert: %s,  Satisfied,   first interval, started: %ld\n",
                          rule->exp_name, static_cast<long>(rule->started));
        }
        rule->last = now;
        rule->intervals += 1;
        rule->seconds += static_cast<uint32_t>(interval);
        rule->sum += value;
        if (value > rule->max) rule->max = value;
        // A minimum of exactly 0.0 doubles as "no minimum yet" and is replaced.
        if (value < rule->min || rule->min == 0.0) rule->min = value;
        if (trace) {
            rtdc_logf(
                "CheckAlert: %s, intervals: %d * rtal_invterval = %d,  time: %ld,  ACTIVE = %d\n",
                rule->exp_name, static_cast<int>(rule->intervals), interval,
                static_cast<long>(rule->last), static_cast<int>(rule->active));
            rtdc_logf("CheckAlert: %s, Active seconds: %d, duration required %d,  ACTIVE = %d\n",
                      rule->exp_name, static_cast<int>(rule->last - rule->started), rule->duration,
                      static_cast<int>(rule->active));
        }
        // Wall-clock time since the run began decides, not the count of passes: a late or
        // skipped pass must not stretch the duration the console asked for.
        if (rule->last - rule->started >= rule->duration && rule->active == 1) {
            if (trace)
                rtdc_logf("VORNRTA-I-CHECKALERT:  %s: ACTIVE, Satisfied: TRUE, value: %f \n", path,
                          value);
            rule->active = 0;
            rule->raised = now;
            if (rule->intervals == 0) rule->intervals = 1;
            rule->ave = rule->sum / rule->intervals;
            ExceptionObject* alert = nullptr;
            if (!AllocateExceptionObject(rule, &alert)) {
                rtal_free_alert(alert);
                rtdc_logf("VORNRTA-E-ALLOC: Failed to allocate alert %s\n", rule->exp_name);
                rule->active = 1;
                return;
            }
            if (verbose) rtdc_logf("RTA-I-ADDALERT:  Add Alert %s\n", rule->exp_name);
            // An alert refused for its console's full queue counts as raised: the rule goes
            // on to its clearing alert as if the console had collected it.
            if (rtal_queue_alert(alert) < 0) {
                rule->active = 1;
                rtdc_logf("RTA-E-ALLOC: Failed to append to alert list %s\n", rule->exp_name);
                return;
            }
            if (verbose) rtdc_logf("RTA-I-ADDALERT:  Added Alert %s\n", path);
        } else if (verbose) {
            rtdc_logf("RTA-I-ALERT:  %s ALERT not ADDED duration or ALREADY SENT\n", path);
        }
        return;
    }

    if (verbose) rtdc_logf("CheckForAlert  %s, NOT statistifed \n", rule->name);
    if (rule->active == 0) {
        if (trace) rtdc_logf("CheckForAlert  %s,  statistifed=0, SENT, Resetting.. \n", rule->name);
        rule->raised = now;
        if (rule->intervals == 0) rule->intervals = 1;
        rule->ave = rule->sum / rule->intervals;
        ExceptionObject* alert = nullptr;
        if (!AllocateExceptionObject(rule, &alert)) {
            // The rule stays raised, so the clearing alert is tried again next pass.
            rtal_free_alert(alert);
            RTDCAppendLog("CheckForAlert, AllocateExceptionObject failed\n");
            return;
        }
        if (trace)
            rtdc_logf("CheckForAlert  %s,  statistifed=0, RAISED, AddtoList.. ave: %f \n",
                      rule->name, rule->ave);
        if (rtal_queue_alert(alert) < 0) {
            rtdc_logf("VORNRTA-E-LIST: Failed to append to alert list: %s\n", rule->exp_name);
            return;
        }
        rule->active = 1;
        rule->started = 0;
        rule->last = 0;
    } else if (trace) {
        rtdc_logf("CheckForAlert  %s,  NOT SATISTIFIED, NOT RAISED,\n", rule->name);
    }
    rule->seconds = 0;
    rule->intervals = 0;
    rule->max = rule->min = rule->ave = rule->sum = 0.0;
    if (rtal::verbose()) rtdc_logf("CheckForAlert  %s,  reset... \n", rule->name);
}

void rtal_checkexp() {
    if (rtal::verbose())
        rtdc_logf("%-20s  Checking events for alerts...(interval: %d)\n",
                  "VORNRTA-I-CHKEXP:", rtal_intvl.load(std::memory_order_relaxed));
    {
        std::lock_guard<std::mutex> lock(alert_mutex);
        if (!Alert_list && !CreateList(&Alert_list))
            RTDCAppendLog("VORNRTA-E-ALLOC: rtal_checkexp: cannot create the alert list\n");
    }

    std::unique_lock<std::mutex> tree_lock(tree_mutex);
    std::unique_lock<std::mutex> expdef_lock(expdef_mutex);
    if (!Expdef_list) {
        expdef_lock.unlock();
        tree_lock.unlock();
        if (rtal::verbose()) RTDCAppendLog("VORNRTA-E-CHECKEXP: No exception definitions\n");
        return;
    }
    LiveMetrics live;
    if (Expdef_list->first) collect_live(Metric_Tree, live);

    for (ListItem* item = Expdef_list->first; item; item = item->next) {
        auto* rule = static_cast<ExceptionObject*>(item->data);
        if (!rule) continue;
        MetricDescription* m = live_metric(rule, live);
        if (!m) {
            if (rtal::verbose())
                rtdc_logf("VORNRTA-W-NOMETRIC: %s is no longer in the metric tree, skipping it\n",
                          rule->bound);
            continue;
        }
        double value = 0.0;
        bool skip = false;
        for (ListItem* it = m->instances ? m->instances->first : nullptr; it; it = it->next) {
            auto* inst = static_cast<MetricInstance*>(it->data);
            if (!inst || !inst->base) {
                rtdc_logf("VORNRTA-E-NODAT: NULL base for %s, skipping it...\n", m->description);
                skip = true;
                continue;
            }
            // Only the last instance decides: a good one after a missing one still counts.
            skip = false;
            add_instance_value(m, inst->base, value);
        }
        if (skip || m->alertable != 1) continue;
        int holds = condition_holds(rule->condition, value, rule->limit);
        if (holds < 0) {
            rtdc_logf("VORN-E-CHECKEXP: Unknown condition: %s \n", rule->condition);
            continue;
        }
        CheckForAlert(holds, rule, value);
    }
}
