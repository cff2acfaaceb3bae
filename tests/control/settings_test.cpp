// Settings file reader and writer, LibTrim2, the -update path rewrite with its link
// resolution, and the install root derived from the program's location.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
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
    std::string path = t / "rta_test.config";
    write_file(path, content);
    snprintf(rec.config_file, sizeof rec.config_file, "%s", path.c_str());
    testing::internal::CaptureStdout();
    int rc = rta_parse_startup_file(&rec);
    std::string out = testing::internal::GetCapturedStdout();
    return {rec, rc, out};
}

// Deterministic noise: every byte value, NULs included.
std::string noise(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1103515245u + 12345u;
        s[i] = static_cast<char>(seed >> 16);
    }
    return s;
}

}  // namespace

TEST(LibTrim2, TrimsBlanksAndLineEnds) {
    struct Case {
        const char* in;
        const char* out;
        int len;
    } cases[] = {
        {"  agent \t\r", "agent", 5}, {"\t a b \n", "a b", 3}, {"   \t", "", 0},
        {"", "", 0},                  {"\n", "", 0},          {"x", "x", 1},
        {"\r\nx", "\r\nx", 3},  // leading line ends are not blanks
    };
    for (const auto& c : cases) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s", c.in);
        EXPECT_EQ(LibTrim2(buf), c.len) << '"' << c.in << '"';
        EXPECT_STREQ(buf, c.out);
    }
    EXPECT_EQ(LibTrim2(nullptr), 0);
}

TEST(SettingsFile, KeysValuesAndTheirRules) {
    Read r = read_settings(
        "# RTA_PORT~3000\n"
        "; a comment without any key\n"
        "USER~  agent \t\r\n"
        "PROCESSES~1\n"
        "PRIORITY~7\n"
        "SCAN_RATE~abc\n"
        "DATA_DIR~/d\n"
        "VERBOSE~1\n"
        "LOG_DIR~/var/x");
    ASSERT_EQ(r.result, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.rec.port, 3000);  // the key stands anywhere in the line
    EXPECT_STREQ(r.rec.user, "agent");
    EXPECT_EQ(r.rec.collect_process, 1);
    EXPECT_EQ(r.rec.class_process, 1);
    EXPECT_EQ(r.rec.priority, 7);
    EXPECT_EQ(r.rec.priority_from_file, 1);
    EXPECT_EQ(r.rec.scan, 0);  // a bad number reads as 0
    EXPECT_STREQ(r.rec.data_dir, "/d");
    EXPECT_EQ(r.rec.datadir_set, 1);
    EXPECT_EQ(r.rec.verbose, 1);
    EXPECT_STREQ(r.rec.log_dir, "/var/");  // last line without newline loses its last character
    EXPECT_EQ(r.rec.logdir_set, 1);

    // One key per line: the first in key order wins, wherever it stands.
    Read both = read_settings("USER~x RTA_PORT~5\n");
    EXPECT_EQ(both.rec.port, 5);
    EXPECT_STREQ(both.rec.user, "root");

    Read inst = read_settings("INSTALL_DIR~/srv/agent\nLOG_DIR~\n");
    EXPECT_STREQ(inst.rec.install_dir, "/srv/agent");
    EXPECT_STREQ(inst.rec.log_dir, "");
    // A key with nothing after it, at the very end, leaves an empty value.
    EXPECT_STREQ(read_settings("DATA_DIR~").rec.data_dir, "");
}

TEST(SettingsFile, AlertsMustBeZeroOrOne) {
    Read five = read_settings("ALERTS~5\n");
    EXPECT_EQ(five.result, 1);
    EXPECT_EQ(five.out, "ALERTS setting must be either 1 or 0 \n");
    EXPECT_EQ(five.rec.alerts, 1);

    Read zero = read_settings("ALERTS~0\n");
    EXPECT_EQ(zero.out, "");
    EXPECT_EQ(zero.rec.alerts, 0);
}

TEST(SettingsFile, MissingOrKeylessFileChangesNothing) {
    RtaCmdline before = default_record();
    Read none = read_settings("nothing here\n\n# PORT 3000\n", before);
    EXPECT_EQ(none.result, 0);
    memcpy(before.config_file, none.rec.config_file, sizeof before.config_file);
    EXPECT_EQ(memcmp(&none.rec, &before, sizeof before), 0);

    RtaCmdline r = default_record();
    snprintf(r.config_file, sizeof r.config_file, "/nonexistent/dir/rta.config");
    EXPECT_EQ(rta_parse_startup_file(&r), 0);
}

TEST(SettingsFile, LongLinesAreReadInPieces) {
    // The key lies wholly in the last piece of a 2000-character line.
    Read late = read_settings(std::string(2000, 'x') + "RTA_PORT~4242\n");
    EXPECT_EQ(late.rec.port, 4242);

    // A key cut by a piece boundary is not found in either piece.
    Read cut = read_settings(std::string(505, 'x') + "RTA_PORT~99\nSCAN_RATE~4\n");
    EXPECT_EQ(cut.rec.port, 2101);
    EXPECT_EQ(cut.rec.scan, 4);

    // A value longer than a piece ends with the piece (less its last character).
    Read longpath = read_settings("LOG_DIR~" + std::string(600, 'p') + "\nVERBOSE~1\n");
    EXPECT_EQ(strlen(longpath.rec.log_dir), 511u - 8u - 1u);
    EXPECT_EQ(longpath.rec.verbose, 1);

    Read longuser = read_settings("USER~" + std::string(300, 'u') + "\n");
    EXPECT_EQ(std::string(longuser.rec.user), std::string(31, 'u'));
}

TEST(SettingsFile, BinaryGarbageIsSurvived) {
    for (unsigned seed : {1u, 7u, 99u}) {
        std::string content = noise(64 * 1024, seed);
        // A NUL ends the searchable text of a line, so this key is hidden...
        content += std::string("\n\0RTA_PORT~1\n", 13);
        // ...while one on its own line is read.
        content += "\nSCAN_RATE~9\n";
        Read r = read_settings(content);
        EXPECT_EQ(r.result, 1) << seed;
        EXPECT_EQ(r.rec.scan, 9) << seed;
        EXPECT_NE(r.rec.port, 1) << seed;
        EXPECT_EQ(r.rec.user[sizeof r.rec.user - 1], '\0');
        EXPECT_EQ(r.rec.log_dir[sizeof r.rec.log_dir - 1], '\0');
    }
}

TEST(SettingsFile, WriterGoldenAndRoundTrip) {
    TempDir t;
    RtaCmdline w = default_record();
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s", t.path().c_str());
    w.priority = 9;
    w.verbose = 1;
    snprintf(w.user, sizeof w.user, "agent");
    w.port = 3101;
    w.scan = 5;
    w.alerts = 0;
    w.collect_process = 1;

    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 1);
    std::string out = testing::internal::GetCapturedStdout();
    std::string path = t / (std::string("rta_") + w.hostname + ".config");
    EXPECT_EQ(out, "Writing config file " + path + " \n");
    EXPECT_EQ(read_file(path),
              "PRIORITY~9\nVERBOSE~1\nUSER~agent\nRTA_PORT~3101\nSCAN_RATE~5\nALERTS~0\nPROCESSES~1\n");

    RtaCmdline r = default_record();
    snprintf(r.config_file, sizeof r.config_file, "%s", path.c_str());
    ASSERT_EQ(rta_parse_startup_file(&r), 1);
    EXPECT_EQ(r.priority, w.priority);
    EXPECT_EQ(r.verbose, w.verbose);
    EXPECT_STREQ(r.user, w.user);
    EXPECT_EQ(r.port, w.port);
    EXPECT_EQ(r.scan, w.scan);
    EXPECT_EQ(r.alerts, w.alerts);
    EXPECT_EQ(r.collect_process, 1);
    EXPECT_EQ(r.class_process, 1);

    // An unwritable place: the message is still printed, the result is 0.
    RtaCmdline bad = default_record();
    snprintf(bad.settings_dir, sizeof bad.settings_dir, "%s/missing/dir", t.path().c_str());
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&bad), 0);
    std::string bad_out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(bad_out.rfind("Writing config file " + t.path() + "/missing/dir/rta_", 0), 0u);
}

TEST(InstallPaths, ResolveSoftlink) {
    TempDir t;
    write_file(t / "real/f", "x");
    ASSERT_EQ(symlink((t / "real").c_str(), (t / "link").c_str()), 0);
    ASSERT_EQ(symlink((t / "nowhere").c_str(), (t / "dangling").c_str()), 0);
    char real[PATH_MAX];
    ASSERT_NE(realpath((t / "real").c_str(), real), nullptr);

    char result[512];
    EXPECT_EQ(rta_resolve_softlink((t / "real").c_str(), result, 0), 0);
    EXPECT_EQ(std::string(result), t / "real");
    EXPECT_EQ(rta_resolve_softlink((t / "link").c_str(), result, 0), 1);
    EXPECT_STREQ(result, real);
    EXPECT_EQ(rta_resolve_softlink((t / "dangling").c_str(), result, 0), 1);
    EXPECT_EQ(std::string(result), t / "dangling");
    EXPECT_LT(rta_resolve_softlink((t / "absent").c_str(), result, 0), 0);

    testing::internal::CaptureStdout();
    rta_resolve_softlink((t / "link").c_str(), result, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), t / "link" + " ->    " + real + " \n");
}

TEST(InstallPaths, UpdatePathsReRootsDataAndLogs) {
    TempDir t;
    std::string root = t / "newroot";
    write_file(root + "/logs/.keep", "");
    write_file(t / "elsewhere/data/.keep", "");
    ASSERT_EQ(symlink((t / "elsewhere/data").c_str(), (root + "/data").c_str()), 0);
    char real_data[PATH_MAX];
    ASSERT_NE(realpath((t / "elsewhere/data").c_str(), real_data), nullptr);

    RtaCmdline r = default_record();
    const RtaCmdline before = r;
    // main passes the record's own install_dir, which -update filled.
    snprintf(r.install_dir, sizeof r.install_dir, "%s", root.c_str());
    EXPECT_EQ(rta_update_paths(&r, r.install_dir), 1);
    EXPECT_EQ(std::string(r.install_dir), root);
    EXPECT_STREQ(r.data_dir, real_data);
    EXPECT_EQ(std::string(r.log_dir), root + "/logs");
    // Only the three directories move.
    EXPECT_STREQ(r.settings_dir, before.settings_dir);
    EXPECT_STREQ(r.lock_file, before.lock_file);
    EXPECT_STREQ(r.config_file, before.config_file);
    EXPECT_STREQ(r.tmp_dir, before.tmp_dir);

    RtaCmdline q = default_record();
    const RtaCmdline q_before = q;
    EXPECT_EQ(rta_update_paths(&q, (t / "does-not-exist").c_str()), 0);
    EXPECT_EQ(memcmp(&q, &q_before, sizeof q), 0);
}

TEST(InstallPaths, SetupFromProgramLocation) {
    // It changes the working directory, so it runs in a child.
    TempDir t;
    std::string root = t / "inst";
    write_file(root + "/bin/vornrta", "#!/bin/true\n");
    for (const char* d : {"tmp", "logs", "data"}) write_file(root + "/" + d + "/.keep", "");
    write_file(t / "partial/bin/vornrta", "");
    write_file(t / "partial/logs/.keep", "");
    write_file(t / "partial/tmp/.keep", "");
    ASSERT_EQ(symlink((root + "/bin/vornrta").c_str(), (t / "launcher").c_str()), 0);
    char real_root[PATH_MAX];
    ASSERT_NE(realpath(root.c_str(), real_root), nullptr);
    char real_partial[PATH_MAX];
    ASSERT_NE(realpath((t / "partial").c_str(), real_partial), nullptr);

    for (std::string program : {root + "/bin/vornrta", t / "launcher"}) {
        ChildResult c = run_in_child([&] {
            RtaCmdline r = default_record();
            int rc = rta_setup_install_paths(program.c_str(), &r, 1);
            char cwd[PATH_MAX];
            printf("%d|%s|%s|%s|%s|%s", rc, r.install_dir, r.tmp_dir, r.log_dir, r.data_dir,
                   getcwd(cwd, sizeof cwd) ? cwd : "?");
            return 0;
        });
        std::string rr = real_root;
        EXPECT_EQ(c.out, "1|" + rr + "|" + rr + "/tmp|" + rr + "/logs|" + rr + "/data|" + rr) << program;
        EXPECT_EQ(c.err, "");
    }

    ChildResult missing = run_in_child([&] {
        RtaCmdline r = default_record();
        return rta_setup_install_paths((t / "partial/bin/vornrta").c_str(), &r, 1);
    });
    EXPECT_EQ(missing.exit_code, 0);
    EXPECT_EQ(missing.err, std::string("error: lstat failed on DATA_PATH, ") + real_partial +
                               "/data : No such file or directory\n");

    // A bare name is looked for along PATH.
    ChildResult via_path = run_in_child([&] {
        // From a directory that holds no file of that name.
        if (chdir(t.path().c_str()) != 0) return 99;
        setenv("PATH", ("/nonexistent:" + root + "/bin").c_str(), 1);
        RtaCmdline r = default_record();
        int rc = rta_setup_install_paths("vornrta", &r, 0);
        printf("%d|%s", rc, r.install_dir);
        return 0;
    });
    EXPECT_EQ(via_path.out, std::string("1|") + real_root);
}
