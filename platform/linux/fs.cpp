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

#include "platform/linux/proc_file.h"
#include "platform/roots.h"

namespace platform {

bool read_mounts(std::vector<MountEntry>& out) {
    out.clear();
    FILE* table = setmntent(roots().mounts.c_str(), "r");
    if (!table) return false;
    std::vector<char> buffer(16384);
    mntent entry{};
    while (getmntent_r(table, &entry, buffer.data(), static_cast<int>(buffer.size()))) {
        // The table decodes "\012" back into a newline: a mount point may hold any byte.
        out.push_back(MountEntry{procfs::clean_name(entry.mnt_fsname ? entry.mnt_fsname : ""),
                                 procfs::clean_name(entry.mnt_dir ? entry.mnt_dir : ""),
                                 procfs::clean_name(entry.mnt_type ? entry.mnt_type : "")});
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

// One worker thread answers the queries of a pass in order, handed over in one go: a
// thread hand-off per mount would cost more than the statvfs calls themselves. When a query
// overruns its limit the worker is left to finish it (it ends on its own once the kernel
// returns) and the rest of the pass goes to a fresh worker, so at most one thread per
// stuck mount is ever parked.
struct Worker {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::string> dirs;  // the batch being answered
    std::vector<FsUsage> results;
    std::vector<int> errors;
    size_t answered = 0;  // how many of `dirs` have their answer
    std::chrono::steady_clock::time_point since;  // when the query in flight began
    bool pending = false;
    bool abandoned = false;
};

void worker_loop(std::shared_ptr<Worker> w) {
    std::unique_lock lock(w->mutex);
    for (;;) {
        w->cv.wait(lock, [&] { return w->pending; });
        w->pending = false;
        for (size_t i = 0; i < w->dirs.size(); ++i) {
            w->since = std::chrono::steady_clock::now();
            std::string dir = w->dirs[i];
            lock.unlock();
            FsUsage usage;
            auto* query = fs_usage_query.load(std::memory_order_relaxed);
            int error = (query ? query : real_fs_usage)(dir.c_str(), &usage);
            lock.lock();
            w->results[i] = usage;
            w->errors[i] = error;
            w->answered = i + 1;
            // The caller sleeps until the whole batch is answered, waking by itself only
            // when a query overruns its limit, so a pass costs one wake-up, not one per mount.
            if (w->answered == w->dirs.size()) w->cv.notify_all();
            if (w->abandoned) {
                lock.unlock();
                StuckSet& stuck = stuck_set();
                std::lock_guard guard(stuck.mutex);
                stuck.dirs.erase(dir);
                return;
            }
        }
    }
}

std::mutex callers;               // one pass at a time
std::shared_ptr<Worker> current;  // guarded by `callers`

bool is_stuck(const std::string& dir) {
    StuckSet& stuck = stuck_set();
    std::lock_guard lock(stuck.mutex);
    return stuck.dirs.count(dir) != 0;
}

}  // namespace

void set_fs_usage_for_tests(int (*query)(const char*, FsUsage*)) {
    fs_usage_query.store(query, std::memory_order_relaxed);
}

void query_fs_usage_batch(std::vector<FsQuery>& queries, int timeout_ms) {
    std::lock_guard guard(callers);
    size_t next = 0;
    while (next < queries.size()) {
        // This round's batch: everything left that is not waiting on an earlier query.
        std::vector<size_t> batch;
        for (size_t i = next; i < queries.size(); ++i) {
            if (is_stuck(queries[i].dir))
                queries[i].answer = FsAnswer::stuck;
            else
                batch.push_back(i);
        }
        next = queries.size();
        if (batch.empty()) break;
        if (!current) {
            auto worker = std::make_shared<Worker>();
            try {
                std::thread(worker_loop, worker).detach();
            } catch (const std::system_error&) {
                // No thread to spare: better no figures this time than a tick that may hang.
                for (size_t i : batch) {
                    queries[i].answer = FsAnswer::failed;
                    queries[i].error = EAGAIN;
                }
                return;
            }
            current = std::move(worker);
        }
        Worker& w = *current;
        std::unique_lock lock(w.mutex);
        w.dirs.clear();
        for (size_t i : batch) w.dirs.push_back(queries[i].dir);
        w.results.assign(batch.size(), FsUsage{});
        w.errors.assign(batch.size(), 0);
        w.answered = 0;
        w.since = std::chrono::steady_clock::now();
        w.pending = true;
        w.cv.notify_all();
        // Each query has its own limit, counted from when the worker began it.
        const auto limit = std::chrono::milliseconds(timeout_ms);
        size_t overran = batch.size();
        while (w.answered < batch.size()) {
            const size_t k = w.answered;
            if (w.cv.wait_until(lock, w.since + limit) == std::cv_status::timeout &&
                w.answered == k && std::chrono::steady_clock::now() >= w.since + limit) {
                overran = k;
                break;
            }
        }
        for (size_t k = 0; k < w.answered; ++k) {  // an overrun query is never answered here
            FsQuery& q = queries[batch[k]];
            q.error = w.errors[k];
            q.answer = q.error != 0 ? FsAnswer::failed : FsAnswer::ok;
            if (q.error == 0) q.usage = w.results[k];
        }
        if (overran < batch.size()) {
            FsQuery& q = queries[batch[overran]];
            // Marked stuck while the worker's lock is held, so the worker, which checks
            // `abandoned` under that lock, always clears the mark after it was made.
            w.abandoned = true;
            {
                StuckSet& stuck = stuck_set();
                std::lock_guard stuck_lock(stuck.mutex);
                stuck.dirs.insert(q.dir);
            }
            q.answer = FsAnswer::timed_out;
            lock.unlock();
            current.reset();
            // The rest of the pass starts again with a fresh worker.
            next = overran + 1 < batch.size() ? batch[overran + 1] : queries.size();
        }
    }
}

FsAnswer query_fs_usage(const std::string& dir, FsUsage& out, int timeout_ms, int* error) {
    std::vector<FsQuery> one{FsQuery(dir)};
    query_fs_usage_batch(one, timeout_ms);
    if (error) *error = one[0].error;
    if (one[0].answer == FsAnswer::ok) out = one[0].usage;
    return one[0].answer;
}

}  // namespace platform
