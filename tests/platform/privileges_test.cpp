// Named privileges against the capability sets the kernel shows. Each case changes the
// process's own privileges, so it runs in a forked child that reports what it saw.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "platform/privileges.h"

namespace {

using platform::Privilege;
using platform::PrivilegeSet;

constexpr uint64_t bit(int cap) { return uint64_t{1} << cap; }

// A capability set as the kernel shows it: "CapPrm", "CapEff" or "CapBnd".
uint64_t caps(const std::string& which) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(which + ":\t", 0) == 0) return std::stoull(line.substr(which.size() + 2), nullptr, 16);
    return ~uint64_t{0};
}

// Runs fn in a forked child and returns what it wrote to a pipe, or "crashed".
std::string in_child(const std::function<std::string()>& fn) {
    int fds[2];
    if (pipe(fds) != 0) return "no pipe";
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        alarm(20);
        std::string out = fn();
        ssize_t ignored = write(fds[1], out.data(), out.size());
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[256];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? out : "crashed";
}

std::string hex(uint64_t v) {
    char buf[20];
    snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v));
    return buf;
}

constexpr uint64_t kUsed = bit(CAP_DAC_READ_SEARCH) | bit(CAP_SYS_PTRACE) | bit(CAP_KILL) | bit(CAP_SETUID) |
                           bit(CAP_SETGID);

bool holds_all_used() { return (caps("CapEff") & kUsed) == kUsed; }

TEST(Privileges, EachNameMapsToItsCapability) {
    if (!holds_all_used()) GTEST_SKIP() << "needs the capabilities it maps to";
    const std::pair<Privilege, uint64_t> rows[] = {
        {Privilege::file_dac_read, bit(CAP_DAC_READ_SEARCH)},
        {Privilege::file_dac_search, bit(CAP_DAC_READ_SEARCH)},  // one capability does both
        {Privilege::proc_owner, bit(CAP_SYS_PTRACE)},
        {Privilege::proc_signal, bit(CAP_KILL)},
        {Privilege::proc_setuid, bit(CAP_SETUID)},
        {Privilege::proc_setgid, bit(CAP_SETGID)},
    };
    for (const auto& [privilege, cap] : rows) {
        std::string got = in_child([p = privilege] {
            bool ok = platform::limit_permitted_privileges({p});
            return std::to_string(ok) + " " + hex(caps("CapPrm")) + " " + hex(caps("CapEff"));
        });
        EXPECT_EQ(got, "1 " + hex(cap) + " " + hex(cap)) << static_cast<int>(privilege);
    }
    PrivilegeSet set;
    errno = 0;
    EXPECT_FALSE(set.add(static_cast<Privilege>(30)));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(set.empty());
    EXPECT_TRUE(set.add(Privilege::proc_signal));
    EXPECT_TRUE(set.contains(Privilege::proc_signal));
    EXPECT_FALSE(set.contains(Privilege::proc_owner));
}

TEST(Privileges, RaiseLowerKeepAndDrop) {
    if (!holds_all_used()) GTEST_SKIP() << "needs the capabilities it maps to";
    std::string got = in_child([] {
        std::string s;
        auto step = [&](bool ok) { s += std::to_string(ok) + ":" + hex(caps("CapPrm")) + "/" + hex(caps("CapEff")) + " "; };
        step(platform::limit_permitted_privileges({Privilege::file_dac_read, Privilege::proc_signal}));
        step(platform::lower_privileges({Privilege::proc_signal}));
        // What is not permitted cannot be raised, and is left out quietly.
        step(platform::raise_privileges({Privilege::proc_signal, Privilege::proc_setuid}));
        step(platform::keep_only_privileges({Privilege::proc_signal, Privilege::proc_owner}));
        step(platform::drop_privileges({Privilege::proc_signal}));
        return s;
    });
    const std::string both = hex(bit(CAP_DAC_READ_SEARCH) | bit(CAP_KILL));
    const std::string kill = hex(bit(CAP_KILL));
    EXPECT_EQ(got, "1:" + both + "/" + both + " 1:" + both + "/" + hex(bit(CAP_DAC_READ_SEARCH)) + " 1:" + both +
                       "/" + both + " 1:" + kill + "/" + kill + " 1:0/0 ");
}

TEST(Privileges, AccountSwitchKeepsWhatWasInForce) {
    if (!holds_all_used() || geteuid() != 0) GTEST_SKIP() << "needs root and its capabilities";
    std::string got = in_child([] {
        platform::limit_permitted_privileges({Privilege::file_dac_read, Privilege::proc_setuid, Privilege::proc_signal});
        platform::lower_privileges({Privilege::proc_signal});
        bool ok = platform::switch_user_keeping_privileges(65534);
        std::string s = std::to_string(ok) + " " + std::to_string(getuid()) + " " + hex(caps("CapPrm")) + " " +
                        hex(caps("CapEff"));
        // Without the right to change ids, going back fails and says why.
        platform::drop_privileges({Privilege::proc_setuid});
        errno = 0;
        ok = platform::switch_user_keeping_privileges(0);
        return s + " | " + std::to_string(ok) + " " + std::to_string(errno == EPERM) + " " + std::to_string(getuid());
    });
    EXPECT_EQ(got, "1 65534 " + hex(bit(CAP_DAC_READ_SEARCH) | bit(CAP_SETUID) | bit(CAP_KILL)) + " " +
                       hex(bit(CAP_DAC_READ_SEARCH) | bit(CAP_SETUID)) + " | 0 1 65534");
}

TEST(Privileges, BoundingSetKeepsOnlyTheList) {
    if ((caps("CapEff") & bit(CAP_SETPCAP)) == 0) GTEST_SKIP() << "needs the right to narrow the bounding set";
    const uint64_t before = caps("CapBnd");
    std::string got = in_child([] {
        bool ok = platform::limit_bounding_privileges({Privilege::proc_owner, Privilege::proc_signal});
        return std::to_string(ok) + " " + hex(caps("CapBnd"));
    });
    EXPECT_EQ(got, "1 " + hex(before & (bit(CAP_SYS_PTRACE) | bit(CAP_KILL))));
    // Without that right nothing changes and nothing fails.
    got = in_child([] {
        platform::limit_permitted_privileges({});
        const uint64_t unchanged = caps("CapBnd");
        bool ok = platform::limit_bounding_privileges({});
        return std::to_string(ok) + " " + std::to_string(caps("CapBnd") == unchanged);
    });
    EXPECT_EQ(got, "1 1");
}

}  // namespace
