// The figures of the live view and how the screen lays them out: per-second rates, the time
// a measurement covers, df's fill, the process filter and order, and a small terminal.
#include <algorithm>

#include "console/vm_view.h"
#include "test_util.h"

using namespace vornmon_test;

namespace {

// A reading of `klass`'s `instance` as the session would decode it.
Reading reading(const std::string& klass, const std::string& instance, const std::string& counter,
                double value) {
    auto m = std::make_shared<Metric>();
    m->klass = klass;
    m->instance = instance;
    m->counter = counter;
    return Reading{m, true, value, std::to_string(value)};
}

ProcRow process(long pid, const std::string& name, const std::string& user, double cpu) {
    ProcRow p;
    p.pid = pid;
    p.name = name;
    p.user = user;
    p.cpu = cpu;
    return p;
}

std::string names(const std::vector<ProcRow>& rows) {
    std::string out;
    for (const ProcRow& p : rows) out += p.name + " ";
    return out;
}

// A busy host: `processors` processors, a few file systems and `processes` processes.
HostView busy_host(int processors, int processes) {
    HostView v;
    v.seconds = 2;
    v.cpu = {true, 20, 10, 5, 65, 35};
    for (int i = 0; i < processors; ++i) v.processors.push_back({i, {true, 20, 10, 5, 65, 35}});
    v.memory = {true, 8000, 6000, 2000, 75, 10, 0, 0};
    v.disks.push_back({"sda", 10, 4096, 0, 0});
    for (const char* mount : {"/", "/home", "/srv", "/var"})
        v.filesystems.push_back({mount, 50, 50, 50, 100, true});
    v.has_processes = true;
    for (int i = 0; i < processes; ++i)
        v.processes.push_back(process(100 + i, "p" + std::to_string(i), "u", i));
    return v;
}

}  // namespace

// The agent counts disk work per interval; the view divides by the time it covered.
TEST(View, DiskFiguresArePerSecondAndFillIsAsDfCountsIt) {
    Sample s;
    s.interval = 2;
    s.readings = {reading("Disk", "sda", "Total Operations", 30),
                  reading("Disk", "sda", "Total Transfers", 3000),
                  reading("FileSystem", "/", "% Space Used", 30),
                  reading("FileSystem", "/", "Used", 30),
                  reading("FileSystem", "/", "Available", 60),
                  reading("FileSystem", "/", "Total", 100)};
    HostView printed = build_view(s);
    ASSERT_EQ(printed.disks.size(), 1u);
    EXPECT_DOUBLE_EQ(printed.disks[0].ops, 15);
    EXPECT_DOUBLE_EQ(printed.disks[0].bytes, 1500);
    HostView measured = build_view(s, 3);
    EXPECT_DOUBLE_EQ(measured.disks[0].ops, 10);
    // Reserved blocks are neither used nor available: 30 / (30 + 60).
    ASSERT_EQ(measured.filesystems.size(), 1u);
    EXPECT_NEAR(measured.filesystems[0].pct_used, 33.33, 0.01);
}

TEST(View, IntervalClockTimesMeasurementsNotTheLabel) {
    using std::chrono::milliseconds;
    IntervalClock clock;
    IntervalClock::TimePoint t0{};
    struct Step {
        int after_ms;  // since the previous step
        int printed;
        bool new_connection;
        double expected;
    } steps[] = {
        {0, 10, false, 10},    // the first one has only the label
        {2000, 10, false, 2},  // the agent scans every 2 s whatever it prints
        {2500, 10, false, 2.5},
        {1, 1, false, 0.1},      // a burst of queued packets
        {60000, 1, false, 10},   // a stall: at most ten intervals
        {2000, 5, true, 5},      // a new connection starts from its label again
        {2000, 5, false, 2},
    };
    IntervalClock::TimePoint now = t0;
    for (const Step& s : steps) {
        now += milliseconds(s.after_ms);
        if (s.new_connection) clock.connection_started();
        EXPECT_DOUBLE_EQ(clock.measured(s.printed, now), s.expected) << s.after_ms;
    }
}

TEST(View, ProcessesFilteredByPidNameOrUserAndReversed) {
    HostView v;
    v.processes = {process(4242, "make", "ann", 1), process(17, "cc1plus", "bob", 9),
                   process(300, "bash", "ann", 5)};
    struct Case {
        std::string filter;
        bool reverse;
        std::string expected;
    } cases[] = {
        {"", false, "cc1plus bash make "},  {"", true, "make bash cc1plus "},
        {"ann", false, "bash make "},       {"424", false, "make "},
        {"plus", true, "cc1plus "},         {"nobody", false, ""},
    };
    for (const Case& c : cases) {
        ViewOptions o;
        o.filter = c.filter;
        o.reverse = c.reverse;
        EXPECT_EQ(names(shown_processes(v, o)), c.expected) << c.filter << " " << c.reverse;
    }
}

TEST(View, PseudoFileSystemsHiddenUnlessAsked) {
    HostView v;
    for (const char* mount : {"/", "/proc", "/sys/fs/cgroup", "/dev/shm", "/run/user/0", "/srv"})
        v.filesystems.push_back({mount, 10, 90, 10, 100, true});
    v.filesystems.push_back({"/empty", 0, 0, 0, 0, true});
    v.filesystems.push_back({"/process", 10, 90, 10, 100, true});  // only named like /proc
    auto mounts = [&](bool all) {
        ViewOptions o;
        o.all_filesystems = all;
        std::string out;
        for (const FsRow& f : shown_filesystems(v, o)) out += f.mount + " ";
        return out;
    };
    EXPECT_EQ(mounts(false), "/ /srv /process ");
    EXPECT_EQ(mounts(true), "/ /proc /sys/fs/cgroup /dev/shm /run/user/0 /srv /empty /process ");
}

// What an 80x24 terminal shows (one line is the key bar): the summary and ten process rows
// at least, whatever the number of processors.
TEST(View, SmallTerminalKeepsTenProcessRows) {
    std::vector<Alert> firing(5);
    for (int processors : {1, 2, 16, 128}) {
        HostView v = busy_host(processors, 40);
        std::vector<Alert> shown(firing.begin(), firing.begin() + processors % 6);
        std::vector<ViewLine> lines = layout_screen(v, "h:1", ViewOptions{}, shown, 80, 23, 0);
        ASSERT_LE(lines.size(), 23u) << processors;
        auto heading = std::find_if(lines.begin(), lines.end(), [](const ViewLine& l) {
            return l.kind == ViewLine::kColumns && l.text.find("PID") != std::string::npos;
        });
        ASSERT_NE(heading, lines.end()) << processors;
        EXPECT_GE(lines.end() - heading - 1, 10) << processors;
        for (const char* part : {"CPU ", "Mem ", "Disk ", "Net ", "FS "}) {
            bool found = std::any_of(lines.begin(), lines.end(), [&](const ViewLine& l) {
                return l.text.rfind(part, 0) == 0;
            });
            EXPECT_TRUE(found) << part << " with " << processors << " processors";
        }
        // The busiest process comes first, and nothing is wider than the terminal.
        EXPECT_TRUE(has((heading + 1)->text, "p39"));
        for (const ViewLine& l : lines) EXPECT_LE(l.text.size(), 80u) << l.text;
    }
}

TEST(View, ScreenShowsTheFilterTheOrderAndEachProcessorByMode) {
    HostView v = busy_host(2, 40);
    ViewOptions o;
    o.filter = "p3";
    o.reverse = true;
    std::vector<ViewLine> lines = layout_screen(v, "h:1", o, {}, 80, 40, 1);
    std::string text = render_text(lines, 80);
    EXPECT_TRUE(has(text, "Processes 11 of 40, by cpu reversed, filter 'p3'"));
    // Reversed, the idlest match comes first; one row scrolled away.
    EXPECT_FALSE(has(text, " p3\n"));
    EXPECT_TRUE(has(text, " p30\n"));
    int processor_bars = 0;
    for (const ViewLine& l : lines)
        if (l.text.rfind("cpu", 0) == 0 && l.modes.present && l.bar >= 0) ++processor_bars;
    EXPECT_EQ(processor_bars, 2);
}

// Firing rules get a line each, the last one counting those that did not fit.
TEST(View, AlertPanelNamesFiringRules) {
    HostView v = busy_host(2, 40);
    std::vector<Alert> firing;
    for (const char* name : {"hot", "full", "swap", "slow"})
        firing.push_back({name, "Cpu->Total", ">", 90, 97.5, 95, 99, "23:01:02", ""});
    struct Case {
        std::size_t count;
        std::vector<std::string> lines;
    } cases[] = {
        {0, {}},
        {1, {"ALERT hot  Cpu->Total > 90  avg 97.5  since 23:01:02"}},
        {4,
         {"ALERT hot  Cpu->Total > 90  avg 97.5  since 23:01:02",
          "ALERT full  Cpu->Total > 90  avg 97.5  since 23:01:02", "ALERT swap and 1 more firing"}},
    };
    for (const Case& c : cases) {
        std::vector<Alert> shown(firing.begin(), firing.begin() + static_cast<long>(c.count));
        std::vector<std::string> panel;
        for (const ViewLine& l : layout_screen(v, "h:1", ViewOptions{}, shown, 80, 23, 0))
            if (l.kind == ViewLine::kAlert) panel.push_back(l.text);
        EXPECT_EQ(panel, c.lines) << c.count;
    }
}

// The hub hands alerts on in the agent's own line format; they must read back whole.
TEST(View, AlertLinesReadBack) {
    Alert a{"hot", "Cpu->Total", ">=", 90, 97.25, 95, 1e6, "11:02:03 24-Nov-2026", "busy: cpu"};
    Alert back;
    std::string err;
    ASSERT_TRUE(parse_alert_line(alert_line(a), back, err)) << err;
    EXPECT_EQ(alert_line(back), alert_line(a));
    EXPECT_EQ(back.description, "busy: cpu");
    EXPECT_DOUBLE_EQ(back.ave, 97.25);
}
