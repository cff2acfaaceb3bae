// Exception definitions (alert rules), their evaluation and the queued alerts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "agent/rtdc_list.h"
#include "alerts/rtal_tree.h"

struct ExceptionObject {
    MetricDescription* metric;  // bound tree node's description; an alert owns its own copy
    char exp_name[128];
    char name[128];  // path as the console wrote it (a leaf's full path for "*" rules)
    char descript[256];
    char condition[8];
    int32_t hours;
    int32_t minutes;
    int32_t duration;  // seconds: hours * 3600 + minutes * 60
    uint32_t seconds;
    uint32_t intervals;
    uint32_t active;  // 1 armed, 0 raised and waiting to clear
    time_t started;
    time_t raised;
    time_t last;
    double ave, min, max, sum;
    double limit;
    char owner[16];  // the console's address text cut to its field, as it is printed
    // The bound node's full path when the rule was bound. A process node can be removed and
    // its memory reused while the rule lives on; the evaluator checks the pointer against
    // the live tree and this path before it reads through `metric`.
    char bound[128];
    // The console's whole address text. Rules and alerts belong to the console named here:
    // owner alone would make 127.100.100.101 and 127.100.100.102 one console.
    char console[64];
};

/// One parsed <EXPDEF> line, fixed fields in request order plus the owner.
struct ExpdefFields {
    char exp_name[128];
    char name[128];
    char descript[256];
    char condition[8];
    char limit[12];
    char hours[12];
    char minutes[12];
    char owner[16];
    char console[64];  // the whole address text owner is cut from
};

/// What one console may hold: rules bound for it, alerts waiting for it to collect them.
/// What is over is refused, with one log line naming the console.
inline constexpr size_t kMaxRulesPerConsole = 10000;
inline constexpr size_t kMaxAlertsPerConsole = 10000;

extern List* Expdef_list;  // guarded by expdef_mutex
extern List* Alert_list;   // guarded by alert_mutex

void rtal_expdef_action(FILE* stream, const char* owner);
/// Caller holds expdef_mutex and takes `rule` out of Expdef_list without its console asking
/// (its counter went with its process): the rule no longer counts against the console's cap.
void rtal_rule_left_locked(const ExceptionObject* rule);
/// Tree-walk visitor for "*" rules: binds a copy of the rule in `fields` (an ExpdefFields) to
/// the leaf. Runs inside tree_mutex and takes expdef_mutex.
void Add_leave_nodes_to_list(treeNode* leaf, void* fields, void* unused);
int rtal_expdef_check_defs(int socket, int always);
void rtal_checkexp();
void CheckForAlert(int satisfied, ExceptionObject* rule, double value);
int AllocateExceptionObject(ExceptionObject* rule, ExceptionObject** alert);
/// Puts an alert on Alert_list for its console, taking it over: 1 queued; 0 refused, the
/// console already has kMaxAlertsPerConsole waiting; -1 the list could not take it. A
/// refused or failed alert is freed. Takes alert_mutex (after expdef_mutex when held).
int rtal_queue_alert(ExceptionObject* alert);
/// Forgets one collected alert of `console` in the count of waiting alerts. Caller holds
/// alert_mutex.
void rtal_alert_collected(const char* console);
/// Frees an alert and its metric description copy. The copy shares the rule's instance list,
/// which belongs to the tree and is left alone. Use it wherever an alert is dropped.
void rtal_free_alert(ExceptionObject* alert);
int rtal_getalert_action(int socket, const char* owner);
void rtal_desc_action(int socket);
/// Tree-walk visitor for <DESC>: writes one leaf line to the int socket at `socket`. After a
/// failed write it sets that int to -1 and later leaves are skipped.
void sendMetricsHeader(treeNode* leaf, void* socket, void* unused);
void log_alert_list(int verbose);
void log_expdef_list(int verbose);
int rtal_checksock(int socket);

/// Clock of the alert state machine; null restores time(). Tests drive it by hand.
void rtal_set_clock(time_t (*now)());
time_t rtal_now();
