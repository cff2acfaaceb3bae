// What one console can hold and see: consoles told apart by their whole address, the caps on
// rules and queued alerts, and rule or event-definition lines holding NUL bytes.
#include "alert_test_util.h"
#include "alerts/rtal_process.h"

namespace alert_test {
namespace {

using ConsoleTest = AlertTest;

// Both addresses fill the 16-byte owner field alike; only the whole address tells them apart.
TEST_F(ConsoleTest, ConsolesWhoseAddressesShareTheirFirst15CharactersAreApart) {
    const char* a = " 127.100.100.101";
    const char* b = " 127.100.100.102";
    LoadRules("ra:Net->Load->Busy:>:80:0:0\n", a);
    LoadRules("rb:Net->Load->Busy:>:80:0:0\n", b);
    ASSERT_EQ(Rules().size(), 2u) << "b's request replaced a's rules";
    EXPECT_STREQ(Rules()[0].owner, " 127.100.100.10") << "the printed field keeps its width";
    record_.busy = 90;
    rtal_checkexp();
    ASSERT_EQ(Alerts().size(), 2u);
    EXPECT_NE(Exchange(GetAlerts(b)).find("\nrb::"), std::string::npos);
    EXPECT_EQ(Exchange(GetAlerts(b)), "<ALERTS>\n</ALERTS>\n");
    std::string got = Exchange(GetAlerts(a));
    EXPECT_NE(got.find("\nra::"), std::string::npos) << got;
    EXPECT_EQ(got.find("\nrb::"), std::string::npos) << got;
}

// Ten thousand rule objects per console; one log line names the console, the rest of its
// request goes unread, and other consoles are not affected.
TEST_F(ConsoleTest, RuleObjectsPerConsoleAreCapped) {
    std::string star;
    for (int i = 0; i < 2100; ++i) star += "s" + std::to_string(i) + ":Net->*:>:1:0:0\n";  // 5 each
    LoadRules(star + "after:Net->Sent:>:1:0:0\n", " 10.0.0.7");
    EXPECT_EQ(Rules().size(), kMaxRulesPerConsole);
    std::string named;
    for (int i = 0; i < 10005; ++i) named += "n:Net->Sent:>:1:0:0\n";
    LoadRules(named, " 10.0.0.8");
    EXPECT_EQ(Rules().size(), 2 * kMaxRulesPerConsole);
    for (const char* console : {" 10.0.0.7", " 10.0.0.8"})
        EXPECT_EQ(
            CountOf(Log(), Fmt("VORNRTA-W-EXPDEF:    console%s holds 10000 rules, as many as one"
                               " console may; the rest are refused\n",
                               console)),
            1);
    // A new request from the console replaces its rules and starts its count afresh.
    LoadRules("again:Net->Sent:>:1:0:0\n", " 10.0.0.7");
    EXPECT_EQ(Rules().size(), kMaxRulesPerConsole + 1);
}

// A rule that leaves with its process gives its place back: the console's next rules, here
// an event definition, which adds to what it holds, are taken.
TEST_F(ConsoleTest, RulesThatLeaveWithTheirProcessGiveTheirPlaceBack) {
    double level = 1;
    ASSERT_EQ(AddProcessCounter("worker", ptable_.data(), &level, Metric_Tree, 7), 1);
    std::string rules;
    for (size_t i = 1; i < kMaxRulesPerConsole; ++i) rules += "n:Net->Sent:>:1:0:0\n";
    LoadRules(rules + "p:Process->worker->v:>:1:0:0\n", " 10.0.0.7");
    ASSERT_EQ(Rules().size(), kMaxRulesPerConsole);
    RemoveProcessFromTree("worker", 7, 0);
    ASSERT_EQ(Rules().size(), kMaxRulesPerConsole - 1);
    WithStream("e:Net->Sent:>:1:0:0\n</EVENT>\n",
               [](FILE* in) { rtal_event_action(in, " 10.0.0.7"); });
    EXPECT_EQ(Rules().size(), kMaxRulesPerConsole);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-W-EXPDEF:"), 0) << Log();
}

// A console that never collects: its queue stops at the cap with one log line; the rules go
// on (a refused raise still leads to a clearing alert), and after it collects it queues again.
TEST_F(ConsoleTest, AlertsQueuedForAConsoleAreCapped) {
    std::string rules;
    for (int i = 0; i < 6000; ++i) rules += "r:Net->Load->Busy:>:50:0:0\n";
    LoadRules(rules, " 10.0.0.9");
    LoadRules("other:Net->Load->Busy:>:50:0:0\n", " 10.0.0.10");
    for (int pass = 0; pass < 4; ++pass) PassAt(1000000 + pass * 30, pass % 2 ? 10 : 90);
    EXPECT_EQ(Alerts().size(), kMaxAlertsPerConsole + 4) << "the other console's four are kept";
    const std::string refused =
        "VORNRTA-W-ALERTS:    console 10.0.0.9 has 10000 alerts waiting, as many as one console"
        " may; later alerts are refused until it collects them\n";
    EXPECT_EQ(CountOf(Log(), refused), 1);
    EXPECT_EQ(CountOf(Exchange(GetAlerts(" 10.0.0.9")), "\nr::"), int(kMaxAlertsPerConsole));
    PassAt(1000120, 90);
    EXPECT_EQ(Alerts().size(), 6000u + 4 + 1);
}

// A NUL ends what the parser sees of a line, not the line: the end tag on the next line ends
// the request, and a rule cut at a NUL keeps its line's newline in its description.
TEST_F(ConsoleTest, RuleLinesWithNulBytesAreLinesOfTheirOwn) {
    const std::string text = std::string("R\0X:Net->Sent:>:1:0:0\n", 22) +
                             std::string("d:Net->Sent:>:1:0:0:desc\0tail\n", 30) +
                             "</EXPDEF>\nunread\n";
    WithStream(text, [&](FILE* f) {
        rtal_expdef_action(f, " 10.0.0.1");
        EXPECT_EQ(ftell(f), long(text.find("unread")));
    });
    ASSERT_EQ(Rules().size(), 1u);
    EXPECT_STREQ(Rules()[0].exp_name, "d");
    EXPECT_STREQ(Rules()[0].descript, "desc\n");
    EXPECT_EQ(CountOf(Log(), "VORNRTA-W-EXPDEF:    rule line with 1 of 6 fields ignored\n"), 1);
}

// The stored definition keeps every byte of its lines, NUL bytes included.
TEST_F(ConsoleTest, EventDefinitionKeepsNulBytes) {
    const std::string rest("a\0b\nc\n", 6);
    WithStream(
        rest, [&](FILE* f) { EXPECT_EQ(handle_event_def_request(f, -1, "<EVENT_DEF>\n", ""), 1); });
    EXPECT_EQ(ReadFile(dir_ + "/eventdef_testhost.dat"), "<EVENT_DEF>\n" + rest);
}

}  // namespace
}  // namespace alert_test
