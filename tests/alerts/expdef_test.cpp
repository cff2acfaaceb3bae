// Exception definitions: the rule grammar, fixed-width fields, binding by path, "*"
// expansion, per-console replacement, abandonment, and the <OK_EXP>/<GETEXP> reply.
#include <climits>
#include <set>

#include "alert_test_util.h"

namespace alert_test {
namespace {

using ExpdefTest = AlertTest;

std::set<std::string> Names() {
    std::set<std::string> out;
    for (const auto& r : Rules()) out.insert(r.name);
    return out;
}

TEST_F(ExpdefTest, FieldsSplitAtEveryColonRunAndAreCutToTheirWidths) {
    std::string wide_name(150, 'N'), wide_descript(270, 'd');
    LoadRules(
        "CPU high:Net->Load->Busy:>:80.5:1:5:busy too long\n"
        "a::Net-->Sent:::>=::1e3::0::2\n"  // ':' runs; path levels split at '-' and '>'
        "b:Net->Sent::80:0:1:desc\n" +     // a missing condition moves every later field up
        wide_name +
        ":Net->Sent:>>>>>>>>>>:1234567890123456:00000000000012:3:" + wide_descript + "\n");
    auto r = Rules();
    ASSERT_EQ(r.size(), 4u);
    EXPECT_STREQ(r[0].exp_name, "CPU high");
    EXPECT_STREQ(r[0].condition, ">");
    EXPECT_DOUBLE_EQ(r[0].limit, 80.5);
    EXPECT_EQ(r[0].duration, 3900);
    EXPECT_STREQ(r[0].descript, "busy too long\n");
    EXPECT_STREQ(r[0].owner, " 10.0.0.1");
    EXPECT_EQ(r[0].active, 1u);
    EXPECT_STREQ(r[0].metric->description, "Net->Load->Busy");
    EXPECT_STREQ(r[1].name, "Net-->Sent");
    EXPECT_STREQ(r[1].metric->description, "Net->Sent");
    EXPECT_STREQ(r[1].condition, ">=");
    EXPECT_EQ(r[1].duration, 120);
    EXPECT_STREQ(r[1].descript, "");
    EXPECT_STREQ(r[2].condition, "80");
    EXPECT_EQ(r[2].hours, 1);
    EXPECT_EQ(std::string(r[3].exp_name), std::string(127, 'N'));
    EXPECT_STREQ(r[3].condition, ">>>>>>>");
    EXPECT_DOUBLE_EQ(r[3].limit, 12345678901.0);  // eleven characters of limit
    EXPECT_EQ(r[3].hours, 0);                     // "00000000000" once cut
    EXPECT_EQ(strlen(r[3].descript), 255u);
}

TEST_F(ExpdefTest, MalformedLinesAreLoggedAndSkipped) {
    std::string huge(5000, 'x');
    LoadRules("short:Net->Sent:>:80\n\nn:" + huge + ":>:1:0:0\n" + huge +
              ":Net->Sent:>:1:0:0\nnan:Net->Sent:>:abc:x:0\n"
              "big:Net->Sent:>:1:99999999999:99999999999\nok:Net->Sent:>:1:0:0\n");
    auto r = Rules();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_STREQ(r[0].exp_name, "nan");
    EXPECT_DOUBLE_EQ(r[0].limit, 0);
    EXPECT_EQ(r[1].duration, INT32_MAX);  // clamped, not overflowed
    EXPECT_STREQ(r[2].exp_name, "ok");
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-W-EXPDEF:    rule line with 4 of 6 fields ignored\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-W-EXPDEF:    rule line with 1 of 6 fields ignored\n"), 1);
    EXPECT_EQ(CountOf(log, "rule line longer than 511 characters ignored"), 2);
    EXPECT_EQ(CountOf(log, "rule 'nan': limit is not a number, taken as 0"), 1);
}

TEST_F(ExpdefTest, ANewRequestReplacesOnlyItsOwnersRules) {
    LoadRules("a1:Net->Sent:>:1:0:0\na2:Net->Sent:>:2:0:0\n", " 10.0.0.1");
    LoadRules("b1:Net->Sent:>:3:0:0\n", " 10.0.0.2");
    LoadRules("a3:Net->Load->Idle:<:4:0:0\n", " 10.0.0.1");
    std::set<std::string> names;
    for (const auto& r : Rules()) names.insert(r.exp_name);
    EXPECT_EQ(names, (std::set<std::string>{"b1", "a3"}));
}

TEST_F(ExpdefTest, StarBindsOneRulePerLeafBelowTheResolvedNode) {
    LoadRules("all:Net->*:>:1:0:0:x\n");
    EXPECT_EQ(Names(), (std::set<std::string>{"Net->Load->Busy", "Net->Load->Idle", "Net->Sent",
                                              "Net->Connections"}));
    for (const auto& r : Rules()) EXPECT_STREQ(r.name, r.metric->description);
    ClearLists();
    LoadRules("some:Net->Load->*:>:1:0:0\n");
    EXPECT_EQ(Names(), (std::set<std::string>{"Net->Load->Busy", "Net->Load->Idle"}));

    std::vector<CounterDef> other = {Row("Free", "free", 4, 0), CounterDef{}};
    double v = 0;
    ASSERT_EQ(AddCounter("Mem", other.data(), &v, Metric_Tree), 1);
    ClearLists();
    LoadRules("every:*:>:1:0:0\n");  // the empty path is the root: every leaf
    EXPECT_EQ(Rules().size(), 5u);
}

TEST_F(ExpdefTest, AnUnresolvablePathOrTheEndTagStopsReading) {
    verbose_flag = 1;
    for (const char* stop :
         {"lost:Net->Nowhere:>:1:0:0\n", "star:Nope->*:>:1:0:0\n", "</EXPDEF>\n"}) {
        ClearLists();
        WithStream(std::string("kept:Net->Sent:>:1:0:0\n") + stop + "unread:Net->Sent:>:1:0:0\n",
                   [&](FILE* f) {
                       rtal_expdef_action(f, " 10.0.0.1");
                       char next[512];
                       ASSERT_NE(fgets(next, sizeof next, f), nullptr);
                       EXPECT_STREQ(next, "unread:Net->Sent:>:1:0:0\n");
                   });
        ASSERT_EQ(Rules().size(), 1u);
        EXPECT_STREQ(Rules()[0].exp_name, "kept");
    }
    std::string log = Log();
    EXPECT_EQ(CountOf(log, " Expdef Action : search for Net->Nowhere failed\n"), 1);
    EXPECT_EQ(CountOf(log, "Finished Processing <EXPDEF>"), 0);  // only end of stream says so
    LoadRules("c:Net->Sent:>:1:0:0\n");
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-EXPDEF:   Finished Processing <EXPDEF>\n"), 1);

    // The kept parser of <EVENT> rules: same grammar, its own end tag, "*" binds nothing.
    ClearLists();
    WithStream("e1:Net->Sent:>:1:0:0\ne2:Net->*:>:1:0:0\n</EVENT>\ne3:Net->Sent:>:1:0:0\n",
               [](FILE* f) { rtal_event_action(f, " 10.0.0.7"); });
    ASSERT_EQ(Rules().size(), 1u);
    EXPECT_STREQ(Rules()[0].exp_name, "e1");
}

TEST_F(ExpdefTest, CheckDefsTellsTheConsoleWhetherRulesAreHeld) {
    int rc = 99;
    EXPECT_EQ(Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 0); }), "<GETEXP>\n");
    EXPECT_EQ(rc, 0);
    LoadRules("a:Net->Sent:>:1:0:0\n");
    EXPECT_EQ(Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 0); }), "");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 1); }), "<OK_EXP>\n");
    EXPECT_EQ(rc, 1);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(rtal_expdef_check_defs(sv[0], 1), -1);  // no SIGPIPE either
    close(sv[0]);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-TAGFAIL: <GETEXP> tag send failed: Broken pipe\n"), 1);
}

}  // namespace
}  // namespace alert_test
