// Exception definitions (alert rules), their evaluation and the queued alerts.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "agent/rtdc_list.h"
#include "alerts/rtal_tree.h"

struct ExceptionObject {
    MetricDescription* metric;
    char exp_name[128];
    char name[128];
    char descript[256];
    char condition[8];
    int32_t hours;
    int32_t minutes;
    int32_t duration;
    uint32_t seconds;
    uint32_t intervals;
    uint32_t active;
    time_t started;
    time_t raised;
    time_t last;
    double ave, min, max, sum;
    double limit;
    char owner[16];
};

extern List* Expdef_list;  // guarded by expdef_mutex
extern List* Alert_list;   // guarded by alert_mutex

void rtal_expdef_action(FILE* stream, const char* owner);
int rtal_expdef_check_defs(int socket, int always);
void rtal_checkexp();
void CheckForAlert(int satisfied, ExceptionObject* rule, double value);
int AllocateExceptionObject(ExceptionObject* rule, ExceptionObject** alert);
int rtal_getalert_action(int socket, const char* owner);
void rtal_desc_action(int socket);
void log_alert_list(int verbose);
void log_expdef_list(int verbose);
int rtal_checksock(int socket);
