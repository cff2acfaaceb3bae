// Process lookup over a captured /proc tree and over the live machine. The lookups raise
// and lower capabilities, so each runs in a forked child.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "child_run.h"
#include "control/rta_priv.h"
#include "control_test_util.h"
#include "platform/roots.h"

using namespace control_test;

namespace {

void use_proc_root(const std::string& root) {
    platform::Roots r;
    r.proc = root;
    platform::set_roots(r);
}

const std::string kFixture = source_path("tests/fixtures/linux/procs/proc");

// Runs fn in a child with the given /proc root and returns its result (-1000 when the
// child failed).
template <typename Fn>
int lookup(const std::string& root, Fn fn) {
    ChildResult c = run_in_child([&] {
        use_proc_root(root);
        printf("%d", fn());
        return 0;
    });
    if (c.exit_code != 0 || c.out.empty()) return -1000;
    return std::stoi(c.out);
}

// A child process under a chosen short name, alive until released.
class NamedChild {
public:
    /// With new_pid_ns the named process is the first of a new pid namespace (a
    /// grandchild); pid() is then its pid as seen from here, or -1 if no namespace could
    /// be made.
    explicit NamedChild(const std::string& name, bool new_pid_ns = false) {
        if (pipe(release_) != 0) return;
        if (pipe(ready_) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(release_[1]);
            close(ready_[0]);
            if (new_pid_ns) {
                if (unshare(CLONE_NEWPID) != 0) _exit(7);
                pid_t inner = fork();
                if (inner != 0) {
                    waitpid(inner, nullptr, 0);
                    _exit(0);
                }
            }
            prctl(PR_SET_NAME, name.c_str());
            // /proc belongs to our parent's namespace, so /proc/self names us as seen from
            // there, also from inside a new namespace.
            char self[32] = {};
            int me = -1;
            if (readlink("/proc/self", self, sizeof self - 1) > 0) me = atoi(self);
            if (write(ready_[1], &me, sizeof me) != sizeof me) _exit(1);
            char c;
            if (read(release_[0], &c, 1) < 0) _exit(1);
            _exit(0);
        }
        close(release_[0]);
        close(ready_[1]);
        int got = -1;
        if (pid_ > 0 && read(ready_[0], &got, sizeof got) == sizeof got) target_ = got;
    }
    ~NamedChild() {
        close(release_[1]);
        close(ready_[0]);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return target_; }

private:
    int release_[2] = {-1, -1};
    int ready_[2] = {-1, -1};
    pid_t pid_ = -1;
    pid_t target_ = -1;
};

std::string unique_name(const char* prefix) { return prefix + std::to_string(getpid() % 100000); }

}  // namespace

TEST(FindProc, FixtureTree) {
    // One child runs every lookup; each result goes out as "<result> ".
    ChildResult c = run_in_child([] {
        use_proc_root(kFixture);
        int results[] = {
            // findproc: the recorded pid, our namespace, short name within the given name.
            findproc("vornrta", 100, 0), findproc("vornrta", 200, 0) /* "vorn" is part of it */,
            findproc("vorn", 100, 0), findproc("vornrta", 400, 0) /* other namespace */,
            findproc("vornrta", 1, 0), findproc("vornrta", 500, 0) /* no name in the record */,
            findproc("vornrta", 700, 0) /* empty record */, findproc("vornrta", 999, 0) /* only "net" */,
            findproc("<my (odd) name>", 300, 0),
            // The record's pid counts, not the directory's name.
            findproc("mover", 601, 0), findproc("mover", 600, 0),
            // By name: equal names, own pid excluded, other namespaces never.
            find_process_by_name("vornrta", 0, 0), find_process_by_name("vornrta", 100, 0),
            find_process_by_name("vorn", 0, 0), find_process_by_name("vornrt", 0, 0),
            find_process_by_name("my (odd) name", 0, 0), findproc_nopid("vornrta", 0),
        };
        for (int r : results) printf("%d ", r);
        use_proc_root(kFixture + "/absent");
        printf("%d %d", findproc("vornrta", 100, 0), find_process_by_name("vornrta", 0, 0));
        return 0;
    });
    EXPECT_EQ(c.out, "1 1 0 0 0 0 0 0 1 1 0 100 0 200 0 300 100 -1 0");
}

TEST(FindProc, UnreadableEntriesMeanNoPrivilege) {
    TempDir t;
    std::string root = t / "proc";
    add_proc(root, 10, "other");
    add_proc(root, 20, "vornrta");
    add_proc(root, 30, "vornrta");
    chmod((root + "/30/stat").c_str(), 0);
    chmod((root + "/10").c_str(), 0);
    // Only with every capability gone does root meet the file modes.
    auto without_caps = [&](auto fn) {
        return lookup(root, [&] {
            cap_t none = cap_init();
            if (!none || cap_set_proc(none) != 0) return 50;
            cap_free(none);
            return fn();
        });
    };
    EXPECT_EQ(without_caps([] { return findproc("vornrta", 30, 0); }), -1);
    EXPECT_EQ(without_caps([] { return findproc("vornrta", 40, 0); }), -1);
    EXPECT_EQ(without_caps([] { return findproc("vornrta", 20, 0); }), 1);  // a match still wins
    EXPECT_EQ(without_caps([] { return find_process_by_name("vornrta", 0, 0); }), 20);
    chmod((root + "/10").c_str(), 0755);
}

TEST(FindProc, LiveMachine) {
    const std::string name = unique_name("vfp");
    NamedChild child(name);
    ASSERT_GT(child.pid(), 0);
    ASSERT_EQ(read_file("/proc/" + std::to_string(child.pid()) + "/comm"), name + "\n");
    const int pid = child.pid();
    const std::string real = platform::roots().proc;

    EXPECT_EQ(lookup(real, [&] { return findproc(name.c_str(), pid, 0); }), 1);
    EXPECT_EQ(lookup(real, [&] { return findproc(("x" + name + "x").c_str(), pid, 0); }), 1);
    EXPECT_EQ(lookup(real, [&] { return findproc(name.substr(1).c_str(), pid, 0); }), 0);
    EXPECT_EQ(lookup(real, [&] { return findproc(name.c_str(), getpid(), 0); }), 0);

    ChildResult found = run_in_child([&] {
        printf("%d %d %d", find_process_by_name(name.c_str(), getpid(), 0),
               find_process_by_name(name.c_str(), pid, 0), findproc_nopid(name.c_str(), 0));
        return 0;
    });
    EXPECT_EQ(found.out, std::to_string(pid) + " 0 " + std::to_string(pid));

    // The test process itself, under its own short name.
    ChildResult self = run_in_child([] {
        std::string comm = read_file("/proc/self/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        return findproc(comm.c_str(), getpid(), 0);
    });
    EXPECT_EQ(self.exit_code, 1);
}

TEST(FindProc, OtherPidNamespaceIsNeverFound) {
    const std::string name = unique_name("vns");
    NamedChild child(name, true);
    if (child.pid() <= 0) GTEST_SKIP() << "no new pid namespace here";
    const int pid = child.pid();
    ASSERT_EQ(read_file("/proc/" + std::to_string(pid) + "/comm"), name + "\n");
    ASSERT_NE(read_file("/proc/" + std::to_string(pid) + "/stat").find("(" + name + ")"), std::string::npos);
    EXPECT_EQ(lookup("/proc", [&] { return findproc(name.c_str(), pid, 0); }), 0);
    EXPECT_EQ(lookup("/proc", [&] { return find_process_by_name(name.c_str(), 0, 0); }), 0);
    EXPECT_EQ(lookup("/proc", [&] { return findproc_nopid(name.c_str(), 0); }), 0);
}
