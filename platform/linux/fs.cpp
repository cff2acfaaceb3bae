// Mount table through setmntent/getmntent, space through statvfs on a helper thread.
#include "platform/fs.h"

#include <mntent.h>
#include <sys/statvfs.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "platform/roots.h"

namespace platform {

bool read_mounts(std::vector<MountEntry>& out) {
    out.clear();
    FILE* table = setmntent(roots().mounts.c_str(), "r");
    if (!table) return false;
    std::vector<char> buffer(16384);
    mntent entry{};
    while (getmntent_r(table, &entry, buffer.data(), static_cast<int>(buffer.size()))) {
        out.push_back(MountEntry{entry.mnt_fsname ? entry.mnt_fsname : "",
                                 entry.mnt_dir ? entry.mnt_dir : "",
                                 entry.mnt_type ? entry.mnt_type : ""});
    }
    endmntent(table);
    return true;
}

namespace {

int real_fs_usage(const char* dir, FsUsage* out) {
    struct statvfs vfs {};
    if (statvfs(dir, &vfs) != 0) return errno ? errno : EIO;
    out->blocks = vfs.f_blocks;
    out->bfree = vfs.f_bfree;
    out->bavail = vfs.f_bavail;
    out->fragment_size = vfs.f_frsize;
    return 0;
}

std::atomic<int (*)(const char*, FsUsage*)> fs_usage_query{nullptr};

// Mount points whose query is still pending in an abandoned worker.
struct StuckSet {
    std::mutex mutex;
    std::set<std::string> dirs;
};

StuckSet& stuck_set() {
    static StuckSet* set = new StuckSet;  // outlives every worker, even at exit
    return *set;
}

// One worker thread answers the queries one at a time. When a query overruns its limit the
// worker is left to finish it (it ends on its own once the kernel returns) and the next
// query gets a fresh worker, so at most one thread per stuck mount is ever parked.
struct Worker {
    std::mutex mutex;
    std::condition_variable cv;
    std::string dir;
    bool pending = false;
    bool done = false;
    bool abandoned = false;
    int error = 0;
    FsUsage result;
};

void worker_loop(std::shared_ptr<Worker> w) {
    std::unique_lock lock(w->mutex);
    for (;;) {
        w->cv.wait(lock, [&] { return w->pending; });
        w->pending = false;
        std::string dir = w->dir;
        lock.unlock();
        FsUsage usage;
        auto* query = fs_usage_query.load(std::memory_order_relaxed);
        int error = (query ? query : real_fs_usage)(dir.c_str(), &usage);
        lock.lock();
        w->result = usage;
        w->error = error;
        w->done = true;
        w->cv.notify_all();
        if (w->abandoned) {
            lock.unlock();
            StuckSet& stuck = stuck_set();
            std::lock_guard guard(stuck.mutex);
            stuck.dirs.erase(dir);
            return;
        }
    }
}

std::mutex callers;               // one query at a time
std::shared_ptr<Worker> current;  // guarded by `callers`

}  // namespace

void set_fs_usage_for_tests(int (*query)(const char*, FsUsage*)) {
    fs_usage_query.store(query, std::memory_order_relaxed);
}

FsAnswer query_fs_usage(const std::string& dir, FsUsage& out, int timeout_ms, int* error) {
    std::lock_guard guard(callers);
    {
        StuckSet& stuck = stuck_set();
        std::lock_guard lock(stuck.mutex);
        if (stuck.dirs.count(dir)) return FsAnswer::stuck;
    }
    if (!current) {
        auto worker = std::make_shared<Worker>();
        try {
            std::thread(worker_loop, worker).detach();
        } catch (const std::system_error&) {
            // No thread to spare: better no figure this time than a tick that may hang.
            if (error) *error = EAGAIN;
            return FsAnswer::failed;
        }
        current = std::move(worker);
    }
    Worker& w = *current;
    std::unique_lock lock(w.mutex);
    w.dir = dir;
    w.done = false;
    w.pending = true;
    w.cv.notify_all();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    if (!w.cv.wait_until(lock, deadline, [&] { return w.done; })) {
        // Marked stuck while the worker's lock is held, so the worker, which checks
        // `abandoned` under that lock, always clears the mark after it was made.
        w.abandoned = true;
        {
            StuckSet& stuck = stuck_set();
            std::lock_guard stuck_lock(stuck.mutex);
            stuck.dirs.insert(dir);
        }
        lock.unlock();
        current.reset();
        return FsAnswer::timed_out;
    }
    if (error) *error = w.error;
    if (w.error != 0) return FsAnswer::failed;
    out = w.result;
    return FsAnswer::ok;
}

}  // namespace platform
