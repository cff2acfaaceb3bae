// Settings file reader and writer, LibTrim2, the -update path rewrite with its link
// resolution, and the install root derived from the program's location.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "child_run.h"
#include "control/rta_cmdline.h"
#include "control_test_util.h"

using namespace control_test;

namespace {

struct Read {
    RtaCmdline rec;
    int result;
    std::string out;
};

Read read_settings(const std::string& content, RtaCmdline rec = default_record()) {
    TempDir t;
    write_file(t / "rta.config", content);
    snprintf(rec.config_file, sizeof rec.config_file, "%s", (t / "rta.config").c_str());
    testing::internal::CaptureStdout();
    int rc = rta_parse_startup_file(&rec);
    return {rec, rc, testing::internal::GetCapturedStdout()};
}

// The written settings of a record: priority verbose user port scan alerts processes.
std::string written(const RtaCmdline& r) {
    char buf[128];
    snprintf(buf, sizeof buf, "%d %d %s %d %d %d %d/%d", r.priority, r.verbose, r.user, r.port, r.scan,
             r.alerts, r.collect_process, r.class_process);
    return buf;
}

}  // namespace

TEST(LibTrim2, TrimsBlanksAndLineEnds) {
    struct {
        const char *in, *out;
    } cases[] = {{"  agent \t\r", "agent"}, {"\t a b \n", "a b"}, {"   \t", ""}, {"", ""},
                 {"\n", ""}, {"\r\nx", "\r\nx"}};  // leading line ends are not blanks
    for (const auto& c : cases) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_EQ(LibTrim2(buf), static_cast<int>(strlen(c.out))) << '"' << c.in << '"';
        EXPECT_STREQ(buf, c.out);
    }
    EXPECT_EQ(LibTrim2(nullptr), 0);
}

TEST(SettingsFile, KeysValuesAndTheirRules) {
    Read r = read_settings(
        "# RTA_PORT~3000\n; a comment without any key\nUSER~  agent \t\r\nPROCESSES~1\nPRIORITY~7\n"
        "SCAN_RATE~abc\nDATA_DIR~/d\nVERBOSE~1\nALERTS~0\nLOG_DIR~/var/x");
    ASSERT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "");
    // The key stands anywhere in a line; a bad number reads as 0.
    EXPECT_EQ(written(r.rec), "7 1 agent 3000 0 0 1/1");
    EXPECT_EQ(r.rec.priority_from_file + r.rec.datadir_set + r.rec.logdir_set, 3);
    EXPECT_STREQ(r.rec.data_dir, "/d");
    EXPECT_STREQ(r.rec.log_dir, "/var/");  // the last line had no newline to lose

    // One key per line: the first in key order wins, wherever it stands.
    EXPECT_EQ(written(read_settings("USER~x RTA_PORT~5\n").rec), "-5 0 root 5 2 1 0/0");
    Read inst = read_settings("INSTALL_DIR~/srv/agent\nLOG_DIR~\n");
    EXPECT_STREQ(inst.rec.install_dir, "/srv/agent");
    EXPECT_STREQ(inst.rec.log_dir, "");
    EXPECT_STREQ(read_settings("DATA_DIR~").rec.data_dir, "");

    Read five = read_settings("ALERTS~5\n");
    EXPECT_EQ(five.out, "ALERTS setting must be either 1 or 0 \n");
    EXPECT_EQ(five.rec.alerts, 1);

    // A file without keys, or none at all, changes nothing.
    RtaCmdline before = default_record();
    Read none = read_settings("nothing here\n\n# PORT 3000\n", before);
    EXPECT_EQ(none.result, 0);
    memcpy(before.config_file, none.rec.config_file, sizeof before.config_file);
    EXPECT_EQ(memcmp(&none.rec, &before, sizeof before), 0);
    snprintf(before.config_file, sizeof before.config_file, "/nonexistent/dir/rta.config");
    EXPECT_EQ(rta_parse_startup_file(&before), 0);
}

TEST(SettingsFile, LongLinesAndBinaryGarbage) {
    // Lines are read in 511-byte pieces, each searched alone: a key in the last piece of a
    // long line is found, one cut by a piece boundary is not.
    EXPECT_EQ(read_settings(std::string(2000, 'x') + "RTA_PORT~4242\n").rec.port, 4242);
    Read cut = read_settings(std::string(505, 'x') + "RTA_PORT~99\nSCAN_RATE~4\n");
    EXPECT_EQ(cut.rec.port, 2101);
    EXPECT_EQ(cut.rec.scan, 4);
    // A value longer than a piece ends with the piece, less its last character.
    EXPECT_EQ(strlen(read_settings("LOG_DIR~" + std::string(600, 'p') + "\n").rec.log_dir), 511u - 8u - 1u);
    EXPECT_EQ(std::string(read_settings("USER~" + std::string(300, 'u') + "\n").rec.user), std::string(31, 'u'));

    for (unsigned seed : {1u, 7u, 99u}) {
        std::string content;
        for (int i = 0; i < 64 * 1024; ++i) content += static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
        // A NUL ends the searchable text of a line, so the first key is hidden.
        content += std::string("\n\0RTA_PORT~1\n", 13) + "\nSCAN_RATE~9\n";
        Read r = read_settings(content);
        EXPECT_EQ(r.result, 1);
        EXPECT_EQ(r.rec.scan, 9);
        EXPECT_NE(r.rec.port, 1);
        EXPECT_EQ(r.rec.user[sizeof r.rec.user - 1], '\0');
    }
}

TEST(SettingsFile, WriterGoldenAndRoundTrip) {
    TempDir t;
    RtaCmdline w = default_record();
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s", t.path().c_str());
    snprintf(w.user, sizeof w.user, "agent");
    w.priority = 9;
    w.verbose = 1;
    w.port = 3101;
    w.scan = 5;
    w.alerts = 0;
    w.collect_process = 1;
    w.class_process = 1;

    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 1);
    std::string path = t / (std::string("rta_") + w.hostname + ".config");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + path + " \n");
    EXPECT_EQ(read_file(path), "PRIORITY~9\nVERBOSE~1\nUSER~agent\nRTA_PORT~3101\nSCAN_RATE~5\nALERTS~0\nPROCESSES~1\n");
    EXPECT_EQ(written(read_settings(read_file(path)).rec), written(w));

    // An unwritable place: the message is still printed, the result is 0.
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s/missing", t.path().c_str());
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("Writing config file " + t.path() + "/missing/rta_", 0), 0u);
}

TEST(InstallPaths, UpdatePathsResolvesLinks) {
    TempDir t;
    std::string root = t / "newroot";
    write_file(root + "/logs/.keep", "");
    write_file(t / "elsewhere/data/.keep", "");
    ASSERT_EQ(symlink((t / "elsewhere/data").c_str(), (root + "/data").c_str()), 0);
    ASSERT_EQ(symlink((t / "nowhere").c_str(), (t / "dangling").c_str()), 0);
    char real_data[PATH_MAX];
    ASSERT_NE(realpath((t / "elsewhere/data").c_str(), real_data), nullptr);

    char result[512];
    EXPECT_EQ(rta_resolve_softlink((root + "/logs").c_str(), result, 0), 0);
    EXPECT_EQ(result, root + "/logs");
    EXPECT_EQ(rta_resolve_softlink((t / "dangling").c_str(), result, 0), 1);  // unresolved, still a link
    EXPECT_EQ(result, t / "dangling");
    EXPECT_LT(rta_resolve_softlink((t / "absent").c_str(), result, 0), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_resolve_softlink((root + "/data").c_str(), result, 1), 1);
    EXPECT_STREQ(result, real_data);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), root + "/data ->    " + real_data + " \n");

    RtaCmdline r = default_record();
    const RtaCmdline before = r;
    // main passes the record's own install_dir, which -update filled.
    snprintf(r.install_dir, sizeof r.install_dir, "%s", root.c_str());
    EXPECT_EQ(rta_update_paths(&r, r.install_dir), 1);
    EXPECT_EQ(r.install_dir, root);
    EXPECT_STREQ(r.data_dir, real_data);
    EXPECT_EQ(r.log_dir, root + "/logs");
    // Only the three directories move.
    EXPECT_EQ(std::string(r.settings_dir) + r.lock_file + r.config_file + r.tmp_dir,
              std::string(before.settings_dir) + before.lock_file + before.config_file + before.tmp_dir);

    RtaCmdline q = default_record();
    const RtaCmdline q_before = q;
    EXPECT_EQ(rta_update_paths(&q, (t / "does-not-exist").c_str()), 0);
    EXPECT_EQ(memcmp(&q, &q_before, sizeof q), 0);
}

TEST(InstallPaths, SetupFromProgramLocation) {
    // It changes the working directory, so it runs in a child.
    TempDir t;
    std::string root = t / "inst";
    write_file(root + "/bin/vornrta", "");
    for (const char* d : {"tmp", "logs"}) write_file(root + "/" + d + "/.keep", "");
    ASSERT_EQ(symlink((root + "/bin/vornrta").c_str(), (t / "launcher").c_str()), 0);
    char real[PATH_MAX];
    ASSERT_NE(realpath(root.c_str(), real), nullptr);
    const std::string rr = real;

    auto setup = [&](const std::string& program, const std::string& path_env) {
        return run_in_child([&] {
            // From a directory that holds no file of that name.
            if (chdir(t.path().c_str()) != 0) return 99;
            setenv("PATH", path_env.c_str(), 1);
            RtaCmdline r = default_record();
            int rc = rta_setup_install_paths(program.c_str(), &r, 1);
            printf("%d|%s|%s|%s", rc, r.install_dir, r.tmp_dir, r.data_dir);
            return 0;
        });
    };
    // Through a link, and as a bare name along PATH; data/ is missing in both.
    for (auto c : {setup(t / "launcher", ""), setup("vornrta", "/nonexistent:" + root + "/bin")}) {
        EXPECT_EQ(c.out, "0|" + rr + "|" + rr + "/tmp|" + rr + "/data");
        EXPECT_EQ(c.err, "error: lstat failed on DATA_PATH, " + rr + "/data : No such file or directory\n");
    }
    write_file(root + "/data/.keep", "");
    ChildResult ok = setup(root + "/bin/vornrta", "");
    EXPECT_EQ(ok.out, "1|" + rr + "|" + rr + "/tmp|" + rr + "/data");
    EXPECT_EQ(ok.err, "");
}
