// One pass over every enabled metric class.
#pragma once

#include "control/rta_cmdline.h"

/// The class calling shape: header array, header count, data array, data count, header flag
/// (1 = header pass), verbose level. Returns 1 on success, 0 on failure.
using ClassCollector = int (*)(char** headers, int* nheaders, char** buffers, int* nbuffers,
                               int header_flag, int verbose);

int GetCPUClassInfo(char**, int*, char**, int*, int, int);
int GetMachineClassInfo(char**, int*, char**, int*, int, int);
int GetMetricClassInfo(char**, int*, char**, int*, int, int);
int GetDiskClassInfo(char**, int*, char**, int*, int, int);
int GetNetClassInfo(char**, int*, char**, int*, int, int);
int GetFsStatClassInfo(char**, int*, char**, int*, int, int);
int GetProcessClassInfo(char**, int*, char**, int*, int, int);

/// One class of the pass: its log labels, its switches, its collector and the text printed
/// when it reports an error.
struct SnapshotClass {
    const char* header_label;  // named in the header pass's verbose log
    const char* data_label;    // named in the data pass's verbose log
    bool log_data_call;        // only some classes log their data-pass call
    int32_t RtaCmdline::*own_switch;
    bool all_switch;  // also enabled by the all-classes switch
    ClassCollector collect;
    const char* error_text;
};

/// The classes in pass order (processor, machine, metric, disk, network, file system,
/// process). Tests may replace a collector and must put it back.
SnapshotClass* rtdc_snapshot_classes(int* count);

int SnapshotHeader(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
                   int* buffer_count);
int Snapshot(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
             int* buffer_count, int send);
