// File-system class ("FileSystem"): one instance per locally mounted file system, named by
// its mount point, kept in fs_list from the first header pass on.
#pragma once

#include <cstdint>

#include "agent/rtdc_list.h"
#include "collectors/rtdc_tables.h"
#include "platform/fs.h"

/// An element of fs_list (plain data: the list frees it with free()).
struct FsNode {
    FsRecord* record;
    int32_t seen;       // found in the mount table by the last data pass
    CounterDef* table;  // "<mount point>->..." copy of FsCounters
    char* mount_point;  // the whole mount point; the record's name is cut to its field
};

extern List* fs_list;
extern int FSCreated;       // 1 once fs_list has been built
extern const char whois[];  // the class prefix, "FileSystem"
/// Longest wait for one file system's answer before it counts as stuck, in milliseconds.
extern int rtdc_fs_timeout_ms;

/// Builds fs_list from the mount table; `x` is the sixth value of the class call.
int CreateFs(char** headers, int* nheaders, int x);
/// One node, record and table copy for a mount point; see CreateFs for `x`.
int NewFs(const char* mount_point, const platform::FsUsage* usage, char** headers, int* nheaders,
          int x);
/// Header lines and tree counters for every node.
int GenerateFsHeader(char** headers, int* nheaders);
/// The data pass over the mount table.
int PrintFsInfo(char** buffers, int* nbuffers);
/// Drops the nodes the last data pass did not find mounted, from the list and the tree.
int ScanFs();
/// The node of a mount point, or null.
FsNode* GetfromFsList(List* list, const char* mount_point);
/// Removes "FileSystem-><mount point>" from the metric tree; 1 when a node was removed.
int RemoveFsFromTree(const char* mount_point);
/// Fills the record's space figures. Returns 1.
int PerfFs(const platform::FsUsage* usage, FsRecord* record);

/// Test hook: forget fs_list. Only while no metric tree refers to its records.
void rtdc_fs_reset_for_tests();
