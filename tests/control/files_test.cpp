// The agent's own files met as a hostile neighbour would leave them: links planted where
// the agent writes, FIFOs and directories where it reads, and install roots given relative.
// Each case runs in a child with an alarm, so a read that blocks fails instead of hanging.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <functional>

#include "alerts/rtal_event.h"
#include "control/rta_files.h"
#include "control/rta_lock.h"
#include "control_test_util.h"

using namespace control_test;

namespace {

// What can stand at a path instead of the agent's regular file.
enum class Planted { fifo, directory, link_to_victim };

void plant(Planted what, const std::string& path, const std::string& victim) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    switch (what) {
        case Planted::fifo: mkfifo(path.c_str(), 0644); break;
        case Planted::directory: std::filesystem::create_directory(path); break;
        case Planted::link_to_victim: std::filesystem::create_symlink(victim, path); break;
    }
}

const char* name_of(Planted what) {
    return what == Planted::fifo ? "fifo" : what == Planted::directory ? "directory" : "link";
}

}  // namespace

// Readers never wait on a FIFO and say what stands at the path; a link to a regular file is
// still read.
TEST(AgentFiles, ReadersTakeOnlyRegularFiles) {
    struct {
        Planted what;
        std::string lock_err, settings_err;
    } cases[] = {
        {Planted::fifo, "vornrta, lock file {p} is a FIFO, not a regular file\n",
         "vornrta, settings file {p} is a FIFO, not a regular file: ignored\n"},
        {Planted::directory, "vornrta, lock file {p} is a directory, not a regular file\n",
         "vornrta, settings file {p} is a directory, not a regular file: ignored\n"},
    };
    auto with_path = [](std::string text, const std::string& p) { return text.replace(text.find("{p}"), 3, p); };
    for (const auto& c : cases) {
        SCOPED_TRACE(name_of(c.what));
        TempDir t;
        const std::string lock = t / "tmp/h_rtdc.lock", settings = t / "settings/rta_h.config";
        plant(c.what, lock, "");
        plant(c.what, settings, "");
        ChildResult r = run_in_child([&] {
            RtaLockInfo info{};
            RtaCmdline rec = default_record();
            snprintf(rec.config_file, sizeof rec.config_file, "%s", settings.c_str());
            int from_lock = rta_read_lockfile(lock.c_str(), &info, 1, 0);
            return printf("%d %d", from_lock, rta_parse_startup_file(&rec)), 0;
        });
        EXPECT_EQ(r.exit_code, 0) << "a reader blocked";
        EXPECT_EQ(r.out, "0 0");
        EXPECT_EQ(r.err, with_path(c.lock_err, lock) + with_path(c.settings_err, settings));
    }
    TempDir t;
    write_file(t / "real.config", "RTA_PORT~3300\n");
    std::filesystem::create_symlink(t / "real.config", t / "rta_h.config");
    RtaCmdline rec = default_record();
    snprintf(rec.config_file, sizeof rec.config_file, "%s", (t / "rta_h.config").c_str());
    EXPECT_EQ(rta_parse_startup_file(&rec), 1);
    EXPECT_EQ(rec.port, 3300);
}

// The settings, event definition and lock writers replace whatever stands at their path
// with a fresh regular file: the target of a planted link is never touched, and a FIFO
// does not stall the writer.
TEST(AgentFiles, WritersReplaceWhatStandsAtThePath) {
    using Writer = std::function<int(const TempDir&)>;
    const std::pair<const char*, Writer> writers[] = {
        {"settings/rta_h.config",
         [](const TempDir& t) {
             RtaCmdline r = default_record();
             snprintf(r.settings_dir, sizeof r.settings_dir, "%s", (t / "settings").c_str());
             strcpy(r.hostname, "h");
             return rta_write_settings_file(&r);
         }},
        {"settings/eventdef_h.dat",
         [](const TempDir& t) {
             snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s", (t / "settings").c_str());
             strcpy(rta_cmdline.hostname, "h");
             char body[] = "def two\n";
             FILE* in = fmemopen(body, strlen(body), "r");
             int rc = handle_event_def_request(in, -1, "def one\n", "127.0.0.1");
             fclose(in);
             return rc;
         }},
        {"tmp/h_rtdc.lock",
         [](const TempDir& t) {
             use_proc_root(t / "proc");  // no agent runs in this tree
             RtaCmdline r = default_record();
             snprintf(r.lock_file, sizeof r.lock_file, "%s", (t / "tmp/h_rtdc.lock").c_str());
             return rta_write_lockfile(&r);
         }},
    };
    for (const auto& [rel, write] : writers) {
        for (Planted what : {Planted::link_to_victim, Planted::fifo}) {
            SCOPED_TRACE(std::string(rel) + " over a " + name_of(what));
            TempDir t;
            std::filesystem::create_directories(t / "proc");
            const std::string path = t / rel, victim = t / "victim";
            write_file(victim, "precious\n");
            chmod(victim.c_str(), 0600);
            plant(what, path, victim);
            ChildResult r = run_in_child([&] { return write(t); });
            EXPECT_EQ(r.exit_code, 1) << r.out << r.err;
            EXPECT_EQ(read_file(victim), "precious\n");
            struct stat st;
            ASSERT_EQ(lstat(path.c_str(), &st), 0);
            ASSERT_TRUE(S_ISREG(st.st_mode));  // reading anything else could block
            EXPECT_EQ(st.st_mode & 07777, 0644u);
            EXPECT_NE(read_file(path), "") << "written whole";
            // No temporary file is left beside it.
            int entries = 0;
            for (auto& e : std::filesystem::directory_iterator(std::filesystem::path(path).parent_path()))
                entries += e.path().filename().string().rfind(std::filesystem::path(path).filename().string() + ".", 0) == 0;
            EXPECT_EQ(entries, 0);
        }
    }
}

// A lock that cannot be written whole never appears: readers would otherwise meet an empty
// file and delete it as "no key" while its agent starts.
TEST(AgentFiles, LockNeverVisibleHalfWritten) {
    TempDir t;
    const std::string lock = t / "tmp/h_rtdc.lock";
    std::filesystem::create_directories(t / "tmp");
    std::filesystem::create_directories(t / "proc");
    ChildResult r = run_in_child([&] {
        use_proc_root(t / "proc");
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit none = {0, 0};  // every write fails: the file stays empty
        setrlimit(RLIMIT_FSIZE, &none);
        RtaCmdline rec = default_record();
        snprintf(rec.lock_file, sizeof rec.lock_file, "%s", lock.c_str());
        return rta_write_lockfile(&rec);
    });
    EXPECT_EQ(r.exit_code, 0) << "the start went on without a lock";  // its messages are cut by the limit too
    EXPECT_FALSE(std::filesystem::exists(lock));
    EXPECT_TRUE(std::filesystem::is_empty(t / "tmp"));
}

// Paths typed relative keep naming what they named where they were typed, whatever
// directory the agent moves to afterwards.
TEST(AgentFiles, RelativePathsAreAnchoredAtTheWorkingDirectory) {
    TempDir t;
    // An absolute path stays as it is; the test's own directory stands for one.
    const std::string absolute_logs = t.path + "/" + "logs";
    ChildResult r = run_in_child([&] {
        if (chdir(t.path.c_str()) != 0) return 99;
        RtaCmdline rec{};
        strcpy(rec.install_dir, "typed-root");
        strcpy(rec.lock_file, "typed-root.lock");
        snprintf(rec.log_dir, sizeof rec.log_dir, "%s", absolute_logs.c_str());
        if (!rta_make_paths_absolute(&rec)) return 98;
        printf("%s|%s|%s|%s|", rec.install_dir, rec.lock_file, rec.log_dir, rec.data_dir);
        memset(rec.settings_dir, 'x', sizeof rec.settings_dir - 1);  // no room for the prefix
        return rta_make_paths_absolute(&rec) ? 1 : 0;
    });
    char cwd[4096];
    ASSERT_NE(realpath(t.path.c_str(), cwd), nullptr);
    auto here = [&](const char* name) { return std::string(cwd) + "/" + name; };
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, here("typed-root") + "|" + here("typed-root.lock") + "|" + absolute_logs +
                         "||");
}
