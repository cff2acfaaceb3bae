// File-system class ("FileSystem"): one instance per locally mounted file system, named by
// its mount point, kept in fs_list from the first header pass on.
#pragma once

#include <cstdint>

#include "agent/rtdc_list.h"
#include "collectors/rtdc_output.h"
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

/// The class's pass (header_flag 1: announce, 0: report), through `out`; `x` is the sixth
/// value of the class call. Returns 1.
int rtdc_collect_fs(ClassOutput& out, int header_flag, int x);
/// Builds fs_list from the mount table, announcing each file system as it is made, with
/// its header lines only when `x` is 0 (the announcement of GenerateFsHeader that follows
/// writes them in any case).
int CreateFs(ClassOutput& out, int x);
/// One node, record and table copy for a mount point; see CreateFs for `x`.
int NewFs(const char* mount_point, const platform::FsUsage* usage, ClassOutput& out, int x);
/// Announces every node, registering its counters on every header pass.
int GenerateFsHeader(ClassOutput& out);
/// The data pass over the mount table: values of the file systems still mounted, or their
/// counters registered when no console is served.
int PrintFsInfo(ClassOutput& out);
/// Drops the nodes the last data pass did not find mounted, from the list and the tree.
int ScanFs(ClassOutput& out);
/// The node of a mount point, or null.
FsNode* GetfromFsList(List* list, const char* mount_point);
/// Withdraws "FileSystem-><mount point>"; 1 when counters were withdrawn.
int RemoveFsFromTree(ClassOutput& out, const char* mount_point);
/// Fills the record's space figures. Returns 1.
int PerfFs(const platform::FsUsage* usage, FsRecord* record);

/// Test hook: forget fs_list. Only while no metric tree refers to its records.
void rtdc_fs_reset_for_tests();
