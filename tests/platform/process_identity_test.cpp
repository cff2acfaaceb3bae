// Process identities read from a captured tree and from scratch trees.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>
#include <tuple>

#include "platform/process_identity.h"
#include "support/fixture_roots.h"

namespace {

using platform::IdentityRead;
using platform::ProcessIdentity;

using ProcessIdentities = vorntest::RootsTest;

// Everything a lookup compares, so that a mismatch prints whole.
auto fields(const ProcessIdentity& id) {
    return std::make_tuple(id.pid, std::string(id.name), id.ended, id.zone.ns, id.zone.ns_depth);
}

void write_entry(const vorntest::TempTree& t, int pid, const std::string& stat) {
    t.write("proc/" + std::to_string(pid) + "/stat", stat);
}

TEST_F(ProcessIdentities, ReadsTheRecordedPidNameAndNamespace) {
    vorntest::use_fixture("procs");
    const std::string host_ns = "pid:[4026531836]";
    const std::tuple<int, IdentityRead::Step, decltype(fields({}))> rows[] = {
        {100, IdentityRead::ok, {100, "vornrta", false, host_ns, 0}},
        {400, IdentityRead::ok, {400, "vornrta", false, "pid:[4026532999]", 0}},
        // The name runs to the last ')'.
        {300, IdentityRead::ok, {300, "my (odd) name", false, "", 0}},
        // The pid the process records, not the entry's.
        {600, IdentityRead::ok, {601, "mover", false, "", 0}},
        // Unparsable text reads but can never match.
        {500, IdentityRead::ok, {0, "", false, "", 0}},
        {700, IdentityRead::read_failed, {0, "", false, "", 0}},
        {999, IdentityRead::open_failed, {0, "", false, "", 0}},
    };
    for (const auto& [pid, step, want] : rows) {
        ProcessIdentity id;
        IdentityRead read = platform::read_process_identity(pid, &id);
        EXPECT_EQ(read.step, step) << pid;
        EXPECT_EQ(fields(id), want) << pid;
        EXPECT_EQ(id.entry.substr(id.entry.rfind('/') + 1), std::to_string(pid));
    }
    EXPECT_EQ(platform::own_pid_zone().ns, host_ns);
}

TEST_F(ProcessIdentities, EndedStatesAndNamespaceDepth) {
    vorntest::TempTree t;
    platform::set_roots(t.roots());
    const std::pair<char, bool> states[] = {{'S', false}, {'R', false}, {'D', false},
                                            {'Z', true},  {'X', true},  {'x', true}};
    for (const auto& [state, ended] : states) {
        write_entry(t, 10, std::string("10 (a) ") + state + " 1 1 1 0 -1 0\n");
        ProcessIdentity id;
        ASSERT_EQ(platform::read_process_identity(10, &id).step, IdentityRead::ok);
        EXPECT_EQ(id.ended, ended) << state;
    }
    // Without a namespace link, the NSpid line of status tells how deep the process sits.
    t.write("proc/10/status", "Name:\ta\nNSpid:\t10\t3\t1\nUid:\t0\n");
    t.write("proc/self/status", "Name:\tme\nNSpid:\t7\n");
    ProcessIdentity id;
    platform::read_process_identity(10, &id);
    EXPECT_EQ(id.zone.ns_depth, 3);
    EXPECT_EQ(platform::own_pid_zone().ns_depth, 1);
    EXPECT_EQ(platform::own_pid_zone().ns, "");
}

TEST_F(ProcessIdentities, WalkMeetsEachProcessOnceAndStopsWhenAsked) {
    vorntest::use_fixture("procs");
    std::map<std::string, int> seen;  // entry name -> recorded pid
    ASSERT_TRUE(platform::walk_process_identities([&](const ProcessIdentity& id, const IdentityRead&) {
        seen[id.entry.substr(id.entry.rfind('/') + 1)] = id.pid;
        return false;
    }));
    // "self" and "net" are not processes.
    const std::map<std::string, int> want = {{"1", 1},     {"100", 100}, {"200", 200}, {"300", 300},
                                             {"400", 400}, {"500", 0},   {"600", 601}, {"700", 0}};
    EXPECT_EQ(seen, want);

    int visits = 0;
    platform::walk_process_identities([&](const ProcessIdentity&, const IdentityRead&) { return ++visits == 2; });
    EXPECT_EQ(visits, 2);

    vorntest::TempTree t;
    platform::set_roots(t.roots());  // no proc folder at all
    errno = 0;
    EXPECT_FALSE(platform::walk_process_identities([](const ProcessIdentity&, const IdentityRead&) { return false; }));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProcessIdentities, RefusalIsToldFromAbsence) {
    EXPECT_TRUE((IdentityRead{IdentityRead::open_failed, EACCES}.denied()));
    EXPECT_TRUE((IdentityRead{IdentityRead::read_failed, EPERM}.denied()));
    EXPECT_FALSE((IdentityRead{IdentityRead::open_failed, ENOENT}.denied()));
    EXPECT_FALSE((IdentityRead{IdentityRead::read_failed, 0}.denied()));
}

TEST_F(ProcessIdentities, WorkingDirectory) {
    vorntest::TempTree t;
    platform::set_roots(t.roots());
    write_entry(t, 10, "10 (a) S 1\n");
    write_entry(t, 20, "20 (b) S 1\n");
    ASSERT_EQ(symlink("/srv/agent", (t.root() + "/proc/10/cwd").c_str()), 0);
    ProcessIdentity a, b;
    platform::read_process_identity(10, &a);
    platform::read_process_identity(20, &b);
    std::string dir;
    EXPECT_TRUE(platform::read_working_dir(a, &dir));
    EXPECT_EQ(dir, "/srv/agent");
    errno = 0;
    EXPECT_FALSE(platform::read_working_dir(b, &dir));
    EXPECT_EQ(errno, ENOENT);
}

}  // namespace
