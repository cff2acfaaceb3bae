// Lock file, status and stop. Lookups run in a child over a temporary /proc tree, so that
// no real agent on this machine is seen or signalled.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <optional>

#include "control/rta_lock.h"
#include "control/rta_priv.h"
#include "control_test_util.h"

using namespace control_test;

namespace {
const std::string kLock = read_file(kFixtures + "control/agent-4242.lock");        // as the agent writes it
const std::string kTable = read_file(kFixtures + "control/status-running.txt");  // its status

// An install root with a /proc tree beside it; run() calls fn in a child that looks at that tree.
struct Scene {
    TempDir dir;
    std::string lock = dir / "tmp/host_rtdc.lock", proc = dir / "proc";
    Scene() { std::filesystem::create_directories(proc); }
    ChildResult run(auto fn) const { return run_in_child([&] { return use_proc_root(proc), fn(); }); }
};

// The result and numbers of a lock file: "rc: pid port scan verbose alerts processes priority".
std::string read_lock(const std::string& path, RtaLockInfo& i) {
    i = RtaLockInfo{};
    int rc = rta_read_lockfile(path.c_str(), &i, 1, 0);
    char buf[128];
    snprintf(buf, sizeof buf, "%d: %d %d %d %d %d %d %d", rc, i.pid, i.port, i.scan, i.verbose, i.alerts, i.processes,
             i.priority);
    return buf;
}
std::string replace_all(std::string s, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = s.find(from, at)) != std::string::npos; at += to.size()) s.replace(at, from.size(), to);
    return s;
}
}  // namespace

TEST(LockFile, ReaderAndDelete) {
    TempDir t;
    const std::string path = t / "l.lock";
    RtaLockInfo i;
    write_file(path, kLock + "TEMP_DIR~/t\n");
    EXPECT_EQ(read_lock(path, i), "1: 4242 2101 2 1 1 0 0");  // no key fills the priority
    EXPECT_EQ(std::string(i.started) + "|" + i.version + "|" + i.install_dir + "|" + i.data_dir + "|" + i.log_dir +
                  "|" + i.temp_dir + "|" + i.user,
              "Thu Feb 23 10:00:00 2012|V10.0-001:Feb 23 2012|/opt/quorbex|/opt/quorbex/data|"
              "/opt/quorbex/logs|/t|root");
    // Switches other than 0 and 1 leave the field as it was.
    write_file(path, kLock + "VERBOSE~2\nALERTS~7\nPROCESSES~-1\nVERBOSE~0\n");
    EXPECT_EQ(read_lock(path, i), "1: 4242 2101 2 0 1 0 0");
    write_file(t / "file", "x");  // file/lock is not openable, though not absent
    EXPECT_EQ(read_lock(t / "absent.lock", i).substr(0, 3) + read_lock(t / "file/lock", i).substr(0, 2), "-1:0:");
    write_file(path, "");  // nothing recognisable, as after a torn write: the file goes
    EXPECT_EQ(read_lock(path, i).substr(0, 2), "0:");
    EXPECT_FALSE(std::filesystem::exists(path));
    // A 5000-byte line whose key is in its last piece, a NUL hiding a key, values far wider than their fields.
    write_file(path, std::string(5000, 'z') + "PID~77\n" + std::string("\0RTA_PORT~9\n", 12) + "USER~" +
                         std::string(3000, 'u') + "\nSTARTED~" + std::string(700, 's') + "\n");
    EXPECT_EQ(read_lock(path, i), "1: 77 0 0 0 0 0 0");
    EXPECT_EQ(std::string(i.user) + std::string(i.started), std::string(31, 'u') + std::string(511, 's'));
    testing::internal::CaptureStderr();
    for (int n = 0; n < 2; ++n) EXPECT_EQ(rta_delete_existing_lockfile(path.c_str(), 1), 1);  // the second finds none
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "VORNRTA-I-DELLOCK: found old lockfile, deleting  " + path + " \n");
}

TEST(LockFile, WriterGoldenRefusalAndStaleLocks) {
    Scene s;
    write_file(s.dir / "tmp/.keep", "");
    auto write_lock = [&](RtaCmdline r) {  // the pid of a writer that succeeded ends its standard error
        snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
        return s.run([&] {
            umask(0);  // the mode must come from the writer
            int rc = rta_write_lockfile(&r);
            return fprintf(stderr, "%s", rc ? ("pid " + std::to_string(getpid())).c_str() : ""), rc;
        });
    };
    RtaCmdline r = default_record();
    strcpy(r.install_dir, "/i"), strcpy(r.data_dir, "/i/data"), strcpy(r.log_dir, "/i/logs"), strcpy(r.user, "agent");
    r.verbose = 1, r.port = 3101, r.alerts = 0, r.collect_process = 1, r.scan = 4;
    ChildResult c = write_lock(r);
    ASSERT_EQ(c.exit_code, 1) << c.err;
    RtaLockInfo info;
    const std::string started = (read_lock(s.lock, info), info.started);  // ctime's "Www Mmm dd hh:mm:ss yyyy"
    EXPECT_EQ(started.size(), 24u) << started;
    EXPECT_EQ(read_file(s.lock), replace_all(replace_all(read_file(kFixtures + "control/lock-written.txt"), "{pid}",
                                                         c.err.substr(4)), "{started}", started));
    EXPECT_EQ(std::filesystem::status(s.lock).permissions(), std::filesystem::perms(0644));
    // While the recorded agent runs the lock stays and its status is shown; then it is replaced.
    add_proc(s.proc, 4242, "vornrta");
    write_file(s.lock, kLock);
    c = write_lock(default_record());
    EXPECT_EQ(std::to_string(c.exit_code) + c.out + read_file(s.lock), "0" + kTable + kLock);
    std::filesystem::remove_all(s.proc + "/4242");
    c = write_lock(default_record());
    EXPECT_EQ(read_lock(s.lock, info).substr(0, 2), "1:");
    EXPECT_EQ(std::to_string(c.exit_code) + c.out + c.err,
              "1vornrta is not running.\n Found old lockfile, deleting...\npid " + std::to_string(info.pid));
    std::filesystem::remove_all(s.dir / "tmp");  // nowhere to create it
    c = write_lock(default_record());
    EXPECT_EQ(std::to_string(c.exit_code) + c.out + c.err,
              "0vornrta is not running.\nvornrta, unable to create lock file, " + s.lock +
                  ", No such file or directory\n");
}

TEST(Status, TableRunningCheckAndEveryBranch) {
    const std::string L = "<lock>", none = "vornrta is not running.\n";  // L stands for the lock file's path
    struct {  // proc pid 0: none; running: what is_rta_running says, result and pid
        const char* what; std::pair<int, const char*> proc; std::optional<std::string> lock;
        int delete_stale, rc; std::string out, err; bool lock_kept; const char* running;
    } cases[] = {
        {"running", {4242, "vornrta"}, kLock, 1, 1, kTable, "", true, "1 4242"},
        {"other switches", {4242, "vornrta"}, kLock + "VERBOSE~0\nALERTS~0\nPROCESSES~1\n", 1, 1,
         read_file(kFixtures + "control/status-switches.txt"), "", true, "1 4242"},
        {"nothing", {0, ""}, std::nullopt, 1, 0, none, "", false, "0 -1"},
        {"no lock file", {4242, "vornrta"}, std::nullopt, 1, 1, "",
         "vornrta: unable to open lockfile, " + L + "\nvornrta: running as pid 4242 \n", false, "1 4242"},
        {"unknown lines", {4242, "vornrta"}, "garbage\n", 1, 1, "",
         "vornrta , unable to read lockfile, " + L + " \nvornrta: unable to open lockfile, " + L +
             "\nvornrta: running as pid 4242 \n", false, "0 -1"},
        {"stale, kept", {0, ""}, kLock, 0, 0, none, "", true, "0 -1"},
        {"stale, agent elsewhere", {5151, "vornrta"}, kLock, 1, 1, "",
         "vornrta: unable to get statistics, lockfile missing, " + L + "\nvornrta: running as pid 5151 \n", false,
         "0 -1"},
        {"pid of another program", {4242, "bash"}, kLock, 1, 0, none, "", false, "0 -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene s;
        if (c.proc.first) add_proc(s.proc, c.proc.first, c.proc.second);
        if (c.lock) write_file(s.lock, *c.lock);
        ChildResult r = s.run([&] {
            RtaCmdline rec = default_record();
            snprintf(rec.lock_file, sizeof rec.lock_file, "%s", s.lock.c_str());
            int pid = 0, running = is_rta_running(&rec, &pid);
            if (c.lock) write_file(s.lock, *c.lock);  // the check removes a lock it cannot read
            int rc = rta_status(s.lock.c_str(), 1, 0, c.delete_stale);
            return printf("|%d %d", running, pid), rc;
        });
        EXPECT_EQ(std::to_string(r.exit_code) + r.out + "|" + r.err + std::to_string(std::filesystem::exists(s.lock)),
                  std::to_string(c.rc) + c.out + "|" + c.running + "|" + replace_all(c.err, L, s.lock) +
                      std::to_string(c.lock_kept));
    }
}

TEST(Stop, SignalsOnlyTheRecordedAgent) {
    Scene s;
    auto stop = [&] { return s.run([&] { return rta_stop(s.lock.c_str(), 0); }); };
    EXPECT_EQ(stop().out, "\nvornrta is not running\n");
    // A lock naming pid 0 must never turn into a signal to the process group.
    write_file(s.lock, "PID~0\n");
    add_proc(s.proc, 0, "vornrta");
    ChildResult c = stop();
    EXPECT_EQ(std::to_string(c.exit_code) + c.out, "1\nvornrta is not running\n");
    pid_t agent = fork();  // a stand-in agent, ended by the signal or after 30 s
    ASSERT_GE(agent, 0);
    if (agent == 0) _exit(static_cast<int>(sleep(30)));
    add_proc(s.proc, agent, "vornrta");
    write_file(s.lock, "PID~" + std::to_string(agent) + "\n");
    const std::string stopping = "\nStopping vornrta (pid " + std::to_string(agent) + ")\n";
    c = s.run([&] {  // without the right to signal it, stop says so and returns 0
        return setgid(65534) != 0 || setuid(65534) != 0 ? 99 : rta_stop(s.lock.c_str(), 0);
    });
    if (c.exit_code != 99) {
        EXPECT_EQ(std::to_string(c.exit_code) + c.out + c.err,
                  "0" + stopping + "Fatal: Unable to kill pid " + std::to_string(agent) + " \n");
    }
    c = stop();
    EXPECT_EQ(std::to_string(c.exit_code) + c.out, "1" + stopping);
    if (c.exit_code != 1) kill(agent, SIGKILL);
    int wstatus = 0;
    waitpid(agent, &wstatus, 0);
    EXPECT_TRUE(WIFSIGNALED(wstatus) && WTERMSIG(wstatus) == SIGINT) << wstatus;
}

// Only the agent that wrote a lock removes it: not an agent started without one, and not
// one whose lock was deleted as stale and then replaced by another agent's.
TEST(LockFile, OnlyItsWriterRemovesIt) {
    Scene s;
    write_file(s.dir / "tmp/.keep", "");
    ChildResult c = s.run([&] {
        rta_remove_own_lockfile(s.lock.c_str());  // nothing written yet: a no-op
        RtaCmdline r = default_record();
        snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
        if (rta_write_lockfile(&r) != 1) return 2;
        std::string kept = read_file(s.lock);
        unlink(s.lock.c_str());
        write_file(s.lock, kLock);  // another agent's lock now stands at the path
        rta_remove_own_lockfile(s.lock.c_str());
        if (read_file(s.lock) != kLock) return 3;
        unlink(s.lock.c_str());
        write_file(s.lock, kept);
        return 0;
    });
    EXPECT_EQ(c.exit_code, 0) << c.err;
    EXPECT_TRUE(std::filesystem::exists(s.lock));
    c = s.run([&] { return rta_remove_own_lockfile(s.lock.c_str()), 0; });  // never wrote one
    EXPECT_TRUE(std::filesystem::exists(s.lock));
    c = s.run([&] {
        RtaCmdline r = default_record();
        snprintf(r.lock_file, sizeof r.lock_file, "%s", s.lock.c_str());
        unlink(s.lock.c_str());
        if (rta_write_lockfile(&r) != 1) return 2;
        rta_remove_own_lockfile(s.lock.c_str());
        return 0;
    });
    EXPECT_EQ(c.exit_code, 0) << c.err;
    EXPECT_FALSE(std::filesystem::exists(s.lock));
}

// Who counts as a running agent: not a zombie, not one in another pid namespace (told by
// the world-readable NSpid line when the namespace links cannot be read), and, found by
// name, only one working in our install root.
TEST(FindProc, ZombiesOtherZonesAndOtherRoots) {
    Scene s;
    const std::string mine = s.dir / "root", other = s.dir / "other";
    std::filesystem::create_directories(mine);
    std::filesystem::create_directories(other);
    auto entry = [&](int pid, char state, const char* nspid, const std::string& cwd) {
        const std::string dir = s.proc + "/" + std::to_string(pid);
        write_file(dir + "/stat", std::to_string(pid) + " (vornrta) " + state + " 1 1 1 0 -1 0\n");
        write_file(dir + "/status", std::string("Name:\tvornrta\nNSpid:\t") + nspid + "\n");
        if (!cwd.empty()) std::filesystem::create_symlink(cwd, dir + "/cwd");
    };
    write_file(s.proc + "/self/status", "Name:\tt\nNSpid:\t7\n");
    entry(10, 'Z', "10", mine);      // ended
    entry(20, 'S', "20\t1", mine);  // a namespace below ours
    entry(30, 'S', "30", other);     // another install root
    entry(40, 'S', "40", "");        // working directory unreadable
    ChildResult c = s.run([&] {
        snprintf(rta_cmdline.install_dir, sizeof rta_cmdline.install_dir, "%s", mine.c_str());
        std::string out;
        for (int pid : {10, 20, 30}) out += std::to_string(findproc("vornrta", pid, 0)) + " ";
        out += std::to_string(find_process_by_name("vornrta", 0, 0));
        entry(50, 'R', "50", mine);
        out += " " + std::to_string(find_process_by_name("vornrta", 0, 0));
        return printf("%s", out.c_str()), 0;
    });
    // The recorded pid of our own lock needs no root check: 30 is found through it.
    EXPECT_EQ(c.out, "0 0 1 0 50");
}
