// Capabilities and the account switch. Every case changes the process's privileges or
// ids, so each runs in a forked child and reports through its output.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "child_run.h"
#include "control/rta_priv.h"
#include "control_test_util.h"

using namespace control_test;

namespace {

constexpr uint64_t bit(int cap) { return uint64_t{1} << cap; }
constexpr uint64_t kFileAndSetid = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SETUID) | bit(CAP_SETGID);
constexpr uint64_t kKept = kFileAndSetid | bit(CAP_SYS_PTRACE);

bool privileged() { return geteuid() == 0 && (cap_mask("CapEff") & kKept) == kKept; }

std::string hex(uint64_t v) {
    char buf[32];
    snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string caps(const char* which) { return hex(cap_mask(which)); }

}  // namespace

TEST(Privileges, InitKeepsTheNamedListAndOnOffToggle) {
    if (!privileged()) GTEST_SKIP() << "needs root with its capabilities";
    const uint64_t start_bounding = cap_mask("CapBnd");
    ChildResult c = run_in_child([] {
        priv_init();
        std::string s = caps("CapPrm") + " " + caps("CapEff") + " " + caps("CapBnd");
        priv_off();
        priv_off_proc();
        s += " " + caps("CapEff");
        priv_on();
        s += " " + caps("CapEff");
        priv_on_proc();
        s += " " + caps("CapEff");
        priv_off();
        s += " " + caps("CapEff");
        printf("%s", s.c_str());
        return 0;
    });
    ASSERT_EQ(c.exit_code, 0) << c.err;
    EXPECT_EQ(c.err, "");
    // Dropping from the bounding set needs CAP_SETPCAP.
    std::string bounding = (start_bounding & bit(CAP_SETPCAP)) ? hex(kKept & start_bounding) : hex(start_bounding);
    EXPECT_EQ(c.out, hex(kKept) + " " + hex(kKept) + " " + bounding + " 0 " + hex(kFileAndSetid) + " " +
                         hex(kKept) + " " + hex(bit(CAP_SYS_PTRACE)));
}

TEST(Privileges, UnprivilegedAgentRunsWithAnEmptyList) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another account";
    ChildResult c = run_in_child([] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
        priv_init();
        priv_on();
        priv_on_proc();
        printf("%s %s", caps("CapPrm").c_str(), caps("CapEff").c_str());
        return 0;
    });
    EXPECT_EQ(c.exit_code, 0);
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(c.out, "0 0");
}

TEST(Privileges, RelinquishRootKeepsWhatWasRaised) {
    if (!privileged()) GTEST_SKIP() << "needs root with its capabilities";
    // The stop sequence: priv_init, priv_on, then the account switch. proc_owner is
    // lowered first so that the effective set shows exactly what was put back.
    ChildResult c = run_in_child([] {
        priv_init();
        priv_off_proc();
        priv_on();
        int rc = rta_relinquish_root("nobody");
        gid_t groups[64];
        int n = getgroups(64, groups);
        bool root_group = false;
        for (int i = 0; i < n; ++i) root_group |= groups[i] == 0;
        printf("%d %d %d %d %s %s", rc, static_cast<int>(getuid()), static_cast<int>(getgid()), root_group ? 1 : 0,
               caps("CapEff").c_str(), caps("CapPrm").c_str());
        return 0;
    });
    ASSERT_EQ(c.exit_code, 0) << c.err;
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(c.out, "1 65534 65534 0 " + hex(kFileAndSetid) + " " + hex(kKept));
}

TEST(Privileges, AccountsAndStartSet) {
    ChildResult c = run_in_child([] { return rta_relinquish_root("no_such_account_vx"); });
    EXPECT_EQ(c.exit_code, 0);
    EXPECT_EQ(c.err.rfind("vornrta, unable to change account to  no_such_account_vx, ", 0), 0u) << c.err;

    EXPECT_EQ(rta_am_i_quorbex("no_such_account_vx"), 0);
    EXPECT_EQ(rta_am_i_quorbex(nullptr), 0);
    EXPECT_EQ(rta_am_i_quorbex("root"), getuid() == 0 ? 1 : 0);
    if (getuid() == 0) {
        ChildResult nobody = run_in_child([] {
            if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
            return rta_am_i_quorbex("nobody") * 10 + rta_am_i_quorbex("root");
        });
        EXPECT_EQ(nobody.exit_code, 10);
    }

    ChildResult start = run_in_child([] {
        rta_build_start_privileges();
        rta_build_start_privileges();  // a second build replaces the first
        return 5;
    });
    EXPECT_EQ(start.exit_code, 5);
    EXPECT_EQ(start.err, "");
}
