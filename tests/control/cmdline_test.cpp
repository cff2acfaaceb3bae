// Command line: option matching by prefix, the -collect word list, value options and the
// relative path rules, the -rootdir first pass, the install root and the usage text.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "child_run.h"
#include "control/rta_cmdline.h"
#include "control_test_util.h"

using namespace control_test;

namespace {

struct Parsed {
    RtaCmdline rec;
    int result;
    std::string out, err;
};

Parsed parse(std::vector<std::string> args, RtaCmdline rec = default_record(), bool first_pass = false) {
    args.insert(args.begin(), "vornrta");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int argc = static_cast<int>(args.size());
    int rc = first_pass ? rta_parse_cmdline_for_rootdir(argv.data(), argc, &rec)
                        : rta_parse_command_line(argv.data(), argc, &rec);
    std::string out = testing::internal::GetCapturedStdout();
    return {rec, rc, out, testing::internal::GetCapturedStderr()};
}

// The action switches as digits: status start stop usage.
std::string acts(const RtaCmdline& r) {
    return std::to_string(r.status) + std::to_string(r.start) + std::to_string(r.stop) + std::to_string(r.usage);
}

// The class switches as digits: default cpu processor disk process vm net fs.
std::string classes(const RtaCmdline& r) {
    int v[] = {r.collect_default, r.class_cpu, r.class_processor, r.class_disk,
               r.class_process,   r.class_vm,  r.class_net,       r.class_fs};
    std::string s;
    for (int x : v) s += std::to_string(x);
    return s;
}

const std::string kBanner = std::string("vornrta ") + kMakerNotice + "\nBuild: V10.0-001 (Feb 23 2012)\n";

}  // namespace

TEST(OptionCompare, PrefixLongerThanMinimumMatches) {
    struct {
        const char *arg, *option;
        int minimum, expected;
    } cases[] = {
        {"-sto", "-stop", 3, 1},    {"-st", "-stop", 3, 0},    {"-stop", "-stop", 3, 1},
        {"-stat", "-status", 4, 1}, {"-sta", "-status", 4, 0}, {"-stopx", "-stop", 3, 0},
        {"-STOP", "-stop", 3, 0},   {"", "-x", -1, 1},         {"", "-x", 0, 0},
        {"-port_rtdc", "-port", 4, 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(unix_option_compare(c.arg, c.option, c.minimum), c.expected) << c.arg << " " << c.option;
}

TEST(CommandLine, ActionsAndSwitches) {
    Parsed none = parse({});
    EXPECT_EQ(none.result, 1);
    EXPECT_EQ(none.out, kBanner);
    EXPECT_EQ(acts(none.rec), "0100");

    EXPECT_EQ(acts(parse({"-stat"}).rec), "1000");
    EXPECT_EQ(acts(parse({"-sta"}).rec), "0001");
    EXPECT_EQ(acts(parse({"-sto"}).rec), "0010");
    EXPECT_EQ(acts(parse({"-st"}).rec), "0001");
    EXPECT_EQ(acts(parse({"-bogus", "-stop"}).rec), "0011");  // parsing goes on
    EXPECT_EQ(acts(parse({"-verbose"}).rec), "0100");
    EXPECT_EQ(acts(parse({"-nocollect"}).rec), "0001");  // -nocollectprocess needs 11

    Parsed p = parse({"-nofork", "-nolock", "-write_config", "-version", "-verbose", "-collectp", "-noalert"});
    EXPECT_EQ(p.rec.fork + p.rec.lock + p.rec.alerts, 0);
    EXPECT_EQ(p.rec.write_config + p.rec.version + p.rec.verbose + p.rec.collect_process + p.rec.class_process, 5);
    Parsed undo = parse({"-nofork", "-fork", "-nolock", "-lock", "-noalert", "-alert", "-collectproc",
                         "-nocollectproc", "-verbose", "-noverbose"});
    EXPECT_EQ(undo.rec.fork + undo.rec.lock + undo.rec.alerts, 3);
    EXPECT_EQ(undo.rec.collect_process + undo.rec.class_process + undo.rec.verbose + undo.rec.usage, 0);

    RtaCmdline before = default_record();
    Parsed purge = parse({"-purge"}, before);
    EXPECT_EQ(memcmp(&purge.rec, &before, sizeof before), 0);
}

TEST(CommandLine, ValueOptions) {
    Parsed p = parse({"-port", "70000", "-port_rtdc", "3000", "-priority", "-7", "-user", "agent", "-scan", "15"});
    EXPECT_EQ(p.rec.port, 70000);
    EXPECT_EQ(p.rec.port_rtdc, 3000);
    EXPECT_EQ(p.rec.priority, -7);
    EXPECT_STREQ(p.rec.user, "agent");
    EXPECT_EQ(p.rec.scan, 15);
    EXPECT_EQ(p.rec.start, 1);

    for (const char* bad : {"0", "100000", "99999", "abc"}) {
        Parsed q = parse({"-port", bad});
        EXPECT_EQ(q.rec.port, 2101) << bad;
        EXPECT_EQ(acts(q.rec), "0000") << bad;  // value consumed, start not set
    }
    // As the last argument these options have nothing to read and are ignored.
    for (const char* opt : {"-port", "-port_rtdc", "-update"}) {
        Parsed q = parse({"-stop", opt});
        EXPECT_EQ(q.result, 1) << opt;
        EXPECT_EQ(q.rec.port + q.rec.port_rtdc + q.rec.update, 2101 + 2102) << opt;
        EXPECT_EQ(acts(q.rec), "0010") << opt;
    }
    Parsed upd = parse({"-update", "/new/root"});
    EXPECT_EQ(upd.rec.update, 1);
    EXPECT_STREQ(upd.rec.install_dir, "/new/root");
    EXPECT_EQ(std::string(parse({"-user", std::string(100, 'u')}).rec.user), std::string(31, 'u'));
}

TEST(CommandLine, MissingArguments) {
    struct {
        std::vector<std::string> args;
        std::string message;
        bool on_stdout;
        int usage;
    } cases[] = {
        {{"-collect"}, "-collect option requires argument\n", true, 0},
        {{"-collect", "-stop"}, "-collect option requires argument\n", true, 0},
        {{"-rootdir", "-x"}, "-rootdir option requires an argument\n", false, 1},
        {{"-datadir"}, "-datadir option requires an argument\n", false, 1},
        {{"-logdir", "-x"}, "-logdir option requires an argument\n", false, 0},
        {{"-priority"}, "-priority option requires an argument\n", false, 0},
        {{"-user"}, "-user option requires an argument\n", false, 0},
        {{"-scan"}, "-scan option requires an argument\n", false, 0},
    };
    for (const auto& c : cases) {
        Parsed p = parse(c.args);
        EXPECT_EQ(p.result, 0) << c.args[0];
        EXPECT_EQ(c.on_stdout ? p.out : p.err, c.on_stdout ? kBanner + c.message : c.message);
        EXPECT_EQ(p.rec.usage, c.usage) << c.args[0];
    }
}

TEST(CommandLine, CollectWordList) {
    Parsed p = parse({"-collect", "cpu,disk"});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(classes(p.rec), "01110111");  // only the all-classes switch changes

    for (const char* list : {"vm", "fs", "cpu,vm", "c"}) {
        Parsed q = parse({"-collect", list});
        std::string bad = std::string(list).substr(std::string(list).rfind(',') + 1);
        EXPECT_EQ(q.result, 0) << list;
        EXPECT_EQ(q.out, kBanner + "Invalid argument for -collect option: " + bad + "\n");
    }
    EXPECT_EQ(classes(parse({"-collect", "noall,cpu,proc"}).rec), "01001000");
    EXPECT_EQ(classes(parse({"-collect", "noall,processo"}).rec), "00100000");
    EXPECT_EQ(classes(parse({"-collect", "novm,nofs,nonet,nodisk,nocpu,noprocessor"}).rec), "00000000");
    EXPECT_EQ(classes(parse({"-collect", ",noall,,all,"}).rec), "01111111");
    EXPECT_EQ(parse({"-collect", "all"}).rec.collect_process, 0);  // the class only
}

TEST(CommandLine, DirectoriesAndDerivedPaths) {
    const std::string h = default_record().hostname;
    Parsed p = parse({"-rootdir", "/x", "-datadir", "/y"});
    EXPECT_STREQ(p.rec.data_dir, "/y");
    EXPECT_STREQ(p.rec.log_dir, "/x/logs");
    EXPECT_EQ(std::string(p.rec.lock_file), "/x/tmp/" + h + "_rtdc.lock");
    EXPECT_EQ(std::string(p.rec.config_file), "/x/settings/rta_" + h + ".config");
    EXPECT_EQ(std::string(p.rec.log_file).rfind("/x/logs/rta_" + h + "_", 0), 0u) << p.rec.log_file;

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    Parsed rel = parse({"-logdir", "logs"});
    EXPECT_STREQ(rel.rec.log_dir, "logs");
    EXPECT_EQ(std::string(rel.rec.log_file).rfind("logs/rta_" + h + "_", 0), 0u);
    EXPECT_STREQ(rel.rec.lock_file, default_record().lock_file);  // no -rootdir, no re-derivation
    EXPECT_EQ(std::string(parse({"-logdir", "../logs"}).rec.log_dir), std::string(cwd) + "/../logs");
    EXPECT_EQ(std::string(parse({"-datadir", "a/../d"}).rec.data_dir), std::string(cwd) + "/a/../d");
    EXPECT_STREQ(parse({"-rootdir", "`pwd`/.."}).rec.install_dir, "`pwd`/..");
    EXPECT_EQ(std::string(parse({"-rootdir", "../r"}).rec.data_dir), std::string(cwd) + "/../r/data");

    // Inside a removed directory the working directory cannot be read.
    for (auto [option, message] : {std::pair{"-rootdir", "vornrta, fatal: Unable to get pwd()\n"},
                                   std::pair{"-logdir", "Fatal: Unable to get pwd()\n"}}) {
        ChildResult c = run_in_child([option = option] {
            TempDir t;
            std::string gone = t / "gone";
            if (mkdir(gone.c_str(), 0755) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0) return 99;
            Parsed p = parse({option, "../elsewhere"});
            fputs(p.err.c_str(), stderr);
            return p.result;
        });
        EXPECT_EQ(c.exit_code, 0) << option;
        EXPECT_EQ(c.err, message);
    }
}

TEST(CommandLine, RootdirFirstPass) {
    const std::string h = default_record().hostname;
    Parsed p = parse({"-stop", "-root", "rel/r", "-rootdir", "/other"}, default_record(), true);
    EXPECT_EQ(p.result, 1);
    EXPECT_STREQ(p.rec.install_dir, "rel/r");  // as given in this pass
    EXPECT_STREQ(p.rec.log_dir, "rel/r/logs");
    EXPECT_EQ(std::string(p.rec.config_file), "rel/r/settings/rta_" + h + ".config");
    EXPECT_EQ(std::string(p.rec.lock_file), "rel/r/tmp/" + h + "_rtdc.lock");
    EXPECT_STREQ(p.rec.data_dir, default_record().data_dir);
    EXPECT_EQ(p.rec.rootdir_set, 1);

    RtaCmdline before = default_record();
    Parsed bad = parse({"-rootdir", "-stop"}, before, true);
    EXPECT_EQ(bad.result, 0);
    EXPECT_EQ(bad.err, "-rootdir option requires an argument\n");
    EXPECT_EQ(memcmp(&bad.rec, &before, sizeof before), 0);
}

TEST(CommandLine, InstallRootFromEnvironment) {
    const char* saved = getenv("QUORBEX_LIBRARY");
    const std::string saved_value = saved ? saved : "";
    setenv("QUORBEX_LIBRARY", "/srv/q/", 1);
    RtaCmdline r = default_record();
    EXPECT_STREQ(r.install_dir, "/srv/q");
    EXPECT_STREQ(r.settings_dir, "/srv/q/settings");
    EXPECT_EQ(strchr(r.hostname, '.'), nullptr);
    EXPECT_EQ(std::string(r.java_log_file).rfind(std::string("/srv/q/logs/rta_java_") + r.hostname + "_", 0), 0u);
    EXPECT_EQ(r.priority, -5);  // not the "default 0" of the usage text

    char buf[512];
    struct {
        const char* value;
        int result;
        std::string root;
    } cases[] = {{"/", 2, "/opt/quorbex"}, {"", 2, "/opt/quorbex"}, {"/a//", 1, "/a/"},
                 {nullptr, 2, "/opt/quorbex"}, {"x", 2, "/opt/quorbex"}};
    for (const auto& c : cases) {
        if (c.value) setenv("QUORBEX_LIBRARY", c.value, 1);
        else unsetenv("QUORBEX_LIBRARY");
        EXPECT_EQ(get_quorbex_root(buf), c.result);
        EXPECT_EQ(buf, c.root);
    }
    setenv("QUORBEX_LIBRARY", std::string(2000, 'q').c_str(), 1);
    EXPECT_EQ(get_quorbex_root(buf), 1);
    EXPECT_EQ(strlen(buf), 511u);

    if (saved) setenv("QUORBEX_LIBRARY", saved_value.c_str(), 1);
    else unsetenv("QUORBEX_LIBRARY");
}

TEST(CommandLine, UsageText) {
    testing::internal::CaptureStdout();
    rta_print_usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\nUsage\t:\n\n"
              "vornrta [-start|-stop|-status|-[no]verbose|-version]|[-port n]\n"
              "[-logdir dir |  -nofork -nolock ]\n\n"
              "Flags\t:\n"
              "\t-start\n\t\tStart vornrta \n"
              "\t-stop\n\t\tStop vornrta\n"
              "\t-status\n\t\tGet vornrta status\n"
              "\t-port [number]\n\t\tSet port number (default 2101) \n"
              "\t-priority\n\t\tSet priority (default 0) \n"
              "\t-scan [number]\n\t\tSet scan rate (default 2 seconds) \n"
              "\t-logdir\n\t\tSet directory for log files. \n"
              "\t-nofork\n\t\tRun without becoming a daemon process\n"
              "\t-nolock\n\t\tRun without using/checking lock file\n"
              "\t-[no]collectproc\n\t\tCollect process data\n"
              "\t-[no]alert\n\t\tCollect alert data\n"
              "\t-version\n\t\tShow version\n"
              "\t-write_config\n\t\tWrite settings file\n"
              "\t-verbose\n\t\tVerbose logging\n"
              "\n");
}
