// The settings record: command line, usage text, install root, settings file, the -update
// path rewrite and the install paths derived from the program's location.
#include <gtest/gtest.h>

#include <tuple>

#include <cstring>
#include <vector>

#include "control/rta_banner.h"
#include "platform/roots.h"
#include "control_test_util.h"

using namespace control_test;

namespace {
struct Parsed { RtaCmdline rec; int result; std::string out, err; };

Parsed parse(std::vector<std::string> args, RtaCmdline rec = default_record(), bool first_pass = false) {
    args.insert(args.begin(), "vornrta");
    std::vector<char*> v;
    for (auto& a : args) v.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int n = static_cast<int>(args.size());
    int rc = first_pass ? rta_parse_cmdline_for_rootdir(v.data(), n, &rec) : rta_parse_command_line(v.data(), n, &rec);
    std::string out = testing::internal::GetCapturedStdout();
    return {rec, rc, out, testing::internal::GetCapturedStderr()};
}

Parsed read_settings(const std::string& content, RtaCmdline rec = default_record()) {
    TempDir t;
    write_file(t / "rta.config", content);
    snprintf(rec.config_file, sizeof rec.config_file, "%s", (t / "rta.config").c_str());
    testing::internal::CaptureStdout();
    int rc = rta_parse_startup_file(&rec);
    return {rec, rc, testing::internal::GetCapturedStdout(), ""};
}

std::string digits(std::initializer_list<int> v, const char* sep = "") {
    std::string s;
    for (int x : v) s += (s.empty() ? "" : sep) + std::to_string(x);
    return s;
}
std::string acts(const Parsed& p) { return digits({p.rec.status, p.rec.start, p.rec.stop, p.rec.usage}); }
std::string classes(const Parsed& p) {  // default cpu processor disk process vm net fs
    const RtaCmdline& r = p.rec;
    return digits({r.collect_default, r.class_cpu, r.class_processor, r.class_disk, r.class_process, r.class_vm,
                   r.class_net, r.class_fs});
}
std::string settings(const RtaCmdline& r) {  // what a settings file holds
    char buf[128];
    snprintf(buf, sizeof buf, "%d %d %s %d %d %d %d/%d", r.priority, r.verbose, r.user, r.port, r.scan, r.alerts,
             r.collect_process, r.class_process);
    return buf;
}

const std::string kBanner = std::string("vornrta ") + kMakerNotice + "\nBuild: V10.0-001 (Feb 23 2012)\n";
}  // namespace

TEST(CommandLine, ActionsAndSwitches) {
    EXPECT_EQ(parse({}).out, kBanner);
    // An option matches when the argument is a prefix of it longer than the option's minimum.
    std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "0100"}, {{"-stat"}, "1000"}, {{"-sta"}, "0001"}, {{"-sto"}, "0010"}, {{"-st"}, "0001"},
        {{"-stop"}, "0010"}, {{"-stopx"}, "0001"}, {{"-STOP"}, "0001"}, {{"-verbose"}, "0100"},
        {{"-bogus", "-stop"}, "0011"} /* parsing goes on */, {{"-nocollect"}, "0001"} /* needs 11 */};
    for (const auto& [args, expected] : cases) EXPECT_EQ(acts(parse(args)), expected) << testing::PrintToString(args);
    auto switches = [](const Parsed& p) {
        const RtaCmdline& r = p.rec;
        return digits({p.result, r.fork, r.lock, r.alerts, r.write_config, r.version, r.verbose, r.collect_process,
                       r.class_process, r.usage});
    };
    EXPECT_EQ(switches(parse({"-nofork", "-nolock", "-noalert", "-write_config", "-version", "-verbose", "-collectp"})),
              "1000111110");
    EXPECT_EQ(switches(parse({"-nofork", "-fork", "-nolock", "-lock", "-noalert", "-alert", "-collectproc",
                              "-nocollectproc", "-verbose", "-noverbose", "-purge"})),
              "1111000000");
}

TEST(CommandLine, ValueOptionsAndCollectList) {
    Parsed p = parse({"-port", "70000", "-port_rtdc", "3000", "-priority", "-7", "-user", "agent", "-scan", "15"});
    EXPECT_EQ(digits({p.rec.port, p.rec.port_rtdc, p.rec.priority, p.rec.scan, p.rec.start}, " ") + p.rec.user,
              "70000 3000 -7 15 1agent");
    for (const char* bad : {"0", "100000", "99999", "abc"})  // the value is consumed, start not set
        EXPECT_EQ(acts(parse({"-port", bad})) + std::to_string(parse({"-port", bad}).rec.port), "00002101") << bad;
    // As the last argument the ports have nothing to read and are ignored; an update with no
    // root asks for the usage text, whatever else was asked for.
    for (auto [opt, actions] : {std::pair{"-port", "0010"}, {"-port_rtdc", "0010"}, {"-update", "0011"}}) {
        Parsed q = parse({"-stop", opt});
        EXPECT_EQ(digits({q.result, q.rec.port, q.rec.port_rtdc, q.rec.update}, " ") + acts(q),
                  std::string("1 2101 2102 0") + actions)
            << opt;
    }
    Parsed upd = parse({"-update", "/new/root"});
    EXPECT_EQ(std::to_string(upd.rec.update) + upd.rec.install_dir, "1/new/root");
    // A missing value, {arguments, usage set}: -collect says so on standard output, the rest on standard error.
    std::pair<std::vector<std::string>, int> missing[] = {
        {{"-collect"}, 0}, {{"-collect", "-stop"}, 0}, {{"-rootdir", "-x"}, 1}, {{"-datadir"}, 1},
        {{"-logdir", "-x"}, 0}, {{"-priority"}, 0}, {{"-user"}, 0}, {{"-scan"}, 0}};
    for (const auto& [args, usage] : missing) {
        Parsed q = parse(args);
        SCOPED_TRACE(args[0]);
        EXPECT_EQ(digits({q.result, q.rec.usage}), "0" + std::to_string(usage));
        if (args[0] == "-collect") EXPECT_EQ(q.out, kBanner + "-collect option requires argument\n");
        else EXPECT_EQ(q.err, args[0] + " option requires an argument\n");
    }
    EXPECT_EQ(classes(parse({"-collect", "cpu,disk"})), "01110111");  // -collect: only the all-classes switch changes
    EXPECT_EQ(classes(parse({"-collect", "noall,cpu,proc"})), "01001000");
    EXPECT_EQ(classes(parse({"-collect", "noall,processo"})), "00100000");
    EXPECT_EQ(classes(parse({"-collect", "novm,nofs,nonet,nodisk,nocpu,noprocessor"})), "00000000");
    EXPECT_EQ(classes(parse({"-collect", ",noall,,all,"})), "01111111");
    EXPECT_EQ(parse({"-collect", "all"}).rec.collect_process, 0);  // the class only
    // Two-letter words are not longer than their minimum.
    for (std::string list : {"vm", "fs", "cpu,vm", "c"}) {
        Parsed q = parse({"-collect", list});
        EXPECT_EQ(std::to_string(q.result) + q.out,
                  "0" + kBanner + "Invalid argument for -collect option: " + list.substr(list.rfind(',') + 1) + "\n");
    }
}

TEST(CommandLine, DirectoriesAndDerivedPaths) {
    const std::string h = default_record().hostname;
    Parsed p = parse({"-rootdir", "/x", "-datadir", "/y"});
    EXPECT_EQ(std::string(p.rec.data_dir) + "|" + p.rec.log_dir + "|" + p.rec.lock_file + "|" + p.rec.config_file,
              "/y|/x/logs|/x/tmp/" + h + "_rtdc.lock|/x/settings/rta_" + h + ".config");
    EXPECT_EQ(std::string(p.rec.log_file).rfind("/x/logs/rta_" + h + "_", 0), 0u) << p.rec.log_file;
    // Kept as typed unless it climbs with "..": then anchored at the working directory.
    const std::string cwd = std::filesystem::current_path();
    Parsed rel = parse({"-logdir", "logs"});
    EXPECT_EQ(std::string(rel.rec.log_file).rfind("logs/rta_" + h + "_", 0), 0u);
    EXPECT_STREQ(rel.rec.lock_file, default_record().lock_file);  // no -rootdir, no re-derivation
    EXPECT_EQ(std::string(parse({"-logdir", "../logs"}).rec.log_dir), cwd + "/../logs");
    EXPECT_EQ(std::string(parse({"-datadir", "a/../d"}).rec.data_dir), cwd + "/a/../d");
    EXPECT_STREQ(parse({"-rootdir", "`pwd`/.."}).rec.install_dir, "`pwd`/..");
    EXPECT_EQ(std::string(parse({"-rootdir", "../r"}).rec.data_dir), cwd + "/../r/data");
    // The first pass only places the settings and lock files; it keeps the root as given.
    p = parse({"-stop", "-root", "rel/r", "-rootdir", "/other"}, default_record(), true);
    EXPECT_EQ(digits({p.result, p.rec.rootdir_set}) + p.rec.install_dir + "|" + p.rec.log_dir + "|" + p.rec.lock_file +
                  "|" + p.rec.config_file + "|" + p.rec.data_dir,
              "11rel/r|rel/r/logs|rel/r/tmp/" + h + "_rtdc.lock|rel/r/settings/rta_" + h + ".config|" +
                  default_record().data_dir);
    RtaCmdline before = default_record();
    p = parse({"-rootdir", "-stop"}, before, true);
    EXPECT_EQ(std::to_string(p.result) + p.err, "0-rootdir option requires an argument\n");
    EXPECT_EQ(memcmp(&p.rec, &before, sizeof before), 0);
}

TEST(CommandLine, InstallRootAndUsageText) {
    ChildResult c = run_in_child([] {  // the runner's environment stays as it was
        char buf[512];
        const std::string longer(2000, 'q');
        for (const char* value : {"/", "", "x", (const char*)nullptr, "/a//", longer.c_str(), "/srv/q/"}) {
            value ? setenv("QUORBEX_LIBRARY", value, 1) : unsetenv("QUORBEX_LIBRARY");
            int rc = get_quorbex_root(buf);
            printf("%d %s|", rc, buf);
        }
        return printf("%s", default_record().settings_dir), 0;
    });
    EXPECT_EQ(c.out, "2 /opt/quorbex|2 /opt/quorbex|2 /opt/quorbex|2 /opt/quorbex|1 /a/|1 " + std::string(511, 'q') +
                         "|1 /srv/q|/srv/q/settings");
    testing::internal::CaptureStdout();
    rta_print_usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), read_file(kFixtures + "control/usage.txt"));
}

TEST(SettingsFile, ReaderAndWriter) {
    Parsed r = read_settings(
        "# RTA_PORT~3000\n; a comment without any key\nUSER~  agent \t\r\nPROCESSES~1\nPRIORITY~7\n"
        "SCAN_RATE~abc\nDATA_DIR~/d\nVERBOSE~1\nALERTS~0\nLOG_DIR~/var/x");
    // The key stands anywhere in a line, a bad number reads as 0, the user is trimmed, and a
    // text value loses its last character even without a newline.
    EXPECT_EQ(std::to_string(r.result) + "|" + r.out + settings(r.rec), "1|7 1 agent 3000 0 0 1/1");
    EXPECT_EQ(digits({r.rec.priority_from_file, r.rec.datadir_set, r.rec.logdir_set}) + r.rec.data_dir + r.rec.log_dir,
              "111/d/var/");
    // One key per line: the first in key order wins, wherever it stands.
    EXPECT_EQ(settings(read_settings("USER~x RTA_PORT~5\n").rec), "-5 0 root 5 2 1 0/0");
    Parsed inst = read_settings("INSTALL_DIR~/srv/agent\nLOG_DIR~\nDATA_DIR~");
    EXPECT_EQ(std::string(inst.rec.install_dir) + "|" + inst.rec.log_dir + "|" + inst.rec.data_dir, "/srv/agent||");
    Parsed five = read_settings("ALERTS~5\n");
    EXPECT_EQ(five.out + std::to_string(five.rec.alerts), "ALERTS setting must be either 1 or 0 \n1");
    // A file without keys, or none at all, changes nothing.
    Parsed none = read_settings("nothing here\n\n# PORT 3000\n");
    EXPECT_EQ(std::to_string(none.result) + "|" + settings(none.rec), "0|" + settings(default_record()));
    EXPECT_EQ(rta_parse_startup_file(&none.rec), 0);  // its file went with its directory
    // Lines come in pieces: a key in the last is found, a NUL hides the rest, a long value ends with its piece.
    Parsed cut = read_settings(std::string(2000, 'x') + "RTA_PORT~4242\n" + std::string("\0VERBOSE~1\n", 11) +
                               "USER~" + std::string(300, 'u') + "\nLOG_DIR~" + std::string(600, 'p') + "\n");
    EXPECT_EQ(settings(cut.rec) + " " + std::to_string(strlen(cut.rec.log_dir)),
              "-5 0 " + std::string(31, 'u') + " 4242 2 1 0/0 502");

    TempDir t;
    RtaCmdline w = default_record();
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s", t.path.c_str());
    snprintf(w.user, sizeof w.user, "agent");
    w.priority = 9, w.verbose = 1, w.port = 3101, w.scan = 5, w.alerts = 0, w.collect_process = w.class_process = 1;
    const std::string name = std::string("rta_") + w.hostname + ".config", path = t / name;
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + path + " \n");
    EXPECT_EQ(read_file(path), read_file(kFixtures + "control/settings-written.config"));
    EXPECT_EQ(settings(read_settings(read_file(path)).rec), settings(w));
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s/missing", t.path.c_str());  // unwritable: the message stays
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Writing config file " + t.path + "/missing/" + name + " \n");
}

// The two keys of who may connect are read like USER~ (trimmed, found anywhere in a line) and
// never written: the writer keeps to its seven keys.
TEST(SettingsFile, AddressAndAllowAreReadButNeverWritten) {
    EXPECT_STREQ(default_record().address, "0.0.0.0");
    EXPECT_STREQ(default_record().allow, "");
    Parsed r = read_settings("ADDRESS~ 127.0.0.1 \r\n# ALLOW~10.0.0.0/8, 192.168.1.7  10.9.9.9\t\nRTA_PORT~3101\n");
    EXPECT_EQ(std::string(r.rec.address) + "|" + r.rec.allow + "|" + std::to_string(r.rec.port),
              "127.0.0.1|10.0.0.0/8, 192.168.1.7  10.9.9.9|3101");
    TempDir t;
    snprintf(r.rec.settings_dir, sizeof r.rec.settings_dir, "%s", t.path.c_str());
    snprintf(r.rec.user, sizeof r.rec.user, "agent");
    r.rec.priority = 9, r.rec.verbose = 1, r.rec.scan = 5, r.rec.alerts = 0, r.rec.collect_process = 1;
    testing::internal::CaptureStdout();
    ASSERT_EQ(rta_write_settings_file(&r.rec), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(read_file(t / (std::string("rta_") + r.rec.hostname + ".config")),
              read_file(kFixtures + "control/settings-written.config"));
}

TEST(SettingsFile, CounterTreesAreReadAndNeverWritten) {
    // settings text; proc directory, sys directory read from it
    for (auto [text, proc, sys] : {std::tuple<std::string, std::string, std::string>{
                                       "PROC_DIR~ /host/proc \t\r\nSYS_DIR~/host/sys\n", "/host/proc", "/host/sys"},
                                   {"SYS_DIR~/s\n", "", "/s"},
                                   {"# PROC_DIR~/commented\n", "/commented", ""},
                                   {"PROC_DIR~" + std::string(600, 'p') + "\n", std::string(502, 'p'), ""}}) {
        SCOPED_TRACE(text);
        Parsed r = read_settings(text);
        EXPECT_EQ(r.result, 1);
        EXPECT_EQ(std::string(r.rec.proc_dir) + "|" + r.rec.sys_dir, proc + "|" + sys);
        EXPECT_EQ(settings(r.rec), settings(default_record()));  // nothing else changes
    }
    // The counters read the trees given, the mount table through them; the agent still
    // finds itself among its own processes.
    platform::Roots roots = platform::counter_roots("/host/proc", "/host/sys");
    EXPECT_EQ(roots.proc + " " + roots.sys + " " + roots.mounts + " " + roots.own_proc,
              "/host/proc /host/sys /host/proc/self/mounts /proc");
    roots = platform::counter_roots("", "");
    EXPECT_EQ(roots.proc + " " + roots.sys + " " + roots.mounts, "/proc /sys /proc/self/mounts");

    TempDir t;
    RtaCmdline w = default_record();
    snprintf(w.settings_dir, sizeof w.settings_dir, "%s", t.path.c_str());
    snprintf(w.proc_dir, sizeof w.proc_dir, "/host/proc");
    snprintf(w.sys_dir, sizeof w.sys_dir, "/host/sys");
    testing::internal::CaptureStdout();
    EXPECT_EQ(rta_write_settings_file(&w), 1);
    testing::internal::GetCapturedStdout();
    const std::string written = read_file(t / (std::string("rta_") + w.hostname + ".config"));
    EXPECT_EQ(written.find("_DIR~/host"), std::string::npos);
}

TEST(InstallPaths, UpdateAndProgramLocation) {
    TempDir t;
    std::string root = t / "newroot";
    write_file(t / "elsewhere/data/.keep", "");
    std::filesystem::create_directories(root);
    ASSERT_EQ(symlink((t / "elsewhere/data").c_str(), (root + "/data").c_str()), 0);
    ASSERT_EQ(symlink((t / "nowhere").c_str(), (root + "/logs").c_str()), 0);  // dangling: it keeps its name
    const std::string real_data = std::filesystem::canonical(t / "elsewhere/data");
    // main passes the record's own install_dir, which -update filled; only three directories move.
    RtaCmdline r = default_record(), before = r;
    snprintf(r.install_dir, sizeof r.install_dir, "%s", root.c_str());
    EXPECT_EQ(rta_update_paths(&r, r.install_dir), 1);
    EXPECT_EQ(std::string(r.install_dir) + "|" + r.data_dir + "|" + r.log_dir,
              root + "|" + real_data + "|" + root + "/logs");
    EXPECT_EQ(std::string(r.settings_dir) + r.lock_file + r.config_file + r.tmp_dir,
              std::string(before.settings_dir) + before.lock_file + before.config_file + before.tmp_dir);
    r = before;
    EXPECT_EQ(rta_update_paths(&r, (t / "does-not-exist").c_str()), 0);
    EXPECT_EQ(memcmp(&r, &before, sizeof r), 0);

    root = t / "inst";  // the root above the program's directory
    for (const char* f : {"bin/vornrta", "tmp/.keep", "logs/.keep"}) write_file(root + "/" + f, "");
    ASSERT_EQ(symlink((root + "/bin/vornrta").c_str(), (t / "launcher").c_str()), 0);
    const std::string rr = std::filesystem::canonical(root), dirs = rr + "|" + rr + "/tmp|" + rr + "/data";
    auto setup = [&](const std::string& program, const std::string& path_env) {
        return run_in_child([&] {  // it changes the working directory, to one holding no file of that name
            if (chdir(t.path.c_str()) != 0 || setenv("PATH", path_env.c_str(), 1) != 0) return 99;
            RtaCmdline rec = default_record();
            int rc = rta_setup_install_paths(program.c_str(), &rec, 1);
            return printf("%d|%s|%s|%s", rc, rec.install_dir, rec.tmp_dir, rec.data_dir), 0;
        });
    };
    // Through a link while data/ is missing, then as a bare name along PATH.
    ChildResult c = setup(t / "launcher", "");
    EXPECT_EQ(c.out + c.err,
              "0|" + dirs + "error: lstat failed on DATA_PATH, " + rr + "/data : No such file or directory\n");
    write_file(root + "/data/.keep", "");
    c = setup("vornrta", "/nonexistent:" + root + "/bin");
    EXPECT_EQ(c.out + c.err, "1|" + dirs);
}
