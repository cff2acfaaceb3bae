// Lock file writer and reader, the status table, stale locks and stop. Everything that
// looks up processes runs in a forked child over a temporary /proc tree, so that the
// capability changes of the lookup stay out of the test process and no real agent on this
// machine is seen or signalled.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "agent/rtdc_globals.h"
#include "child_run.h"
#include "control/rta_lock.h"
#include "control_test_util.h"
#include "platform/roots.h"

using namespace control_test;

namespace {

// A lock file as the agent writes it, for pid.
std::string lock_text(int pid) {
    std::string p = std::to_string(pid);
    return p + "@0@2101@Thu Feb 23 10:00:00 2012PID~" + p +
           "\nSTARTED~Thu Feb 23 10:00:00 2012\nVERSION~V10.0-001:Feb 23 2012\nINSTALL_DIR~/opt/quorbex\n"
           "DATA_DIR~/opt/quorbex/data\nLOG_DIR~/opt/quorbex/logs\nVERBOSE~1\nPRIORITY~7\nRTA_PORT~2101\n"
           "ALERTS~1\nPROCESSES~0\nSCAN_RATE~2\nUSER~root\n";
}

const std::string kTable =
    "\nvornrta is running (pid 4242) \n\n"
    "Start time\t\t\t:\tThu Feb 23 10:00:00 2012 \n"
    "Data port\t\t\t:\t2101\n"
    "Scan rate (sec)\t\t\t:\t2 \n"
    "Install directory\t\t:\t/opt/quorbex\n"
    "Log file directory\t\t:\t/opt/quorbex/logs\n"
    "Verbose logging\t\t\t:\tOn\n"
    "Alerts\t\t\t\t:\tOn\n"
    "Processes\t\t\t:\tOff\n";

std::string replaced(std::string s, const std::string& from, const std::string& to) {
    return s.replace(s.find(from), from.size(), to);
}

// A temporary install root with a /proc tree beside it; run() calls fn in a child that
// looks at that tree.
struct Scene {
    TempDir dir;
    std::string lock = dir / "tmp/host_rtdc.lock";
    std::string proc = dir / "proc";
    Scene() { write_file(proc + "/self/.keep", ""); }
    template <typename Fn>
    ChildResult run(Fn fn) const {
        return run_in_child([&] {
            platform::Roots r;
            r.proc = proc;
            platform::set_roots(r);
            return fn();
        });
    }
    int write_lock(RtaCmdline* r) const {
        snprintf(r->lock_file, sizeof r->lock_file, "%s", lock.c_str());
        return rta_write_lockfile(r);
    }
};

int read_lock(const std::string& path, RtaLockInfo* info) {
    *info = RtaLockInfo{};
    return rta_read_lockfile(path.c_str(), info, 1, 0);
}

}  // namespace

TEST(LockFile, Reader) {
    TempDir t;
    std::string path = t / "l.lock";
    write_file(path, lock_text(4242) + "TEMP_DIR~/t\n");
    RtaLockInfo i;
    ASSERT_EQ(read_lock(path, &i), 1);
    EXPECT_EQ(std::string(i.started) + "|" + i.version + "|" + i.install_dir + "|" + i.data_dir + "|" +
                  i.log_dir + "|" + i.temp_dir + "|" + i.user,
              "Thu Feb 23 10:00:00 2012|V10.0-001:Feb 23 2012|/opt/quorbex|/opt/quorbex/data|"
              "/opt/quorbex/logs|/t|root");
    EXPECT_EQ(i.pid, 4242);
    EXPECT_EQ(i.priority, 0);  // no key fills it
    for (auto [value, expected] : {std::pair{i.port, 2101}, {i.scan, 2}, {i.verbose, 1}, {i.alerts, 1}, {i.processes, 0}})
        EXPECT_EQ(value, expected);
    // Switches other than 0 and 1 leave the field as it was.
    write_file(path, "VERBOSE~2\nALERTS~7\nPROCESSES~-1\n");
    ASSERT_EQ(read_lock(path, &i), 1);
    EXPECT_EQ(i.verbose + i.alerts + i.processes, 0);

    EXPECT_EQ(read_lock(t / "absent.lock", &i), -1);
    write_file(t / "file", "x");
    EXPECT_EQ(read_lock(t / "file/lock", &i), 0);  // not openable, though not absent
    // Nothing recognisable: the file is removed.
    for (const char* junk : {"hello\nworld\n", ""}) {
        write_file(path, junk);
        EXPECT_EQ(read_lock(path, &i), 0);
        EXPECT_FALSE(exists(path));
    }

    // Noise, a 5000-byte line whose key is in its last piece, a NUL hiding a key, and
    // values far wider than their fields.
    std::string garbage;
    unsigned seed = 12345;
    for (int n = 0; n < 50000; ++n) garbage += static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    garbage += "\n" + std::string(5000, 'z') + "PID~77\n" + std::string("\0RTA_PORT~9\n", 12) + "USER~" +
               std::string(3000, 'u') + "\nSTARTED~" + std::string(700, 's') + "\n";
    write_file(path, garbage);
    ASSERT_EQ(read_lock(path, &i), 1);
    EXPECT_EQ(i.pid, 77);
    EXPECT_NE(i.port, 9);
    EXPECT_EQ(strlen(i.user), sizeof i.user - 1);
    EXPECT_EQ(std::string(i.started), std::string(sizeof i.started - 1, 's'));
}

TEST(LockFile, WriterGoldenContentAndMode) {
    Scene s;
    write_file(s.dir / "tmp/.keep", "");
    ChildResult c = s.run([&] {
        umask(0);
        RtaCmdline r = default_record();
        snprintf(r.install_dir, sizeof r.install_dir, "/i");
        snprintf(r.data_dir, sizeof r.data_dir, "/i/data");
        snprintf(r.log_dir, sizeof r.log_dir, "/i/logs");
        snprintf(r.user, sizeof r.user, "agent");
        r.verbose = 1;
        r.port = 3101;
        r.alerts = 0;
        r.collect_process = 1;
        r.scan = 4;
        int rc = s.write_lock(&r);
        printf("%d", static_cast<int>(getpid()));
        return rc;
    });
    ASSERT_EQ(c.exit_code, 1) << c.err;
    EXPECT_EQ(c.err, "");
    const std::string pid = c.out;
    RtaLockInfo info;
    ASSERT_EQ(read_lock(s.lock, &info), 1);
    const std::string started = info.started;  // ctime's "Www Mmm dd hh:mm:ss yyyy"
    EXPECT_EQ(started.size(), 24u) << started;
    EXPECT_EQ(read_file(s.lock), pid + "@-1@3101@" + started + "PID~" + pid + "\nSTARTED~" + started +
                                     "\nVERSION~V10.0-001:Feb 23 2012\nINSTALL_DIR~/i\nDATA_DIR~/i/data\n"
                                     "LOG_DIR~/i/logs\nVERBOSE~1\nPRIORITY~-5\nRTA_PORT~3101\nALERTS~0\n"
                                     "PROCESSES~1\nSCAN_RATE~4\nUSER~agent\n");
    struct stat st;
    ASSERT_EQ(stat(s.lock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
}

TEST(LockFile, WriterRefusesWhileAnAgentRunsAndReplacesStaleLocks) {
    Scene s;
    add_proc(s.proc, 4242, "vornrta");
    write_file(s.lock, lock_text(4242));
    auto write_lock = [&] {
        return s.run([&] {
            RtaCmdline r = default_record();
            return s.write_lock(&r);
        });
    };
    ChildResult live = write_lock();
    EXPECT_EQ(live.exit_code, 0);
    EXPECT_EQ(live.out, kTable);  // the running agent is shown
    EXPECT_EQ(read_file(s.lock), lock_text(4242));

    std::filesystem::remove_all(s.proc + "/4242");
    ChildResult stale = write_lock();
    EXPECT_EQ(stale.exit_code, 1);
    EXPECT_EQ(stale.out, "vornrta is not running.\n");
    EXPECT_EQ(stale.err, " Found old lockfile, deleting...\n");
    RtaLockInfo info;
    ASSERT_EQ(read_lock(s.lock, &info), 1);
    EXPECT_NE(info.pid, 4242);

    std::filesystem::remove_all(s.dir / "tmp");  // nowhere to create it
    ChildResult fail = write_lock();
    EXPECT_EQ(fail.exit_code, 0);
    EXPECT_EQ(fail.err, "vornrta, unable to create lock file, " + s.lock + ", No such file or directory\n");
    EXPECT_EQ(fail.out, "vornrta is not running.\n");
}

TEST(Status, TableAndEveryBranch) {
    const std::string L = "<lock>";  // stands for the lock file's path in messages
    struct Case {
        const char* what;
        std::map<int, std::string> procs;
        std::optional<std::string> lock;
        int delete_stale, rc;
        std::string out, err;
        bool lock_kept;
    } cases[] = {
        {"running", {{4242, "vornrta"}}, lock_text(4242), 1, 1, kTable, "", true},
        {"other switches", {{4242, "vornrta"}},
         replaced(replaced(replaced(lock_text(4242), "VERBOSE~1", "VERBOSE~0"), "ALERTS~1", "ALERTS~0"),
                  "PROCESSES~0", "PROCESSES~1"),
         1, 1,
         replaced(replaced(replaced(kTable, "Verbose logging\t\t\t:\tOn\n", ""), "Alerts\t\t\t\t:\tOn",
                           "Alerts\t\t\t\t:\tOff"),
                  "Processes\t\t\t:\tOff", "Processes\t\t\t:\tOn"),
         "", true},
        {"nothing", {}, std::nullopt, 1, 0, "vornrta is not running.\n", "", false},
        {"no lock file", {{4242, "vornrta"}}, std::nullopt, 1, 1, "",
         "vornrta: unable to open lockfile, " + L + "\nvornrta: running as pid 4242 \n", false},
        {"unknown lines", {{4242, "vornrta"}}, "garbage\n", 1, 1, "",
         "vornrta , unable to read lockfile, " + L + " \nvornrta: unable to open lockfile, " + L +
             "\nvornrta: running as pid 4242 \n",
         false},
        {"stale, deleted", {{4343, "vornrtax"}}, lock_text(4343), 1, 0, "vornrta is not running.\n", "", false},
        {"stale, kept", {}, lock_text(4343), 0, 0, "vornrta is not running.\n", "", true},
        {"stale, agent elsewhere", {{5151, "vornrta"}}, lock_text(4343), 1, 1, "",
         "vornrta: unable to get statistics, lockfile missing, " + L + "\nvornrta: running as pid 5151 \n", false},
        {"pid of another program", {{4242, "bash"}}, lock_text(4242), 1, 0, "vornrta is not running.\n", "", false},
    };
    for (const Case& c : cases) {
        Scene s;
        for (const auto& [pid, comm] : c.procs) add_proc(s.proc, pid, comm);
        if (c.lock) write_file(s.lock, *c.lock);
        ChildResult r = s.run([&] { return rta_status(s.lock.c_str(), 1, 0, c.delete_stale); });
        EXPECT_EQ(r.exit_code, c.rc) << c.what;
        EXPECT_EQ(r.out, c.out) << c.what;
        std::string err = c.err;
        for (size_t at; (at = err.find(L)) != std::string::npos;) err.replace(at, L.size(), s.lock);
        EXPECT_EQ(r.err, err) << c.what;
        EXPECT_EQ(exists(s.lock), c.lock_kept) << c.what;
    }
}

TEST(Stop, SignalsTheRecordedAgent) {
    // A stand-in agent: a child that waits for SIGINT (and gives up after 30 s).
    pid_t agent = fork();
    ASSERT_GE(agent, 0);
    if (agent == 0) {
        for (int i = 0; i < 300; ++i) usleep(100000);
        _exit(3);
    }
    Scene s;
    add_proc(s.proc, agent, "vornrta");
    write_file(s.lock, lock_text(agent));
    const std::string stopping = "\nStopping vornrta (pid " + std::to_string(agent) + ")\n";

    // Without the right to signal it, stop says so and returns 0.
    ChildResult denied = s.run([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
        return rta_stop(s.lock.c_str(), 0);
    });
    if (denied.exit_code != 99) {
        EXPECT_EQ(denied.exit_code, 0);
        EXPECT_EQ(denied.out, stopping);
        EXPECT_EQ(denied.err, "Fatal: Unable to kill pid " + std::to_string(agent) + " \n");
    }

    ChildResult c = s.run([&] { return rta_stop(s.lock.c_str(), 0); });
    EXPECT_EQ(c.exit_code, 1);
    EXPECT_EQ(c.out, stopping);
    int wstatus = 0;
    pid_t done = 0;
    for (int i = 0; i < 100 && done == 0; ++i) {
        done = waitpid(agent, &wstatus, WNOHANG);
        if (done == 0) usleep(50000);
    }
    if (done == 0) {
        kill(agent, SIGKILL);
        waitpid(agent, &wstatus, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGINT);
}

TEST(Stop, NothingToStop) {
    Scene s;
    auto stop = [&] { return s.run([&] { return rta_stop(s.lock.c_str(), 0); }); };
    ChildResult c = stop();
    EXPECT_EQ(c.exit_code, 1);
    EXPECT_EQ(c.out, "\nvornrta is not running\n");

    // A lock naming pid 0 must never turn into a signal to the process group.
    write_file(s.lock, "PID~0\n");
    add_proc(s.proc, 0, "vornrta");
    ChildResult zero = stop();
    EXPECT_EQ(zero.exit_code, 1);
    EXPECT_EQ(zero.out, "\nvornrta is not running\n");
}

TEST(LockFile, RunningCheckUpdateAndDelete) {
    Scene s;
    auto running = [&] {
        return s.run([&] {
                    RtaCmdline r = default_record();
                    snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
                    int pid = 0;
                    int rc = is_rta_running(&r, &pid);
                    printf("%d %d", rc, pid);
                    return 0;
                })
            .out;
    };
    EXPECT_EQ(running(), "0 -1");
    add_proc(s.proc, 4242, "vornrta");
    EXPECT_EQ(running(), "1 4242");  // found by name
    write_file(s.lock, lock_text(4242));
    EXPECT_EQ(running(), "1 4242");  // confirmed from the lock file
    write_file(s.lock, lock_text(4343));
    EXPECT_EQ(running(), "0 -1");  // stale

    EXPECT_EQ(rta_update_lockfile(s.lock.c_str(), 0, 0), 1);
    write_file(s.lock, "nothing\n");
    EXPECT_EQ(rta_update_lockfile(s.lock.c_str(), 0, 0), 0);

    write_file(s.lock, lock_text(1));
    for (std::string expected : {"VORNRTA-I-DELLOCK: found old lockfile, deleting  " + s.lock + " \n", std::string()}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(rta_delete_existing_lockfile(s.lock.c_str(), 1), 1);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
        EXPECT_FALSE(exists(s.lock));
    }
}
