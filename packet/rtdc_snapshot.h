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

int SnapshotHeader(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
                   int* buffer_count);
int Snapshot(RtaCmdline* settings, char** headers, int* header_count, char** buffers,
             int* buffer_count, int send);
