// Mounted file systems and their space.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace platform {

struct MountEntry {
    std::string source;  // device or remote name
    std::string dir;     // mount point
    std::string type;    // file-system type
};

/// The mount table in its own order. False (errno set) when it cannot be opened.
bool read_mounts(std::vector<MountEntry>& out);

/// Space of one file system, in units of `fragment_size` bytes.
struct FsUsage {
    uint64_t blocks = 0;  // total
    uint64_t bfree = 0;   // free, including the part reserved for the superuser
    uint64_t bavail = 0;  // free for ordinary users
    uint64_t fragment_size = 0;
};

enum class FsAnswer {
    ok,         // `out` filled
    failed,     // the file system answered with an error (errno-style code in `error`)
    timed_out,  // no answer within the limit: from now on the mount counts as stuck
    stuck,      // still no answer to an earlier query: not asked again
};

/// Asks a mounted file system for its space without ever blocking the caller for longer
/// than `timeout_ms`. A dead network or user-space file system can leave the query hanging
/// in the kernel indefinitely; such a mount is skipped until its pending query returns.
FsAnswer query_fs_usage(const std::string& dir, FsUsage& out, int timeout_ms, int* error = nullptr);

/// One file system's question and answer in a batch.
struct FsQuery {
    explicit FsQuery(std::string mount_point) : dir(std::move(mount_point)) {}
    std::string dir;
    FsUsage usage;  // filled when `answer` is ok
    FsAnswer answer = FsAnswer::failed;
    int error = 0;
};

/// Asks every file system of a pass in one hand-off to the query thread, each bound by
/// `timeout_ms` like query_fs_usage; answers are filled in place.
void query_fs_usage_batch(std::vector<FsQuery>& queries, int timeout_ms);

/// Test hook: replace the kernel query (0 or an errno value); null restores the real one.
void set_fs_usage_for_tests(int (*query)(const char* dir, FsUsage* out));

}  // namespace platform
