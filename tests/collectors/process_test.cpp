// The process class: its process list, the collector over a scripted /proc, the live host.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "alerts/rtal_state.h"
#include "packet/rtdc_output.h"
#include "packet/rtdc_state.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_tree.h"
#include "collectors/rtdc_process.h"
#include "collectors/rtdc_proclist.h"
#include "control/rta_cmdline.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"
#include "platform/clock.h"
#include "support/fixture_roots.h"

namespace {

// Positions of counters in ProcessCounters, from 1 as their ids count them.
constexpr int kPid = 1, kParent = 2, kCpu = 5, kBlocksOut = 10, kIoChars = 13, kRss = 16;
using Names = std::vector<std::string>;
using Values = std::map<long, std::string>;

double fake_now = 0;  // the scripted clock

// Exact, level by level: process names hold '-', at which the path search splits.
treeNode* find_node(const std::string& path) {
    std::lock_guard<std::mutex> lock(tree_mutex);
    treeNode* node = Metric_Tree ? SearchInChilds("Process", Metric_Tree->child) : nullptr;
    for (size_t at = path.find("->"); node && at != std::string::npos;) {
        at = path.find("->", at + 2);
        node = SearchInChilds(path.substr(0, at).c_str(), node->child);
    }
    return node;
}

// The pids registered under a process name, sorted.
Names instances(const std::string& name) {
    Names pids;
    treeNode* leaf = find_node("Process->" + name + "->Priority");
    List* list = leaf && leaf->data ? leaf->data->instances : nullptr;
    for (ListItem* it = list ? list->first : nullptr; it; it = it->next)
        pids.push_back(static_cast<MetricInstance*>(it->data)->name);
    std::sort(pids.begin(), pids.end());
    return pids;
}

// Kills and reaps a child however the test ends.
struct Child {
    pid_t pid;
    ~Child() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
};

class ProcessClass : public vorntest::RootsTest {
  protected:
    void SetUp() override {
        rtdc_process_reset();
        ASSERT_EQ(rtal_create_root("proctest"), 1);
        saved_switch_ = rta_cmdline.class_process;
        rta_cmdline.class_process = 1;
        start_rtdc = 1;  // a console is served unless a test says otherwise
    }
    void TearDown() override {
        rtdc_process_reset();
        Clear();
        RemoveNode(find_node("Process"));
        for (ExceptionObject* e : Owned(Expdef_list)) RemoveFromList(Expdef_list, e), free(e);
        for (ExceptionObject* e : Owned(Alert_list))
            RemoveFromList(Alert_list, e), rtal_free_alert(e);
        rta_cmdline.class_process = saved_switch_;
        start_rtdc = 0;
        platform::set_clock_for_tests(nullptr);
        RootsTest::TearDown();
    }
    static void Clear() {
        rtdc_pass_process_headers().clear();
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
    }
    // One pass; on a data pass the values of its "id=value" lines by id.
    static Values Scan(int expect = 1, int header_flag = 0) {
        Clear();
        EXPECT_EQ(GetProcessClassInfo(rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                                      &n_rtdc_data_buffers, header_flag, 0),
                  expect);
        Values values;
        for (int i = 0; i < n_rtdc_data_buffers; ++i) {
            std::istringstream in(rtdc_data_buffers[i]);
            for (std::string line; std::getline(in, line);)
                values[std::stol(line)] = line.substr(line.find('=') + 1);
        }
        return values;
    }
    static std::string Value(const Values& v, int pid, int row) {
        auto it = v.find(rtdc_ProcessGenids(pid, row));
        return it == v.end() ? std::string("<none>") : it->second;
    }
    static double Number(const Values& v, int pid, int row) {
        return std::atof(Value(v, pid, row).c_str());
    }
    static void AddRule(const std::string& path, double sum, uint32_t intervals) {
        auto* rule = static_cast<ExceptionObject*>(calloc(1, sizeof(ExceptionObject)));
        snprintf(rule->name, sizeof rule->name, "%s", path.c_str());
        snprintf(rule->owner, sizeof rule->owner, "proctest");
        rule->sum = sum, rule->intervals = intervals;
        if (!Expdef_list) CreateList(&Expdef_list);
        AppendToList(&Expdef_list, rule);
    }
    static std::vector<ExceptionObject*> Owned(List* list) {
        std::vector<ExceptionObject*> mine;
        for (ListItem* it = list ? list->first : nullptr; it; it = it->next)
            mine.push_back(static_cast<ExceptionObject*>(it->data));
        std::erase_if(mine, [](ExceptionObject* e) { return strcmp(e->owner, "proctest") != 0; });
        return mine;
    }
    int saved_switch_ = 0;
};

TEST_F(ProcessClass, PidsSharingABucketAreFoundByPid) {
    ASSERT_EQ(GetIndex(5), GetIndex(69));
    ProcListItem* five = AddToProcList(5);
    ProcListItem* sixty_nine = AddToProcList(69);
    // The search starts after the last hit, so each order must wrap round to find it.
    const std::pair<int, ProcListItem*> lookups[] = {
        {69, sixty_nine}, {5, five}, {5, five}, {69, sixty_nine}, {133, nullptr}};
    for (const auto& [pid, want] : lookups) {
        ProcListItem* found = nullptr;
        GetFromProcList(proc_list[GetIndex(pid)], pid, &found);
        EXPECT_EQ(found, want) << "pid " << pid;
    }
}

// The collector over a scratch /proc with two processors and a clock the test sets. Each
// process: parent 7, pts/3, priority -51, 3072 kB resident (stat's lagging figure says
// 4096), 1e6 characters in 500 calls.
class ScriptedProc : public ProcessClass {
  protected:
    void SetUp() override {
        ProcessClass::SetUp();
        tree_.write("sys/devices/system/cpu/online", "0-1\n");
        platform::set_roots(tree_.roots());
        platform::set_clock_for_tests([] { return fake_now; });
    }
    // Times in seconds: the start after boot, then CPU spent.
    void Put(int pid, const std::string& name, double start, double user = 0, double sys = 0,
             unsigned long long minflt = 0, unsigned long long blocks_out = 0) {
        const double hz = static_cast<double>(platform::clock_ticks_per_second());
        auto ticks = [hz](double s) { return static_cast<long long>(std::llround(s * hz)); };
        char stat[512];
        snprintf(stat, sizeof stat,
                 "%d (%s) S 7 %d %d %d -1 4194304 %llu 0 0 0 %lld %lld 0 0 -51 0 1 0 %lld 1000 "
                 "%ld 18446744073709551615\n",
                 pid, name.c_str(), pid, pid, 136 << 8 | 3, minflt, ticks(user), ticks(sys),
                 ticks(start), 4096 * 1024 / sysconf(_SC_PAGESIZE));
        const std::string dir = "proc/" + std::to_string(pid) + "/";
        tree_.write(dir + "stat", stat);
        tree_.write(dir + "statm", "5000 " + std::to_string(3072 * 1024 / sysconf(_SC_PAGESIZE)) +
                                       " 100 10 0 200 0\n");
        SetUid(pid, 0);
        tree_.write(dir + "io", "rchar: 600000\nwchar: 400000\nsyscr: 300\nsyscw: 200\n" +
                                    ("write_bytes: " + std::to_string(blocks_out * 512)));
    }
    void SetUid(int pid, unsigned uid) {
        const std::string u = std::to_string(uid);
        tree_.write("proc/" + std::to_string(pid) + "/status",
                    "Name:\tx\nUid:\t" + u + "\t" + u + "\t" + u + "\t" + u + "\n");
    }
    std::string Dir(int pid) const { return tree_.root() + "/proc/" + std::to_string(pid); }
    vorntest::TempTree tree_;
};

TEST_F(ScriptedProc, RatesSinceStartThenOverEachInterval) {
    // First sight: averages over the 100 s the process has lived, as a share of both
    // processors. Then over each interval: a pass right behind the last keeps its figures
    // rather than measure milliseconds, and the next measures from the last that counted.
    // A counter that went backwards gives 0, never a wrapped huge rate.
    // now, user s, sys s, minor faults, blocks out; rates: cpu usr sys trap bi bo mnf mjf io calls
    const std::tuple<double, double, double, int, int, const char*> steps[] = {
        {200, 30, 10, 1000, 5000, "20.00|15.00|5.00|0.00|0|50|10|0|10000|5"},
        {202, 31, 10.5, 1200, 5010, "37.50|25.00|12.50|0.00|0|5|100|0|0|0"},
        {202.2, 31.1, 10.5, 1200, 5010, "37.50|25.00|12.50|0.00|0|5|100|0|0|0"},
        {204, 33, 10.5, 700, 5010, "50.00|50.00|0.00|0.00|0|0|0|0|0|0"}};
    for (const auto& [now, user, sys, minflt, blocks, rates] : steps) {
        Put(10, "alpha", 100, user, sys, minflt, blocks);
        fake_now = now;
        Values v = Scan();
        std::string line = Value(v, 10, kPid);
        for (int row = kPid + 1; row < PROC_FIELDS(); ++row) line += "|" + Value(v, 10, row);
        EXPECT_EQ(line, "10|7|root|pts/3|" + std::string(rates) + "|0|3072|-51") << now;
    }
}

TEST_F(ScriptedProc, OwnerReadAgainWhenTheProcessIsNewOrItsOwnerChanged) {
    if (geteuid() != 0) GTEST_SKIP() << "changing a directory's owner needs root";
    // Uids without passwd entries, so the user name is the number.
    const unsigned kFirst = 3999991, kSecond = 3999992, kThird = 3999993;
    Put(50, "owner", 100);
    SetUid(50, kFirst);
    fake_now = 200;
    EXPECT_EQ(Value(Scan(), 50, kPid + 2), std::to_string(kFirst));
    // A known process of the same owner is not asked again: its status may even be gone.
    std::filesystem::remove(Dir(50) + "/status");
    fake_now = 202;
    EXPECT_EQ(Value(Scan(), 50, kPid + 2), std::to_string(kFirst));
    // setuid: the directory's owner moves, and the real uid is read afresh.
    SetUid(50, kSecond);
    ASSERT_EQ(chown(Dir(50).c_str(), kSecond, static_cast<gid_t>(-1)), 0);
    fake_now = 204;
    EXPECT_EQ(Value(Scan(), 50, kPid + 2), std::to_string(kSecond));
    // The pid reused by another process of the same owner and name: a new process.
    Put(50, "owner", 203);
    SetUid(50, kThird);
    fake_now = 206;
    EXPECT_EQ(Value(Scan(), 50, kPid + 2), std::to_string(kThird));
}

TEST_F(ScriptedProc, InputOutputWithoutProcessorTimeIsStillCounted) {
    // A process that waits on I/O uses no clock tick between two scans, yet its characters
    // and calls move: its io file is read every scan, whatever its stat says.
    Put(60, "copier", 100, 1);
    fake_now = 200;
    Scan();
    tree_.write("proc/60/io", "rchar: 1600000\nwchar: 400000\nsyscr: 1300\nsyscw: 200\n");
    fake_now = 202;
    Values v = Scan();
    EXPECT_EQ(Value(v, 60, kCpu), "0.00");
    EXPECT_EQ(Value(v, 60, kIoChars), "500000");
    EXPECT_EQ(Value(v, 60, kIoChars + 1), "500");
}

TEST_F(ScriptedProc, ProcessesComingGoingAndChangingInTheTree) {
    Put(20, "twin", 100);
    Put(21, "twin", 100);
    Put(30, "alpha", 100, 50);
    Put(40, "run-parts", 150);
    fake_now = 200;
    // A header pass before any data pass and with no console waiting makes no header
    // lines, but knows the processes and registers each once under its name.
    start_rtdc = 0;
    Scan(1, 1);
    EXPECT_EQ(rtdc_pass_process_headers().entries(), 0);
    start_rtdc = 1;
    Scan(1, 1);
    EXPECT_EQ(rtdc_pass_process_headers().entries(), 4 * (PROC_FIELDS() - 1));
    EXPECT_EQ(n_rtdc_data_headers, 0);  // made when the packet is written, not held
    EXPECT_EQ(n_rtdc_data_buffers, 0);
    EXPECT_EQ(instances("twin"), (Names{"20", "21"}));
    // A process's counters share one instance (its record and pid): no copy per counter.
    std::map<std::string, std::set<MetricInstance*>> by_pid;
    for (treeNode* leaf = find_node("Process->twin")->child; leaf; leaf = leaf->next)
        for (ListItem* it = leaf->data->instances->first; it; it = it->next)
            by_pid[static_cast<MetricInstance*>(it->data)->name].insert(
                static_cast<MetricInstance*>(it->data));
    EXPECT_EQ(by_pid.size(), 2u);
    for (const auto& [pid, objects] : by_pid) EXPECT_EQ(objects.size(), 1u) << pid;
    // Room for less than one process: nothing is written rather than a part.
    std::vector<char*> lines(kMaxLines, nullptr);
    int count = kMaxLines - PROC_FIELDS() + 2;
    ProcessHeaderLines nearly_full_pass;
    PacketOutput nearly_full(lines.data(), &count, nullptr, nullptr, nearly_full_pass);
    EXPECT_EQ(GenProcessHeader(nearly_full), 1);
    EXPECT_EQ(nearly_full_pass.entries(), 0);
    // A /proc that cannot be listed keeps what is known instead of sweeping it all.
    platform::set_roots(vorntest::roots_under(tree_.root() + "/missing"));
    EXPECT_TRUE(Scan(0).empty());
    EXPECT_EQ(ProcListCount(), 4);
    platform::set_roots(tree_.roots());

    AddRule("Process->twin->% CPU Utilization", 30, 2);
    AddRule("Process->run-parts->% CPU Utilization", 42, 0);  // no sample yet
    AddRule("Process->run-parts->Rss (Kb)", 100, 4);

    // 21 exits: its name's node goes with it, and 20 is registered again alone.
    std::filesystem::remove_all(tree_.root() + "/proc/21");
    // 30's pid comes back as another process of the same name: counted from its own
    // start, not as a backward step of the old one.
    Put(30, "alpha", 199, 0.5);
    Put(40, "make", 150);  // exec'd another program
    fake_now = 202;
    Values v = Scan();
    EXPECT_EQ(ProcListCount(), 3);
    EXPECT_EQ(instances("twin"), Names{"20"});
    EXPECT_EQ(Value(v, 30, kCpu), "8.33");  // 0.5 s over its 3 s on 2 processors
    EXPECT_EQ(instances("alpha"), Names{"30"});
    EXPECT_EQ(find_node("Process->run-parts"), nullptr);
    EXPECT_EQ(instances("make"), Names{"40"});

    // Rules on counters that lost their last instance go out as alerts at once, a rule with
    // no sample counting as one; 20 still feeds the twin rule.
    std::map<std::string, double> averages;
    for (ExceptionObject* alert : Owned(Alert_list))
        averages[alert->metric ? alert->metric->description : "no metric"] = alert->ave;
    EXPECT_EQ(averages,
              (std::map<std::string, double>{{"Process->run-parts->Rss (Kb)", 25},
                                             {"Process->run-parts->% CPU Utilization", 42}}));
    EXPECT_EQ(Owned(Expdef_list).size(), 1u);

    // A known process is not registered again scan after scan.
    treeNode* leaf = find_node("Process->make->Priority");
    fake_now = 204;
    Scan();
    EXPECT_EQ(find_node("Process->make->Priority"), leaf);
    EXPECT_EQ(instances("make"), Names{"40"});
}

// The kernel's figure for this process's resident size, in kilobytes.
long own_vmrss() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

// Busy and all ticks of /proc/stat's processor line, as the processor class counts them,
// and the processes (and threads) created since boot.
std::vector<double> host_ticks() {
    std::ifstream in("/proc/stat");
    std::string word;
    double t[8], forks = 0;  // user nice system idle iowait irq softirq steal
    in >> word >> t[0] >> t[1] >> t[2] >> t[3] >> t[4] >> t[5] >> t[6] >> t[7];
    for (std::string line; std::getline(in, line);)
        if (line.rfind("processes ", 0) == 0) forks = std::atof(line.c_str() + 10);
    const double busy = t[0] + t[1] + t[2] + t[5] + t[6] + t[7];
    return {busy, busy + t[3] + t[4], forks};
}

TEST_F(ProcessClass, LiveChildOwnProcessAndTheHostTotal) {
    // A child writes 16 MB with fsync, burns a second of processor time, reports the time
    // it used and keeps one processor busy, well above the noise, until killed.
    const size_t kBytes = 16u << 20;
    const std::string file = std::string(VORN_BINARY_DIR) + "/burner." + std::to_string(getpid());
    int done[2];
    ASSERT_EQ(pipe(done), 0);
    const double t0 = platform::seconds_since_boot();
    Child child{fork()};
    ASSERT_GE(child.pid, 0);
    if (child.pid == 0) {
        prctl(PR_SET_NAME, "vornburner");
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        static char block[65536];
        for (size_t n = 0; fd >= 0 && n < kBytes; n += sizeof block)
            if (write(fd, block, sizeof block) < 0) _exit(2);
        if (fd < 0 || fsync(fd) != 0) _exit(3);
        timespec used{};
        for (volatile unsigned spin = 0; used.tv_sec < 1;) {
            for (int i = 0; i < 100000; ++i) spin = spin + 1;
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        }
        double seconds = used.tv_sec + used.tv_nsec / 1e9;
        if (write(done[1], &seconds, sizeof seconds) != sizeof seconds) _exit(4);
        for (volatile unsigned spin = 0;;) spin = spin + 1;
    }
    close(done[1]);
    double used = -1;
    EXPECT_EQ(read(done[0], &used, sizeof used), static_cast<ssize_t>(sizeof used));
    close(done[0]);
    unlink(file.c_str());
    ASSERT_GE(used, 1.0);
    const auto fds = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    const double t1 = platform::seconds_since_boot();
    // First seen now: the child's figures are averages over its life, inside [t0, now].
    const long rss_before = own_vmrss();
    Values v = Scan();
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}), fds);
    const double longest = platform::seconds_since_boot() - t0, shortest = t1 - t0;
    const double cpu_share = used * 100 / platform::online_processors();
    EXPECT_GE(Number(v, child.pid, kCpu), cpu_share / longest * 0.9);
    EXPECT_LE(Number(v, child.pid, kCpu), cpu_share / shortest * 1.1 + 1);
    EXPECT_GE(Number(v, child.pid, kIoChars), kBytes / longest * 0.95);
    EXPECT_LE(Number(v, child.pid, kIoChars), (kBytes + 65536) / shortest * 1.05);
    EXPECT_GE(Number(v, child.pid, kBlocksOut), kBytes / 512 / longest * 0.95);
    EXPECT_EQ(instances("vornburner"), Names{std::to_string(child.pid)});
    // The test itself, against the kernel's own status line read right after.
    EXPECT_EQ(Value(v, getpid(), kParent), std::to_string(getppid()));
    // The scan reads the test's own size part-way: the records of the processes it meets
    // afterwards grow it (by megabytes on a host of thousands), so the kernel's figure read
    // before the scan and the one read after bound it.
    const long rss = static_cast<long>(Number(v, getpid(), kRss));
    EXPECT_GE(rss, rss_before * 0.9 - 512);
    EXPECT_LE(rss, own_vmrss() * 1.1 + 512);

    // The shares add up to the host's utilisation, over a window in which no process went
    // away with CPU time the scans never saw; a little shortfall is allowed for one that
    // both started and ended unseen. A host busy with short jobs may offer no such window.
    bool compared = false;
    for (int attempt = 0; attempt < 8 && !compared; ++attempt) {
        // Late enough after the last scan that every process's interval lies in the host's.
        usleep(static_cast<useconds_t>(kMinRateSeconds * 1.2e6));
        const auto h0 = host_ticks();
        Values before = Scan();
        const int listed = n_rtdc_data_buffers;  // one data string per process
        usleep(1000000);
        v = Scan();
        const auto h1 = host_ticks();
        const double host = (h1[0] - h0[0]) / (h1[1] - h0[1]) * 100;
        double sum = 0;
        int created = 0;
        for (int i = 0; i < n_rtdc_data_buffers; ++i) {
            const int pid = atoi(strchr(rtdc_data_buffers[i], '=') + 1);  // "id=pid" first
            sum += Number(v, pid, kCpu);
            created += !before.count(rtdc_ProcessGenids(pid, kPid));
        }
        const int vanished = listed - (n_rtdc_data_buffers - created);
        EXPECT_LE(sum, host + 6.0) << "processes " << sum << "% host " << host;  // never over
        if (vanished == 0) {
            compared = true;
            EXPECT_GE(sum, host - (h1[2] - h0[2] > created ? 12.0 : 6.0)) << "host " << host;
            EXPECT_GE(host, 100.0 / platform::online_processors() * 0.8);
        }
    }

    kill(child.pid, SIGKILL);
    waitpid(child.pid, nullptr, 0);
    child.pid = -1;
    Scan();
    EXPECT_EQ(find_node("Process->vornburner"), nullptr);
    if (!compared) GTEST_SKIP() << "no window without short-lived processes on this busy host";
}

}  // namespace
