// Capabilities, the account switch and the /proc process lookups. All of them change or
// depend on the process's privileges, so each case runs in a forked child.
#include <gtest/gtest.h>
#include <linux/capability.h>

#include "control/rta_priv.h"
#include "control_test_util.h"
#include "platform/privileges.h"

using namespace control_test;

namespace {
constexpr uint64_t bit(int cap) { return uint64_t{1} << cap; }
constexpr uint64_t kFileAndSetid = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SETUID) | bit(CAP_SETGID);
constexpr uint64_t kProcOwner = bit(CAP_SYS_PTRACE) | bit(CAP_KILL);
constexpr uint64_t kKept = kFileAndSetid | kProcOwner;
constexpr uint64_t kAgent = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SYS_PTRACE);

std::string hex(uint64_t v) {  // as /proc/self/status shows a capability set
    char buf[20];
    snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(v));
    return buf;
}
// A capability set of /proc/self/status: "CapPrm", "CapEff" or "CapBnd".
std::string caps(const std::string& which) {
    std::istringstream in(read_file("/proc/self/status"));
    for (std::string line; std::getline(in, line);)
        if (line.rfind(which + ":\t", 0) == 0) return line.substr(which.size() + 2);
    return "";
}
}  // namespace

TEST(FindProc, CapturedTrees) {
    ChildResult c = run_in_child([] {
        use_proc_root(kFixtures + "linux/procs/proc");
        int results[] = {
            // findproc: the recorded pid, our namespace, short name within the given name.
            findproc("vornrta", 100, 0), findproc("vornrta", 200, 0), findproc("vorn", 100, 0),
            findproc("vornrta", 400, 0), findproc("vornrta", 1, 0), findproc("vornrta", 500, 0),
            findproc("vornrta", 700, 0), findproc("vornrta", 999, 0), findproc("<my (odd) name>", 300, 0),
            findproc("mover", 601, 0), findproc("mover", 600, 0),  // the record's pid counts, not the entry's
            // By name: equal names, own pid excluded, other namespaces never.
            find_process_by_name("vornrta", 0, 0), find_process_by_name("vornrta", 100, 0),
            find_process_by_name("vorn", 0, 0), find_process_by_name("vornrt", 0, 0),
            find_process_by_name("my (odd) name", 0, 0), findproc_nopid("vornrta", 0)};
        for (int r : results) printf("%d ", r);
        use_proc_root(kFixtures + "linux/procs/proc/absent");
        return printf("%d %d", findproc("vornrta", 100, 0), find_process_by_name("vornrta", 0, 0)), 0;
    });
    EXPECT_EQ(c.out, "1 1 0 0 0 0 0 0 1 1 0 100 0 200 0 300 100 -1 0");

    // Entries that cannot be read mean no privilege.
    TempDir t;
    const std::string root = t / "proc";
    for (int pid : {10, 20, 30}) add_proc(root, pid, pid == 10 ? "other" : "vornrta");
    chmod((root + "/30/stat").c_str(), 0);
    chmod((root + "/10").c_str(), 0);
    c = run_in_child([&] {
        use_proc_root(root);
        // Only with every privilege gone does root meet the file modes.
        if (!platform::keep_only_privileges({})) return 50;
        return printf("%d %d %d %d", findproc("vornrta", 30, 0), findproc("vornrta", 40, 0),
                      findproc("vornrta", 20, 0), find_process_by_name("vornrta", 0, 0)), 0;
    });
    EXPECT_EQ(c.out, "-1 -1 1 20");  // a match still wins over a refusal
    chmod((root + "/10").c_str(), 0755);
}

TEST(Privileges, InitTogglesAndAccounts) {
    const uint64_t bounding = std::stoull(caps("CapBnd"), nullptr, 16);
    if ((std::stoull(caps("CapEff"), nullptr, 16) & kKept) != kKept) GTEST_SKIP() << "needs its capabilities";
    ChildResult c = run_in_child([] {
        priv_init();
        std::string s = caps("CapPrm") + " " + caps("CapEff") + " " + caps("CapBnd") + " |";
        for (auto step : {priv_off, priv_off_proc, priv_on, priv_on_proc, priv_off, priv_on, priv_off_proc})
            s += " " + (step(), caps("CapEff"));
        // Stop then switches the account, which keeps exactly what was raised.
        int rc = rta_relinquish_root("nobody");
        gid_t groups[64];
        int n = getgroups(64, groups), root_group = 0;
        for (int i = 0; i < n; ++i) root_group |= groups[i] == 0;
        s += " | " + std::to_string(rc) + " " + std::to_string(getuid()) + " " + std::to_string(getgid()) + " " +
             std::to_string(root_group) + " " + caps("CapEff") + " " + caps("CapPrm");
        // What the agent then runs with, in force for every scan thread it starts.
        rc = rta_keep_agent_privileges();
        return printf("%s | %d %s %s", s.c_str(), rc, caps("CapEff").c_str(), caps("CapPrm").c_str()), 0;
    });
    // Dropping from the bounding set needs CAP_SETPCAP. Once the account is switched, the
    // right to change ids is gone: it would be as good as root.
    const std::string all = hex(kKept), proc = hex(kProcOwner), file = hex(kFileAndSetid);
    const std::string switched = hex(bit(CAP_DAC_READ_SEARCH)) + " " + hex(kKept & ~(bit(CAP_SETUID) | bit(CAP_SETGID)));
    EXPECT_EQ(c.out + c.err, all + " " + all + " " + hex(bounding & bit(CAP_SETPCAP) ? kKept & bounding : bounding) +
                                 " | " + proc + " " + hex(0) + " " + file + " " + all + " " + proc + " " + all +
                                 " " + file + " | 1 65534 65534 0 " + switched + " | 1 " + hex(kAgent) + " " +
                                 hex(kAgent));

    c = run_in_child([] {
        int unknown = rta_relinquish_root("no_such_account_vx"), root = rta_am_i_quorbex("root");
        if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
        priv_init();  // without privileges the agent runs with an empty list instead of failing
        priv_on();
        priv_on_proc();
        return printf("%d %d%d%d%d %s %s", unknown, root, rta_am_i_quorbex("nobody"), rta_am_i_quorbex("root"),
                      rta_am_i_quorbex(nullptr), caps("CapPrm").c_str(), caps("CapEff").c_str()), 0;
    });
    EXPECT_EQ(c.out, "0 1100 " + hex(0) + " " + hex(0));
    EXPECT_EQ(c.err.rfind("vornrta, unable to change account to  no_such_account_vx, ", 0), 0u) << c.err;
}
