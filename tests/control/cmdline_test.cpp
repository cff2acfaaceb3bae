// Command line: option matching by prefix, the -collect word list, value options and the
// relative path rules, the -rootdir first pass, defaults and the usage text.
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
    std::string out;
    std::string err;
};

Parsed parse_with(RtaCmdline rec, std::vector<std::string> args) {
    args.insert(args.begin(), "vornrta");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int rc = rta_parse_command_line(argv.data(), static_cast<int>(args.size()), &rec);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    return {rec, rc, out, err};
}

Parsed parse(std::vector<std::string> args) { return parse_with(default_record(), std::move(args)); }

const std::string kBanner = std::string("vornrta ") + kMakerNotice + "\nBuild: V10.0-001 (Feb 23 2012)\n";

std::string host() { return default_record().hostname; }

}  // namespace

TEST(OptionCompare, PrefixLongerThanMinimumMatches) {
    struct Case {
        const char* arg;
        const char* option;
        int minimum;
        int expected;
    } cases[] = {
        {"-sto", "-stop", 3, 1},     {"-st", "-stop", 3, 0},         {"-stop", "-stop", 3, 1},
        {"-stat", "-status", 4, 1},  {"-sta", "-status", 4, 0},      {"-stopx", "-stop", 3, 0},
        {"-STOP", "-stop", 3, 0},    {"-stap", "-status", 4, 0},     {"", "-x", -1, 1},
        {"", "-x", 0, 0},            {"-port_rtdc", "-port", 4, 0},  {"-port_", "-port_rtdc", 8, 0},
        {"-port_r", "-port_rtdc", 6, 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(unix_option_compare(c.arg, c.option, c.minimum), c.expected)
            << c.arg << " vs " << c.option << " [" << c.minimum << "]";
}

TEST(CommandLine, NoArgumentsPrintsBannerAndStarts) {
    Parsed p = parse({});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.out, kBanner);
    EXPECT_EQ(p.err, "");
    EXPECT_EQ(p.rec.start, 1);
    EXPECT_EQ(p.rec.usage, 0);
}

TEST(CommandLine, AbbreviationsSelectTheirAction) {
    Parsed stat = parse({"-stat"});
    EXPECT_EQ(stat.rec.status, 1);
    EXPECT_EQ(stat.rec.start, 0);  // arguments were given
    EXPECT_EQ(stat.rec.usage, 0);

    Parsed sta = parse({"-sta"});
    EXPECT_EQ(sta.rec.status, 0);
    EXPECT_EQ(sta.rec.start, 0);
    EXPECT_EQ(sta.rec.usage, 1);

    EXPECT_EQ(parse({"-sto"}).rec.stop, 1);
    EXPECT_EQ(parse({"-st"}).rec.usage, 1);
    EXPECT_EQ(parse({"-st"}).rec.stop, 0);
}

TEST(CommandLine, SwitchOptionsSetTheirFields) {
    struct Case {
        const char* arg;
        int32_t RtaCmdline::*field;
        int expected;
    } cases[] = {
        {"-start", &RtaCmdline::start, 1},
        {"-version", &RtaCmdline::version, 1},
        {"-nofork", &RtaCmdline::fork, 0},
        {"-nolock", &RtaCmdline::lock, 0},
        {"-write_config", &RtaCmdline::write_config, 1},
        {"-verbose", &RtaCmdline::verbose, 1},
        {"-verbose", &RtaCmdline::start, 1},
        {"-noverbose", &RtaCmdline::start, 1},
        {"-collectp", &RtaCmdline::collect_process, 1},
        {"-collectprocess", &RtaCmdline::class_process, 1},
        {"-noalert", &RtaCmdline::alerts, 0},
    };
    for (const auto& c : cases) {
        Parsed p = parse({c.arg});
        EXPECT_EQ(p.rec.*(c.field), c.expected) << c.arg;
        EXPECT_EQ(p.rec.usage, 0) << c.arg;
    }
    // The negative forms undo what came before them on the same line.
    Parsed p = parse({"-nofork", "-fork", "-nolock", "-lock", "-noalert", "-alert", "-collectproc",
                      "-nocollectproc", "-verbose", "-noverbose"});
    EXPECT_EQ(p.rec.fork, 1);
    EXPECT_EQ(p.rec.lock, 1);
    EXPECT_EQ(p.rec.alerts, 1);
    EXPECT_EQ(p.rec.collect_process, 0);
    EXPECT_EQ(p.rec.class_process, 0);
    EXPECT_EQ(p.rec.verbose, 0);
    EXPECT_EQ(p.rec.usage, 0);
    // -nocollectprocess needs more than ten characters; shorter is unknown.
    EXPECT_EQ(parse({"-nocollect"}).rec.usage, 1);
}

TEST(CommandLine, PurgeChangesNothingAndUnknownSetsUsage) {
    RtaCmdline before = default_record();
    Parsed purge = parse_with(before, {"-purge"});
    EXPECT_EQ(purge.result, 1);
    EXPECT_EQ(memcmp(&purge.rec, &before, sizeof before), 0);

    Parsed bogus = parse({"-bogus", "-stop"});
    EXPECT_EQ(bogus.result, 1);
    EXPECT_EQ(bogus.rec.usage, 1);
    EXPECT_EQ(bogus.rec.stop, 1);  // parsing goes on after an unknown option
}

TEST(CommandLine, PortRangeAndMissingValues) {
    Parsed p = parse({"-port", "70000"});
    EXPECT_EQ(p.rec.port, 70000);
    EXPECT_EQ(p.rec.start, 1);

    for (const char* bad : {"0", "100000", "99999", "-3", "abc"}) {
        Parsed q = parse({"-port", bad});
        EXPECT_EQ(q.rec.port, 2101) << bad;
        EXPECT_EQ(q.rec.start, 0) << bad;
        EXPECT_EQ(q.rec.usage, 0) << bad;  // the value was consumed
    }
    EXPECT_EQ(parse({"-port", "99998"}).rec.port, 99998);

    Parsed rtdc = parse({"-port_rtdc", "3000"});
    EXPECT_EQ(rtdc.rec.port_rtdc, 3000);
    EXPECT_EQ(rtdc.rec.port, 2101);

    // As the last argument these options have no value and are ignored.
    for (const char* opt : {"-port", "-port_rtdc", "-update"}) {
        Parsed q = parse({"-stop", opt});
        EXPECT_EQ(q.result, 1) << opt;
        EXPECT_EQ(q.rec.port, 2101) << opt;
        EXPECT_EQ(q.rec.port_rtdc, 2102) << opt;
        EXPECT_EQ(q.rec.update, 0) << opt;
        EXPECT_EQ(q.rec.start, 0) << opt;
        EXPECT_EQ(q.rec.stop, 1) << opt;
    }

    Parsed upd = parse({"-update", "/new/root"});
    EXPECT_EQ(upd.rec.update, 1);
    EXPECT_STREQ(upd.rec.install_dir, "/new/root");

    Parsed misc = parse({"-priority", "-7", "-user", "agent", "-scan", "15"});
    EXPECT_EQ(misc.result, 1);
    EXPECT_EQ(misc.rec.priority, -7);
    EXPECT_EQ(misc.rec.start, 1);
    EXPECT_STREQ(misc.rec.user, "agent");
    EXPECT_EQ(misc.rec.scan, 15);

    // A long account name is cut to its field, still terminated.
    Parsed longuser = parse({"-user", std::string(100, 'u')});
    EXPECT_EQ(std::string(longuser.rec.user), std::string(31, 'u'));
}

TEST(CommandLine, MissingRequiredArguments) {
    struct Case {
        std::vector<std::string> args;
        const char* message;
        bool to_stdout;
        int usage;
    } cases[] = {
        {{"-collect"}, "-collect option requires argument\n", true, 0},
        {{"-collect", "-stop"}, "-collect option requires argument\n", true, 0},
        {{"-rootdir"}, "-rootdir option requires an argument\n", false, 1},
        {{"-rootdir", "-x"}, "-rootdir option requires an argument\n", false, 1},
        {{"-datadir", "-x"}, "-datadir option requires an argument\n", false, 1},
        {{"-logdir"}, "-logdir option requires an argument\n", false, 0},
        {{"-priority"}, "-priority option requires an argument\n", false, 0},
        {{"-user"}, "-user option requires an argument\n", false, 0},
        {{"-scan"}, "-scan option requires an argument\n", false, 0},
    };
    for (const auto& c : cases) {
        Parsed p = parse(c.args);
        EXPECT_EQ(p.result, 0) << c.args[0];
        if (c.to_stdout) {
            EXPECT_EQ(p.out, kBanner + c.message) << c.args[0];
        } else {
            EXPECT_EQ(p.err, c.message) << c.args[0];
        }
        EXPECT_EQ(p.rec.usage, c.usage) << c.args[0];
    }
}

TEST(CommandLine, CollectWordList) {
    const RtaCmdline d = default_record();

    Parsed p = parse({"-collect", "cpu,disk"});
    EXPECT_EQ(p.result, 1);
    EXPECT_EQ(p.rec.collect_default, 0);
    EXPECT_EQ(p.rec.class_cpu, d.class_cpu);
    EXPECT_EQ(p.rec.class_disk, d.class_disk);
    EXPECT_EQ(p.rec.class_vm, d.class_vm);
    EXPECT_EQ(p.rec.class_net, d.class_net);
    EXPECT_EQ(p.rec.class_fs, d.class_fs);
    EXPECT_EQ(p.rec.class_processor, d.class_processor);
    EXPECT_EQ(p.rec.class_process, d.class_process);

    for (const char* word : {"vm", "fs", "cpu,vm", "bogus", "c"}) {
        Parsed q = parse({"-collect", word});
        EXPECT_EQ(q.result, 0) << word;
        std::string bad = std::string(word).substr(std::string(word).rfind(',') + 1);
        EXPECT_EQ(q.out, kBanner + "Invalid argument for -collect option: " + bad + "\n") << word;
    }

    Parsed off = parse({"-collect", "noall,cpu,proc"});
    EXPECT_EQ(off.result, 1);
    EXPECT_EQ(off.rec.class_cpu, 1);
    EXPECT_EQ(off.rec.class_process, 1);  // "proc" abbreviates "process"
    EXPECT_EQ(off.rec.class_processor, 0);
    EXPECT_EQ(off.rec.class_disk, 0);
    EXPECT_EQ(off.rec.class_vm, 0);
    EXPECT_EQ(off.rec.class_net, 0);
    EXPECT_EQ(off.rec.class_fs, 0);

    Parsed neg = parse({"-collect", "novm,nofs,nonet,nodisk,nocpu,noprocessor"});
    EXPECT_EQ(neg.result, 1);
    EXPECT_EQ(neg.rec.class_vm + neg.rec.class_fs + neg.rec.class_net + neg.rec.class_disk +
                  neg.rec.class_cpu + neg.rec.class_processor,
              0);

    Parsed all = parse({"-collect", "noall,all"});
    EXPECT_EQ(all.rec.class_process, 1);
    EXPECT_EQ(all.rec.class_vm + all.rec.class_fs + all.rec.class_processor, 3);
    EXPECT_EQ(all.rec.collect_process, 0);  // the class only, not the collection switch

    Parsed ptor = parse({"-collect", "noall,processo"});
    EXPECT_EQ(ptor.rec.class_processor, 1);
    EXPECT_EQ(ptor.rec.class_process, 0);

    // Empty words between commas are skipped.
    Parsed gaps = parse({"-collect", ",nocpu,,"});
    EXPECT_EQ(gaps.result, 1);
    EXPECT_EQ(gaps.rec.class_cpu, 0);
}

TEST(CommandLine, DirectoriesAndDerivedPaths) {
    const std::string h = host();
    Parsed p = parse({"-rootdir", "/x", "-datadir", "/y"});
    ASSERT_EQ(p.result, 1);
    EXPECT_STREQ(p.rec.install_dir, "/x");
    EXPECT_STREQ(p.rec.data_dir, "/y");
    EXPECT_STREQ(p.rec.log_dir, "/x/logs");
    EXPECT_STREQ(p.rec.bin_dir, "/x/bin");
    EXPECT_STREQ(p.rec.tmp_dir, "/x/tmp");
    EXPECT_STREQ(p.rec.settings_dir, "/x/settings");
    EXPECT_EQ(std::string(p.rec.lock_file), "/x/tmp/" + h + "_rtdc.lock");
    EXPECT_EQ(std::string(p.rec.config_file), "/x/settings/rta_" + h + ".config");
    EXPECT_EQ(std::string(p.rec.log_file).rfind("/x/logs/rta_" + h + "_", 0), 0u) << p.rec.log_file;
    EXPECT_EQ(p.rec.rootdir_set, 1);
    EXPECT_EQ(p.rec.datadir_set, 1);

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    Parsed rel = parse({"-logdir", "logs"});
    EXPECT_STREQ(rel.rec.log_dir, "logs");
    EXPECT_EQ(rel.rec.logdir_set, 1);
    EXPECT_EQ(std::string(rel.rec.log_file).rfind("logs/rta_" + h + "_", 0), 0u);
    // Without -rootdir the other paths keep their defaults.
    EXPECT_STREQ(rel.rec.lock_file, default_record().lock_file);

    EXPECT_EQ(std::string(parse({"-logdir", "../logs"}).rec.log_dir), std::string(cwd) + "/../logs");
    EXPECT_EQ(std::string(parse({"-datadir", "a/../d"}).rec.data_dir), std::string(cwd) + "/a/../d");
    EXPECT_STREQ(parse({"-rootdir", "`pwd`/.."}).rec.install_dir, "`pwd`/..");
    EXPECT_STREQ(parse({"-rootdir", "/abs/../r"}).rec.install_dir, "/abs/../r");

    Parsed relroot = parse({"-rootdir", "../r"});
    EXPECT_EQ(std::string(relroot.rec.install_dir), std::string(cwd) + "/../r");
    EXPECT_EQ(std::string(relroot.rec.data_dir), std::string(cwd) + "/../r/data");
}

TEST(CommandLine, UnreadableWorkingDirectory) {
    // Inside a directory that has been removed, getcwd fails.
    auto run = [](const char* option) {
        return run_in_child([option] {
            TempDir t;
            std::string gone = t / "gone";
            if (mkdir(gone.c_str(), 0755) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0)
                return 99;
            RtaCmdline r = default_record();
            char prog[] = "vornrta";
            std::string opt = option, val = "../elsewhere";
            char* argv[] = {prog, opt.data(), val.data(), nullptr};
            return rta_parse_command_line(argv, 3, &r);
        });
    };
    ChildResult root = run("-rootdir");
    EXPECT_EQ(root.exit_code, 0);
    EXPECT_EQ(root.err, "vornrta, fatal: Unable to get pwd()\n");
    ChildResult logs = run("-logdir");
    EXPECT_EQ(logs.exit_code, 0);
    EXPECT_EQ(logs.err, "Fatal: Unable to get pwd()\n");
    ChildResult data = run("-datadir");
    EXPECT_EQ(data.exit_code, 0);
    EXPECT_EQ(data.err, "Fatal: Unable to get pwd()\n");
}

TEST(CommandLine, RootdirFirstPass) {
    const std::string h = host();
    auto first_pass = [](RtaCmdline* r, std::vector<std::string> args, std::string* err) {
        args.insert(args.begin(), "vornrta");
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        testing::internal::CaptureStderr();
        int rc = rta_parse_cmdline_for_rootdir(argv.data(), static_cast<int>(args.size()), r);
        *err = testing::internal::GetCapturedStderr();
        return rc;
    };
    std::string err;
    RtaCmdline r = default_record();
    const std::string data_before = r.data_dir;
    EXPECT_EQ(first_pass(&r, {"-stop", "-root", "rel/r", "-rootdir", "/other"}, &err), 1);
    EXPECT_EQ(err, "");
    EXPECT_STREQ(r.install_dir, "rel/r");  // taken as given in this pass
    EXPECT_STREQ(r.log_dir, "rel/r/logs");
    EXPECT_STREQ(r.tmp_dir, "rel/r/tmp");
    EXPECT_STREQ(r.bin_dir, "rel/r/bin");
    EXPECT_EQ(std::string(r.config_file), "rel/r/settings/rta_" + h + ".config");
    EXPECT_EQ(std::string(r.lock_file), "rel/r/tmp/" + h + "_rtdc.lock");
    EXPECT_EQ(std::string(r.data_dir), data_before);
    EXPECT_EQ(r.rootdir_set, 1);

    RtaCmdline q = default_record();
    RtaCmdline untouched = q;
    EXPECT_EQ(first_pass(&q, {"-rootdir", "-stop"}, &err), 0);
    EXPECT_EQ(err, "-rootdir option requires an argument\n");
    EXPECT_EQ(memcmp(&q, &untouched, sizeof q), 0);
    EXPECT_EQ(first_pass(&q, {"-stop"}, &err), 0);
    EXPECT_EQ(err, "");
}

TEST(CommandLine, DefaultsAndInstallRoot) {
    const char* saved = getenv("QUORBEX_LIBRARY");
    std::string saved_value = saved ? saved : "";

    setenv("QUORBEX_LIBRARY", "/srv/q/", 1);
    RtaCmdline r = default_record();
    EXPECT_STREQ(r.install_dir, "/srv/q");
    EXPECT_STREQ(r.data_dir, "/srv/q/data");
    EXPECT_STREQ(r.settings_dir, "/srv/q/settings");
    EXPECT_EQ(strchr(r.hostname, '.'), nullptr);
    EXPECT_EQ(std::string(r.java_log_file).rfind(std::string("/srv/q/logs/rta_java_") + r.hostname + "_", 0), 0u);
    EXPECT_EQ(r.port, 2101);
    EXPECT_EQ(r.port_rtdc, 2102);
    EXPECT_EQ(r.priority, -5);
    EXPECT_EQ(r.scan, 2);
    EXPECT_EQ(r.lock, 1);
    EXPECT_EQ(r.fork, 1);
    EXPECT_EQ(r.alerts, 1);
    EXPECT_EQ(r.collect_default, 1);
    EXPECT_EQ(r.class_process, 0);
    EXPECT_STREQ(r.user, "root");
    EXPECT_STREQ(r.address, "0.0.0.0");

    char buf[512];
    setenv("QUORBEX_LIBRARY", "/", 1);
    EXPECT_EQ(get_quorbex_root(buf), 2);
    EXPECT_STREQ(buf, "/opt/quorbex");
    setenv("QUORBEX_LIBRARY", "", 1);
    EXPECT_EQ(get_quorbex_root(buf), 2);
    setenv("QUORBEX_LIBRARY", "/a//", 1);
    EXPECT_EQ(get_quorbex_root(buf), 1);
    EXPECT_STREQ(buf, "/a/");  // only one trailing slash goes
    setenv("QUORBEX_LIBRARY", std::string(2000, 'q').c_str(), 1);
    EXPECT_EQ(get_quorbex_root(buf), 1);
    EXPECT_EQ(strlen(buf), 511u);
    unsetenv("QUORBEX_LIBRARY");
    EXPECT_EQ(get_quorbex_root(buf), 2);
    EXPECT_STREQ(buf, "/opt/quorbex");

    if (saved) setenv("QUORBEX_LIBRARY", saved_value.c_str(), 1);
}

TEST(CommandLine, UsageText) {
    testing::internal::CaptureStdout();
    rta_print_usage();
    std::string out = testing::internal::GetCapturedStdout();
    const char* expected =
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
        "\n";
    EXPECT_EQ(out, expected);
}
