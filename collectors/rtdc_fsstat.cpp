// The file-system class. The list of file systems is made once, at the first header pass;
// afterwards it only loses the ones that were unmounted, one data pass after they went.
#include "collectors/rtdc_fsstat.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/rtdc_log.h"
#include "packet/rtdc_output.h"

List* fs_list = nullptr;
int FSCreated = 0;
const char whois[] = "FileSystem";
int rtdc_fs_timeout_ms = 1000;

namespace {

// Records of removed file systems. A mount point that contains '-' or '>' shares
// intermediate tree levels with its neighbours, and those levels keep the address of the
// record that made them; the records therefore outlive their nodes. The list never grows
// after it is built, so this holds at most one record per file system seen at start.
std::vector<FsRecord*> retired_records;

std::vector<platform::MountEntry> mounts;  // reused between scans

// Remote and automounted file systems are not this host's disks, and asking a dead server
// for its space is exactly the call that hangs.
bool local_mount(const platform::MountEntry& m) {
    return !m.dir.empty() && m.type.find("nfs") == std::string::npos &&
           m.type.find("autofs") == std::string::npos;
}

void free_node(FsNode* node) {
    free(node->table);
    free(node->mount_point);
    if (node->record) retired_records.push_back(node->record);
    free(node);
}

}  // namespace

int PerfFs(const platform::FsUsage* usage, FsRecord* record) {
    record->total_blocks = static_cast<double>(usage->blocks);
    record->avail_blocks = static_cast<double>(usage->bavail);
    uint64_t used = usage->blocks >= usage->bfree ? usage->blocks - usage->bfree : 0;
    record->used_blocks = static_cast<double>(used);
    if (record->used_blocks != 0 && record->total_blocks != 0)
        record->pct_used = (1.0 - record->avail_blocks / record->total_blocks) * 100.0;
    else
        record->pct_used = 0;
    return 1;
}

FsNode* GetfromFsList(List* list, const char* mount_point) {
    if (!list || !mount_point) return nullptr;
    for (ListItem* item = list->first; item; item = item->next) {
        auto* node = static_cast<FsNode*>(item->data);
        if (node && node->mount_point && strcmp(node->mount_point, mount_point) == 0) return node;
    }
    return nullptr;
}

int NewFs(const char* mount_point, const platform::FsUsage* usage, ClassOutput& out, int x) {
    auto* record = static_cast<FsRecord*>(calloc(1, sizeof(FsRecord)));
    if (!record) {
        RTDCAppendLog("NewFS: malloc failed on fsrcd ");
        return 0;
    }
    auto* node = static_cast<FsNode*>(calloc(1, sizeof(FsNode)));
    if (!node) {
        RTDCAppendLog("NewFS: malloc failed on fs_node ");
        free(record);
        return 0;
    }
    node->table = rtdc_instance_table(FsCounters, FS_FIELDS(), mount_point);
    node->mount_point = strdup(mount_point);
    if (!node->table || !node->mount_point) {
        RTDCAppendLog("NewFS: malloc failed on fsCounter ");
        free(node->table);
        free(node->mount_point);
        free(node);
        free(record);
        return 0;
    }
    node->record = record;
    snprintf(record->name, sizeof record->name, "%s", mount_point);
    PerfFs(usage, record);
    node->seen = 1;
    if (!AppendToList(&fs_list, node)) {
        node->record = nullptr;
        free_node(node);
        free(record);
        return 0;
    }
    out.announce(whois, node->table, record,
                 x == 0 ? HeaderLines::when_sending : HeaderLines::never);
    return 1;
}

int CreateFs(ClassOutput& out, int x) {
    if (!fs_list && !CreateList(&fs_list)) return 0;
    if (!platform::read_mounts(mounts)) {
        RTDCAppendLog("Unable to read /etc/mnttab");
        return 0;
    }
    std::vector<platform::FsQuery> queries;
    for (const platform::MountEntry& m : mounts) {
        // A mount point mounted over again is one file system to the console: the top one.
        bool repeated = false;
        for (const auto& q : queries) repeated = repeated || q.dir == m.dir;
        if (local_mount(m) && !repeated) queries.push_back(platform::FsQuery(m.dir));
    }
    platform::query_fs_usage_batch(queries, rtdc_fs_timeout_ms);
    for (const platform::FsQuery& q : queries) {
        // Figures stay zero when the file system does not answer.
        platform::FsUsage usage = q.answer == platform::FsAnswer::ok ? q.usage : platform::FsUsage{};
        NewFs(q.dir.c_str(), &usage, out, x);
    }
    return 1;
}

int GenerateFsHeader(ClassOutput& out) {
    if (!fs_list) return 1;
    for (ListItem* item = fs_list->first; item; item = item->next) {
        auto* node = static_cast<FsNode*>(item->data);
        // The record, not the node, is what the table's offsets describe.
        out.announce(whois, node->table, node->record, HeaderLines::when_sending,
                     TreeCounters::always);
    }
    return 1;
}

int PrintFsInfo(ClassOutput& out) {
    if (!fs_list) return 1;
    for (ListItem* item = fs_list->first; item; item = item->next)
        static_cast<FsNode*>(item->data)->seen = 0;
    if (!platform::read_mounts(mounts)) return 1;
    std::vector<platform::FsQuery> queries;
    std::vector<FsNode*> nodes;
    for (const platform::MountEntry& m : mounts) {
        if (!local_mount(m)) continue;
        FsNode* node = GetfromFsList(fs_list, m.dir.c_str());
        if (!node || node->seen) continue;  // unknown, or a repeated mount point
        node->seen = 1;
        queries.push_back(platform::FsQuery(m.dir));
        nodes.push_back(node);
    }
    platform::query_fs_usage_batch(queries, rtdc_fs_timeout_ms);
    for (size_t i = 0; i < queries.size(); ++i) {
        FsNode* node = nodes[i];
        platform::FsAnswer answer = queries[i].answer;
        // A mount that does not answer is still mounted; it keeps its last figures and
        // sends nothing until it answers again.
        if (answer == platform::FsAnswer::timed_out || answer == platform::FsAnswer::stuck)
            continue;
        // An error answer leaves zero figures.
        platform::FsUsage usage = answer == platform::FsAnswer::ok ? queries[i].usage : platform::FsUsage{};
        PerfFs(&usage, node->record);
        out.report_or_register(whois, node->table, node->record);
    }
    return 1;
}

int RemoveFsFromTree(ClassOutput& out, const char* mount_point) {
    return out.withdraw(whois, mount_point) ? 1 : 0;
}

int ScanFs(ClassOutput& out) {
    if (!fs_list) return 1;
    ListItem* item = fs_list->first;
    while (item) {
        ListItem* next = item->next;
        auto* node = static_cast<FsNode*>(item->data);
        if (!node->seen) {
            RemoveItem(fs_list, item);
            RemoveFsFromTree(out, node->mount_point);
            free_node(node);
        }
        item = next;
    }
    return 1;
}

int GetFsStatClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers,
                       int header_flag, int x) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_fs(out, header_flag, x);
}

int rtdc_collect_fs(ClassOutput& out, int header_flag, int x) {
    if (header_flag) {
        if (FSCreated == 0) {
            CreateFs(out, x);
            FSCreated = 1;
        }
        GenerateFsHeader(out);
    } else {
        ScanFs(out);
        PrintFsInfo(out);
    }
    return 1;
}

void rtdc_fs_reset_for_tests() {
    if (fs_list) {
        for (ListItem* item = fs_list->first; item; item = item->next) {
            auto* node = static_cast<FsNode*>(item->data);
            free(node->table);
            free(node->mount_point);
            free(node->record);
            node->table = nullptr;
            node->mount_point = nullptr;
        }
        DestroyList(fs_list);  // frees the nodes
        fs_list = nullptr;
    }
    for (FsRecord* r : retired_records) free(r);
    retired_records.clear();
    FSCreated = 0;
}
