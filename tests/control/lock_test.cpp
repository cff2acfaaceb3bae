// Lock file writer and reader, the status table, stale locks and stop. Everything that
// looks up processes runs in a forked child over a temporary /proc tree, so that the
// capability changes of the lookup stay out of the test process and no real agent on this
// machine is seen or signalled.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "agent/rtdc_globals.h"
#include "child_run.h"
#include "control/rta_lock.h"
#include "control/rta_priv.h"
#include "control_test_util.h"
#include "platform/roots.h"

using namespace control_test;

namespace {

// A lock file as the agent writes it, for pid.
std::string lock_text(int pid, const std::string& extra = "") {
    std::string p = std::to_string(pid);
    return p + "@0@2101@Thu Feb 23 10:00:00 2012PID~" + p +
           "\nSTARTED~Thu Feb 23 10:00:00 2012\n"
           "VERSION~V10.0-001:Feb 23 2012\n"
           "INSTALL_DIR~/opt/quorbex\n"
           "DATA_DIR~/opt/quorbex/data\n"
           "LOG_DIR~/opt/quorbex/logs\n"
           "VERBOSE~1\n"
           "PRIORITY~7\n"
           "RTA_PORT~2101\n"
           "ALERTS~1\n"
           "PROCESSES~0\n"
           "SCAN_RATE~2\n"
           "USER~root\n" +
           extra;
}

const char* kTable =
    "\nvornrta is running (pid 4242) \n\n"
    "Start time\t\t\t:\tThu Feb 23 10:00:00 2012 \n"
    "Data port\t\t\t:\t2101\n"
    "Scan rate (sec)\t\t\t:\t2 \n"
    "Install directory\t\t:\t/opt/quorbex\n"
    "Log file directory\t\t:\t/opt/quorbex/logs\n"
    "Verbose logging\t\t\t:\tOn\n"
    "Alerts\t\t\t\t:\tOn\n"
    "Processes\t\t\t:\tOff\n";

// A temporary install root with a /proc tree beside it.
struct Scene {
    TempDir dir;
    std::string lock = dir / "tmp/host_rtdc.lock";
    std::string proc = dir / "proc";
    Scene() { write_file(proc + "/self/.keep", ""); }
    void use_proc() const {
        platform::Roots r;
        r.proc = proc;
        platform::set_roots(r);
    }
};

int read_lock(const std::string& path, RtaLockInfo* info) {
    *info = RtaLockInfo{};
    return rta_read_lockfile(path.c_str(), info, 1, 0);
}

}  // namespace

TEST(LockFile, ReaderTakesEveryKey) {
    TempDir t;
    std::string path = t / "l.lock";
    write_file(path, lock_text(4242, "TEMP_DIR~/t\n"));
    RtaLockInfo info;
    ASSERT_EQ(read_lock(path, &info), 1);
    EXPECT_EQ(info.pid, 4242);
    EXPECT_STREQ(info.started, "Thu Feb 23 10:00:00 2012");
    EXPECT_STREQ(info.version, "V10.0-001:Feb 23 2012");
    EXPECT_STREQ(info.install_dir, "/opt/quorbex");
    EXPECT_STREQ(info.data_dir, "/opt/quorbex/data");
    EXPECT_STREQ(info.log_dir, "/opt/quorbex/logs");
    EXPECT_STREQ(info.temp_dir, "/t");
    EXPECT_STREQ(info.user, "root");
    EXPECT_EQ(info.verbose, 1);
    EXPECT_EQ(info.priority, 0);  // no key fills it
    EXPECT_EQ(info.port, 2101);
    EXPECT_EQ(info.scan, 2);
    EXPECT_EQ(info.alerts, 1);
    EXPECT_EQ(info.processes, 0);
    EXPECT_TRUE(exists(path));

    // Switches other than 0 and 1 leave the field as it was.
    write_file(path, "VERBOSE~2\nALERTS~7\nPROCESSES~-1\n");
    ASSERT_EQ(read_lock(path, &info), 1);
    EXPECT_EQ(info.verbose + info.alerts + info.processes, 0);
}

TEST(LockFile, ReaderResults) {
    TempDir t;
    RtaLockInfo info;
    EXPECT_EQ(read_lock(t / "absent.lock", &info), -1);
    // Cannot be opened for another reason than absence.
    write_file(t / "file", "x");
    EXPECT_EQ(read_lock(t / "file/lock", &info), 0);

    // Nothing recognisable: the file is removed.
    write_file(t / "junk.lock", "hello\nworld\n");
    EXPECT_EQ(read_lock(t / "junk.lock", &info), 0);
    EXPECT_FALSE(exists(t / "junk.lock"));
    write_file(t / "empty.lock", "");
    EXPECT_EQ(read_lock(t / "empty.lock", &info), 0);
    EXPECT_FALSE(exists(t / "empty.lock"));
}

TEST(LockFile, ReaderSurvivesGarbageAndLongLines) {
    TempDir t;
    std::string path = t / "g.lock";
    std::string garbage;
    unsigned seed = 12345;
    for (int i = 0; i < 50000; ++i) {
        seed = seed * 1103515245u + 12345u;
        garbage += static_cast<char>(seed >> 16);
    }
    // A 5000-byte line whose key lies in its last piece; a NUL hiding a key; a value far
    // wider than its field.
    garbage += "\n" + std::string(5000, 'z') + "PID~77\n";
    garbage += std::string("\0RTA_PORT~9\n", 12);
    garbage += "USER~" + std::string(3000, 'u') + "\n";
    garbage += "STARTED~" + std::string(700, 's') + "\n";
    write_file(path, garbage);
    RtaLockInfo info;
    ASSERT_EQ(read_lock(path, &info), 1);
    EXPECT_EQ(info.pid, 77);
    EXPECT_NE(info.port, 9);
    EXPECT_EQ(strlen(info.user), sizeof info.user - 1);
    EXPECT_EQ(strlen(info.started), sizeof info.started - 1);
}

TEST(LockFile, WriterGoldenContentAndMode) {
    Scene s;
    write_file(s.dir / "tmp/.keep", "");
    ChildResult c = run_in_child([&] {
        s.use_proc();
        umask(0);
        RtaCmdline r = default_record();
        snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
        snprintf(r.install_dir, sizeof r.install_dir, "/i");
        snprintf(r.data_dir, sizeof r.data_dir, "/i/data");
        snprintf(r.log_dir, sizeof r.log_dir, "/i/logs");
        snprintf(r.user, sizeof r.user, "agent");
        r.verbose = 1;
        r.priority = -5;
        r.port = 3101;
        r.alerts = 0;
        r.collect_process = 1;
        r.scan = 4;
        int rc = rta_write_lockfile(&r);
        printf("%d", static_cast<int>(getpid()));
        return rc;
    });
    ASSERT_EQ(c.exit_code, 1) << c.err;
    EXPECT_EQ(c.err, "");
    const std::string pid = c.out;

    std::string content = read_file(s.lock);
    // The start time is ctime's text: "Www Mmm dd hh:mm:ss yyyy".
    size_t at = content.find("STARTED~");
    ASSERT_NE(at, std::string::npos);
    std::string started = content.substr(at + 8, content.find('\n', at) - at - 8);
    EXPECT_EQ(started.size(), 24u) << started;
    EXPECT_EQ(content, pid + "@-1@3101@" + started + "PID~" + pid + "\n" +
                           "STARTED~" + started + "\n" +
                           "VERSION~V10.0-001:Feb 23 2012\n"
                           "INSTALL_DIR~/i\n"
                           "DATA_DIR~/i/data\n"
                           "LOG_DIR~/i/logs\n"
                           "VERBOSE~1\n"
                           "PRIORITY~-5\n"
                           "RTA_PORT~3101\n"
                           "ALERTS~0\n"
                           "PROCESSES~1\n"
                           "SCAN_RATE~4\n"
                           "USER~agent\n");
    struct stat st;
    ASSERT_EQ(stat(s.lock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // The reader gets back what the writer put.
    RtaLockInfo info;
    ASSERT_EQ(read_lock(s.lock, &info), 1);
    EXPECT_EQ(std::to_string(info.pid), pid);
    EXPECT_EQ(started, info.started);
    EXPECT_EQ(info.port, 3101);
    EXPECT_EQ(info.scan, 4);
    EXPECT_STREQ(info.user, "agent");
}

TEST(LockFile, WriterRefusesWhileAnAgentRunsAndReplacesStaleLocks) {
    Scene s;
    add_proc(s.proc, 4242, "vornrta");
    write_file(s.lock, lock_text(4242));
    auto write_lock = [&] {
        return run_in_child([&] {
            s.use_proc();
            RtaCmdline r = default_record();
            snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
            return rta_write_lockfile(&r);
        });
    };

    ChildResult live = write_lock();
    EXPECT_EQ(live.exit_code, 0);
    EXPECT_EQ(live.out, kTable);  // the running agent is shown
    EXPECT_EQ(read_file(s.lock), lock_text(4242));

    // The recorded process is gone: the lock is stale and replaced.
    std::filesystem::remove_all(s.proc + "/4242");
    write_file(s.lock, lock_text(4343));
    ChildResult stale = write_lock();
    EXPECT_EQ(stale.exit_code, 1);
    EXPECT_EQ(stale.out, "vornrta is not running.\n");
    EXPECT_EQ(stale.err, " Found old lockfile, deleting...\n");
    RtaLockInfo info;
    ASSERT_EQ(read_lock(s.lock, &info), 1);
    EXPECT_NE(info.pid, 4343);

    // The directory for the lock file is missing: the create fails.
    Scene no_tmp;
    ChildResult fail = run_in_child([&] {
        no_tmp.use_proc();
        RtaCmdline r = default_record();
        snprintf(r.lock_file, sizeof r.lock_file, "%s", no_tmp.lock.c_str());
        return rta_write_lockfile(&r);
    });
    EXPECT_EQ(fail.exit_code, 0);
    EXPECT_EQ(fail.err, "vornrta, unable to create lock file, " + no_tmp.lock + ", No such file or directory\n");
    EXPECT_EQ(fail.out, "vornrta is not running.\n");
}

TEST(Status, TableAndEveryBranch) {
    auto status = [](const Scene& s, int delete_stale) {
        return run_in_child([&] {
            s.use_proc();
            return rta_status(s.lock.c_str(), 1, 0, delete_stale);
        });
    };

    {  // running, with its lock file: the table, Priority hidden though the file has 7
        Scene s;
        add_proc(s.proc, 4242, "vornrta");
        write_file(s.lock, lock_text(4242));
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 1);
        EXPECT_EQ(c.out, kTable);
        EXPECT_EQ(c.err, "");
    }
    {  // verbose off, alerts and processes other than 1
        Scene s;
        add_proc(s.proc, 4242, "vornrta");
        std::string text = lock_text(4242);
        text.replace(text.find("VERBOSE~1"), 9, "VERBOSE~0");
        text.replace(text.find("ALERTS~1"), 8, "ALERTS~0");
        text.replace(text.find("PROCESSES~0"), 11, "PROCESSES~1");
        write_file(s.lock, text);
        ChildResult c = status(s, 1);
        std::string expected = kTable;
        auto swap = [&](const std::string& from, const std::string& to) {
            expected.replace(expected.find(from), from.size(), to);
        };
        swap("Verbose logging\t\t\t:\tOn\n", "");
        swap("Alerts\t\t\t\t:\tOn\n", "Alerts\t\t\t\t:\tOff\n");
        swap("Processes\t\t\t:\tOff\n", "Processes\t\t\t:\tOn\n");
        EXPECT_EQ(c.out, expected);
    }
    {  // nothing at all
        Scene s;
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 0);
        EXPECT_EQ(c.out, "vornrta is not running.\n");
        EXPECT_EQ(c.err, "");
    }
    {  // running without a lock file
        Scene s;
        add_proc(s.proc, 4242, "vornrta");
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 1);
        EXPECT_EQ(c.out, "");
        EXPECT_EQ(c.err, "vornrta: unable to open lockfile, " + s.lock + "\nvornrta: running as pid 4242 \n");
    }
    {  // a lock of unknown lines is removed by the reader; the agent is found by name
        Scene s;
        add_proc(s.proc, 4242, "vornrta");
        write_file(s.lock, "garbage\n");
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 1);
        EXPECT_EQ(c.err, "vornrta , unable to read lockfile, " + s.lock + " \n" +
                             "vornrta: unable to open lockfile, " + s.lock + "\nvornrta: running as pid 4242 \n");
        EXPECT_FALSE(exists(s.lock));
    }
    {  // stale lock, deletion asked for
        Scene s;
        add_proc(s.proc, 4242, "vornrtax");  // not the agent: exact name differs
        write_file(s.lock, lock_text(4343));
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 0);
        EXPECT_EQ(c.out, "vornrta is not running.\n");
        EXPECT_FALSE(exists(s.lock));
    }
    {  // stale lock, kept
        Scene s;
        write_file(s.lock, lock_text(4343));
        ChildResult c = status(s, 0);
        EXPECT_EQ(c.exit_code, 0);
        EXPECT_EQ(c.out, "vornrta is not running.\n");
        EXPECT_TRUE(exists(s.lock));
    }
    {  // stale lock while another agent runs under a different pid
        Scene s;
        add_proc(s.proc, 5151, "vornrta");
        write_file(s.lock, lock_text(4343));
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 1);
        EXPECT_EQ(c.err, "vornrta: unable to get statistics, lockfile missing, " + s.lock +
                             "\nvornrta: running as pid 5151 \n");
        EXPECT_FALSE(exists(s.lock));
    }
    {  // the recorded pid belongs to a process of another name
        Scene s;
        add_proc(s.proc, 4242, "bash");
        write_file(s.lock, lock_text(4242));
        ChildResult c = status(s, 1);
        EXPECT_EQ(c.exit_code, 0);
        EXPECT_EQ(c.out, "vornrta is not running.\n");
    }
}

TEST(Stop, SignalsTheRecordedAgent) {
    // A stand-in agent: a child that waits for SIGINT.
    pid_t agent = fork();
    ASSERT_GE(agent, 0);
    if (agent == 0) {
        for (int i = 0; i < 300; ++i) usleep(100000);  // gives up after 30 s
        _exit(3);
    }
    Scene s;
    add_proc(s.proc, agent, "vornrta");
    write_file(s.lock, lock_text(agent));

    // Without the right to signal it, stop says so and returns 0.
    ChildResult denied = run_in_child([&] {
        s.use_proc();
        if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
        return rta_stop(s.lock.c_str(), 0);
    });
    if (denied.exit_code != 99) {
        EXPECT_EQ(denied.exit_code, 0);
        EXPECT_EQ(denied.out, "\nStopping vornrta (pid " + std::to_string(agent) + ")\n");
        EXPECT_EQ(denied.err, "Fatal: Unable to kill pid " + std::to_string(agent) + " \n");
    }

    ChildResult c = run_in_child([&] {
        s.use_proc();
        return rta_stop(s.lock.c_str(), 0);
    });
    EXPECT_EQ(c.exit_code, 1);
    EXPECT_EQ(c.out, "\nStopping vornrta (pid " + std::to_string(agent) + ")\n");

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
    ChildResult c = run_in_child([&] {
        s.use_proc();
        return rta_stop(s.lock.c_str(), 0);
    });
    EXPECT_EQ(c.exit_code, 1);
    EXPECT_EQ(c.out, "\nvornrta is not running\n");

    // A lock naming pid 0 must never turn into a signal to the process group.
    write_file(s.lock, "PID~0\n");
    add_proc(s.proc, 0, "vornrta");
    ChildResult zero = run_in_child([&] {
        s.use_proc();
        return rta_stop(s.lock.c_str(), 0);
    });
    EXPECT_EQ(zero.exit_code, 1);
    EXPECT_EQ(zero.term_signal, 0);
    EXPECT_EQ(zero.out, "\nvornrta is not running\n");
}

TEST(LockFile, RunningCheckUpdateAndDelete) {
    auto running = [](const Scene& s) {
        return run_in_child([&] {
            s.use_proc();
            RtaCmdline r = default_record();
            snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
            int pid = 0;
            int rc = is_rta_running(&r, &pid);
            printf("%d %d", rc, pid);
            return 0;
        });
    };
    Scene s;
    EXPECT_EQ(running(s).out, "0 -1");
    add_proc(s.proc, 4242, "vornrta");
    EXPECT_EQ(running(s).out, "1 4242");  // found by name
    write_file(s.lock, lock_text(4242));
    EXPECT_EQ(running(s).out, "1 4242");  // confirmed from the lock file
    write_file(s.lock, lock_text(4343));
    EXPECT_EQ(running(s).out, "0 -1");  // stale

    EXPECT_EQ(rta_update_lockfile(s.lock.c_str(), 0, 0), 1);
    write_file(s.lock, "nothing\n");
    EXPECT_EQ(rta_update_lockfile(s.lock.c_str(), 0, 0), 0);

    write_file(s.lock, lock_text(1));
    testing::internal::CaptureStderr();
    EXPECT_EQ(rta_delete_existing_lockfile(s.lock.c_str(), 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "VORNRTA-I-DELLOCK: found old lockfile, deleting  " + s.lock + " \n");
    EXPECT_FALSE(exists(s.lock));
    testing::internal::CaptureStderr();
    EXPECT_EQ(rta_delete_existing_lockfile(s.lock.c_str(), 1), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
