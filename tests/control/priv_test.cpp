// Capabilities and the account switch. Every case changes the process's privileges or
// ids, so each runs in a forked child and reports through its exit code and output.
#include <gtest/gtest.h>
#include <grp.h>
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
constexpr uint64_t kKept = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SYS_PTRACE) | bit(CAP_SETUID) | bit(CAP_SETGID);
constexpr uint64_t kFileAndSetid = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SETUID) | bit(CAP_SETGID);

bool privileged() { return geteuid() == 0 && (cap_mask("CapEff") & kKept) == kKept; }

// The test process's own bounding set before anything changed.
const uint64_t kStartBounding = cap_mask("CapBnd");

}  // namespace

TEST(Privileges, InitKeepsOnlyTheNamedList) {
    if (!privileged()) GTEST_SKIP() << "needs root with its capabilities";
    ChildResult c = run_in_child([] {
        priv_init();
        printf("%llx %llx %llx", static_cast<unsigned long long>(cap_mask("CapPrm")),
               static_cast<unsigned long long>(cap_mask("CapEff")),
               static_cast<unsigned long long>(cap_mask("CapBnd")));
        return 0;
    });
    ASSERT_EQ(c.exit_code, 0) << c.err;
    EXPECT_EQ(c.err, "");
    unsigned long long prm = 0, eff = 0, bnd = 0;
    ASSERT_EQ(sscanf(c.out.c_str(), "%llx %llx %llx", &prm, &eff, &bnd), 3) << c.out;
    EXPECT_EQ(prm, kKept);
    EXPECT_EQ(eff, kKept);
    // Dropping from the bounding set needs CAP_SETPCAP.
    if (kStartBounding & bit(CAP_SETPCAP)) {
        EXPECT_EQ(bnd, kKept & kStartBounding);
    }
}

TEST(Privileges, UnprivilegedAgentRunsWithAnEmptyList) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to become another account";
    ChildResult c = run_in_child([] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
        priv_init();
        priv_on();
        priv_on_proc();
        priv_off();
        printf("%llx %llx", static_cast<unsigned long long>(cap_mask("CapPrm")),
               static_cast<unsigned long long>(cap_mask("CapEff")));
        return 0;
    });
    EXPECT_EQ(c.exit_code, 0);
    EXPECT_EQ(c.err, "");
    EXPECT_EQ(c.out, "0 0");
}

TEST(Privileges, OnAndOffToggleTheEffectiveSet) {
    if (!privileged()) GTEST_SKIP() << "needs root with its capabilities";
    ChildResult c = run_in_child([] {
        priv_init();
        auto eff = [] { return static_cast<unsigned long long>(cap_mask("CapEff")); };
        priv_off();
        priv_off_proc();
        unsigned long long none = eff();
        priv_on();
        unsigned long long on = eff();
        priv_on_proc();
        unsigned long long proc = eff();
        priv_off();
        unsigned long long only_proc = eff();
        printf("%llx %llx %llx %llx", none, on, proc, only_proc);
        return 0;
    });
    ASSERT_EQ(c.exit_code, 0) << c.err;
    char expected[128];
    snprintf(expected, sizeof expected, "0 %llx %llx %llx", static_cast<unsigned long long>(kFileAndSetid),
             static_cast<unsigned long long>(kKept), static_cast<unsigned long long>(bit(CAP_SYS_PTRACE)));
    EXPECT_EQ(c.out, expected);
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
        printf("%d %d %d %d %llx %llx", rc, static_cast<int>(getuid()), static_cast<int>(getgid()),
               root_group ? 1 : 0, static_cast<unsigned long long>(cap_mask("CapEff")),
               static_cast<unsigned long long>(cap_mask("CapPrm")));
        return 0;
    });
    ASSERT_EQ(c.exit_code, 0) << c.err;
    EXPECT_EQ(c.err, "");
    char expected[128];
    snprintf(expected, sizeof expected, "1 65534 65534 0 %llx %llx", static_cast<unsigned long long>(kFileAndSetid),
             static_cast<unsigned long long>(kKept));
    EXPECT_EQ(c.out, expected);
}

TEST(Privileges, UnknownAccount) {
    ChildResult c = run_in_child([] { return rta_relinquish_root("no_such_account_vx"); });
    EXPECT_EQ(c.exit_code, 0);
    EXPECT_EQ(c.err.rfind("vornrta, unable to change account to  no_such_account_vx, ", 0), 0u) << c.err;

    EXPECT_EQ(rta_am_i_quorbex("no_such_account_vx"), 0);
    EXPECT_EQ(rta_am_i_quorbex(nullptr), 0);
}

TEST(Privileges, AuthorisedAccount) {
    EXPECT_EQ(rta_am_i_quorbex("root"), getuid() == 0 ? 1 : 0);
    if (getuid() == 0) {
        EXPECT_EQ(rta_am_i_quorbex("nobody"), 0);
        ChildResult c = run_in_child([] {
            if (setgid(65534) != 0 || setuid(65534) != 0) return 99;
            return rta_am_i_quorbex("nobody") * 10 + rta_am_i_quorbex("root");
        });
        EXPECT_EQ(c.exit_code, 10);
    }
}

TEST(Privileges, StartSetIsBuilt) {
    ChildResult c = run_in_child([] {
        rta_build_start_privileges();
        rta_build_start_privileges();  // a second build replaces the first
        return 5;
    });
    EXPECT_EQ(c.exit_code, 5);
    EXPECT_EQ(c.err, "");
}
