// Exception definitions: the rule grammar, fixed-width fields, binding by path, "*"
// expansion, per-console replacement, abandonment, and the <OK_EXP>/<GETEXP> reply.
#include <climits>
#include <set>

#include "alert_test_util.h"

namespace alert_test {
namespace {

using ExpdefTest = AlertTest;

TEST_F(ExpdefTest, ParsesTheSevenFieldsAndBindsTheNamedNode) {
    LoadRules("CPU high:Net->Load->Busy:>:80.5:1:5:busy too long\n", " 10.1.2.3");
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 1u);
    const ExceptionObject& r = rules[0];
    EXPECT_STREQ(r.exp_name, "CPU high");
    EXPECT_STREQ(r.name, "Net->Load->Busy");
    EXPECT_STREQ(r.condition, ">");
    EXPECT_DOUBLE_EQ(r.limit, 80.5);
    EXPECT_EQ(r.hours, 1);
    EXPECT_EQ(r.minutes, 5);
    EXPECT_EQ(r.duration, 3900);
    EXPECT_STREQ(r.descript, "busy too long\n");  // the line's own newline stays
    EXPECT_STREQ(r.owner, " 10.1.2.3");
    EXPECT_EQ(r.active, 1u);
    EXPECT_EQ(r.intervals, 0u);
    ASSERT_NE(r.metric, nullptr);
    EXPECT_STREQ(r.metric->description, "Net->Load->Busy");
}

TEST_F(ExpdefTest, ColonRunsSeparateLikeOneAndEmptyFieldsShiftTheRest) {
    LoadRules(
        "a::Net->Sent:::>=::1e3::0::2\n"
        "b:Net->Sent::80:0:1:desc\n"   // the condition is missing: every later field moves up
        "c:Net-->Sent:<:1:0:0\n");     // path levels split at every '-' and '>'
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 3u);
    EXPECT_STREQ(rules[0].condition, ">=");
    EXPECT_DOUBLE_EQ(rules[0].limit, 1000);
    EXPECT_EQ(rules[0].duration, 120);
    EXPECT_STREQ(rules[0].descript, "");
    EXPECT_STREQ(rules[1].condition, "80");
    EXPECT_DOUBLE_EQ(rules[1].limit, 0);
    EXPECT_EQ(rules[1].hours, 1);
    EXPECT_EQ(rules[1].minutes, 0);  // "desc"
    EXPECT_STREQ(rules[2].name, "Net-->Sent");
    EXPECT_STREQ(rules[2].metric->description, "Net->Sent");
}

TEST_F(ExpdefTest, MalformedLinesAreLoggedAndSkippedWithoutEndingTheRequest) {
    std::string huge(5000, 'x');
    std::string text = "short:Net->Sent:>:80\n";                // four fields
    text += "\n";                                               // nothing but a newline
    text += "n:" + huge + ":>:1:0:0\n";                         // a 5,000-character path
    text += huge + ":Net->Sent:>:1:0:0\n";                      // a 5,000-character name
    text += "nan:Net->Sent:>:abc:x:0\n";                        // not numbers: taken as 0
    text += "big:Net->Sent:>:1:99999999999:99999999999\n";     // no overflow
    text += "ok:Net->Sent:>:1:0:0\n";
    LoadRules(text);
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 3u);
    EXPECT_STREQ(rules[0].exp_name, "nan");
    EXPECT_DOUBLE_EQ(rules[0].limit, 0);
    EXPECT_EQ(rules[0].hours, 0);
    EXPECT_STREQ(rules[1].exp_name, "big");
    EXPECT_EQ(rules[1].hours, INT32_MAX);
    EXPECT_EQ(rules[1].duration, INT32_MAX);
    EXPECT_STREQ(rules[2].exp_name, "ok");
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-W-EXPDEF:    rule line with 4 of 6 fields ignored\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-W-EXPDEF:    rule line with 1 of 6 fields ignored\n"), 1);
    EXPECT_EQ(CountOf(log, "rule line longer than 511 characters ignored"), 2);
    EXPECT_EQ(CountOf(log, "rule 'nan': limit is not a number, taken as 0"), 1);
    EXPECT_EQ(CountOf(log, "rule 'nan': duration hours is not a number, taken as 0"), 1);
}

TEST_F(ExpdefTest, EveryFieldIsCutToItsWidth) {
    std::string name(150, 'N');
    std::string descript(270, 'd');
    LoadRules(name + ":Net->Sent:>>>>>>>>>>:1234567890123456:00000000000012:3:" + descript + "\n");
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(std::string(rules[0].exp_name), std::string(127, 'N'));
    EXPECT_STREQ(rules[0].condition, ">>>>>>>");
    EXPECT_DOUBLE_EQ(rules[0].limit, 12345678901.0);  // the limit field holds 11 characters
    EXPECT_EQ(rules[0].hours, 0);                      // "00000000000" once cut
    EXPECT_EQ(std::string(rules[0].descript).size(), 255u);
}

TEST_F(ExpdefTest, ANewRequestReplacesOnlyItsOwnersRules) {
    LoadRules("a1:Net->Sent:>:1:0:0\na2:Net->Sent:>:2:0:0\n", " 10.0.0.1");
    LoadRules("b1:Net->Sent:>:3:0:0\n", " 10.0.0.2");
    LoadRules("a3:Net->Load->Idle:<:4:0:0\n", " 10.0.0.1");
    std::set<std::string> names;
    for (const auto& r : Rules()) names.insert(r.exp_name);
    EXPECT_EQ(names, (std::set<std::string>{"b1", "a3"}));

    // A sixteen-character address fills the owner field; it must still match itself.
    LoadRules("w1:Net->Sent:>:3:0:0\nw2:Net->Sent:>:3:0:0\n", " 192.168.100.200");
    LoadRules("w3:Net->Sent:>:3:0:0\n", " 192.168.100.200");
    EXPECT_EQ(RuleCount(), 3);
}

TEST_F(ExpdefTest, StarBindsOneRulePerLeafBelowTheResolvedNode) {
    LoadRules("all:Net->*:>:1:0:0:x\n");
    std::set<std::string> names;
    for (const auto& r : Rules()) {
        names.insert(r.name);
        EXPECT_STREQ(r.name, r.metric->description);
        EXPECT_STREQ(r.exp_name, "all");
        EXPECT_STREQ(r.descript, "x\n");
    }
    EXPECT_EQ(names, (std::set<std::string>{"Net->Load->Busy", "Net->Load->Idle", "Net->Sent",
                                            "Net->Connections"}));
    EXPECT_EQ(RuleCount(), 4);

    ClearLists();
    LoadRules("some:Net->Load->*:>:1:0:0\n");
    EXPECT_EQ(RuleCount(), 2);

    // A lone "*" resolves the empty path, the root: every leaf of the tree.
    std::vector<CounterDef> other = {Row("Free", "free", 4, 0), CounterDef{}};
    double v = 0;
    ASSERT_EQ(AddCounter("Mem", other.data(), &v, Metric_Tree), 1);
    ClearLists();
    LoadRules("every:*:>:1:0:0\n");
    EXPECT_EQ(RuleCount(), 5);
}

TEST_F(ExpdefTest, AnUnresolvablePathAbandonsTheRestOfTheRequest) {
    std::string text =
        "kept:Net->Sent:>:1:0:0\n"
        "lost:Net->Nowhere:>:1:0:0\n"
        "unread:Net->Sent:>:1:0:0\n";
    WithStream(text, [&](FILE* f) {
        rtal_expdef_action(f, " 10.0.0.1");
        char next[512];
        ASSERT_NE(fgets(next, sizeof next, f), nullptr);
        EXPECT_STREQ(next, "unread:Net->Sent:>:1:0:0\n");
    });
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_STREQ(rules[0].exp_name, "kept");
    EXPECT_EQ(CountOf(Log(), " Expdef Action : search for Net->Nowhere failed\n"), 1);

    ClearLists();
    LoadRules("star:Nope->*:>:1:0:0\nafter:Net->Sent:>:1:0:0\n");
    EXPECT_EQ(RuleCount(), 0);
}

TEST_F(ExpdefTest, TheEndTagStopsReadingAndOnlyEndOfStreamLogsTheFinish) {
    verbose_flag = 1;
    WithStream("a:Net->Sent:>:1:0:0\n</EXPDEF>\nb:Net->Sent:>:1:0:0\n", [&](FILE* f) {
        rtal_expdef_action(f, " 10.0.0.1");
        char next[512];
        ASSERT_NE(fgets(next, sizeof next, f), nullptr);
        EXPECT_STREQ(next, "b:Net->Sent:>:1:0:0\n");
    });
    EXPECT_EQ(RuleCount(), 1);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "Finished Processing <EXPDEF>"), 0);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-EXPDEF:    create expdef list...\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-EXPDEF:    add  'Net->Sent' to expdef list\n"), 1);
    EXPECT_EQ(CountOf(log, " Expdef Action: search for  Net->Sent returned  Net->Sent \n"), 1);

    LoadRules("c:Net->Sent:>:1:0:0\n");
    log = Log();
    EXPECT_EQ(CountOf(log, "remove all entries from existing expdef list\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-EXPDEF:   Finished Processing <EXPDEF>\n"), 1);
}

TEST_F(ExpdefTest, EventRuleParserUsesTheSameGrammarButBindsNoStarPaths) {
    WithStream("e1:Net->Sent:>:1:0:0\ne2:Net->*:>:1:0:0\n</EVENT>\ne3:Net->Sent:>:1:0:0\n",
               [](FILE* f) { rtal_event_action(f, " 10.0.0.7"); });
    auto rules = Rules();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_STREQ(rules[0].exp_name, "e1");
    EXPECT_STREQ(rules[0].owner, " 10.0.0.7");
}

TEST_F(ExpdefTest, CheckDefsTellsTheConsoleWhetherRulesAreHeld) {
    int rc = 99;
    std::string got = Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 0); });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(got, "<GETEXP>\n");

    LoadRules("a:Net->Sent:>:1:0:0\n");
    got = Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 0); });
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(got, "");
    got = Exchange([&](int fd) { rc = rtal_expdef_check_defs(fd, 1); });
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(got, "<OK_EXP>\n");

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(rtal_expdef_check_defs(sv[0], 1), -1);
    close(sv[0]);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAG:     send <OK_EXP>\n"), 2);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAGFAIL: <GETEXP> tag send failed: Broken pipe\n"), 1);
}

}  // namespace
}  // namespace alert_test
