// Console replies (<GETALERTS>, <DESC>, events) also to consoles that stop reading or go
// away, the event store, the list dumps and the event definition file.
#include <regex>

#include "alert_test_util.h"

namespace alert_test {
namespace {

using ReportTest = AlertTest;

TEST_F(ReportTest, EachConsoleGetsItsOwnAlertsOnceAndDumpsAreLoggedOnRequest) {
    setenv("TZ", "UTC", 1);  // the reply carries local time
    tzset();
    LoadRules("busy:Net->Load->Busy:>:80:0:0:too busy\n", " 10.0.0.1");
    LoadRules("sent:Net->Sent:>=:0:0:0\n", " 192.168.100.200");  // fills the owner field
    record_.busy = 90;
    record_.sent = 7;
    rtal_checkexp();  // at 12-Jan-1970 13:46:40
    log_expdef_list(0);
    log_alert_list(0);
    EXPECT_EQ(CountOf(Log(), "LIST ----"), 0);
    log_expdef_list(1);
    log_alert_list(1);
    std::regex stamp("[^\n ]+ [0-9:]{8} [0-9]{2}-[A-Za-z]{3}-[0-9]{4} : ");
    EXPECT_NE(std::regex_replace(Log(), stamp, "").find(Fixture("list_dumps.txt")),
              std::string::npos);

    std::string replies;  // the second request finds nothing left for its console
    for (const char* owner : {" 10.0.0.1", " 10.0.0.1", " 192.168.100.200"})
        replies += Exchange(GetAlerts(owner));
    EXPECT_EQ(replies, Fixture("getalerts_replies.txt"));
    EXPECT_TRUE(Alerts().empty());
}

TEST_F(ReportTest, AConsoleThatStopsReadingLosesNoAlert) {
    std::string rules;
    for (int i = 100; i < 400; ++i)
        rules += "r" + std::to_string(i) + ":Net->Sent:>=:0:0:0:" + std::string(200, 'p') + "\n";
    LoadRules(rules);
    rtal_checkexp();
    int rc = 0;
    std::string got = Exchange(GetAlerts(" 10.0.0.1"), &rc, kStuck);
    EXPECT_EQ(rc, -1);
    const int complete = CountOf(got, "pp\n\n");  // descript newline plus the line's own
    EXPECT_LT(complete, 300);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-WRITE: write socket failed: <ALERT>: "), 1);
    // The alert that failed and every later one stay queued, in order.
    auto left = Alerts();
    ASSERT_EQ(left.size(), size_t(300 - complete));
    EXPECT_EQ(left.front().exp_name, "r" + std::to_string(100 + complete));
}

TEST_F(ReportTest, DescListsEveryLeafAndStartsAlerting) {
    start_rtdc = 1;  // data already flowing: only the alert switch changes
    // A level's leaves first, then the deeper levels, the last-registered sibling's first.
    EXPECT_EQ(Exchange(Desc), Fixture("desc_reply.txt"));
    EXPECT_EQ(start_rtal.load(), 1);
    // A console that stops reading mid-reply: one log line, not one per remaining leaf.
    for (int i = 0; i < 400; ++i)
        AddProcessCounter(std::to_string(i).c_str(), ptable_.data(), nullptr, Metric_Tree, i);
    Exchange(Desc, nullptr, kStuck);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-W-SNDFAIL: sendMetricHeader: write socket failed: "), 1);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-TAG:     </HEADER>, Error sending tag: "), 1);
}

TEST_F(ReportTest, EventLinesComeBackVerbatimOnceAndLongLinesSpreadOverSlots) {
    const std::string longline(2000, 'L'), open = "<EVENT_ALERTS_GENERATED>\n",
                                           end = "</EVENT_ALERTS_GENERATED>\n";
    Post("disk full\nno newline at the end");
    Post(longline + "\nafter\n");
    EXPECT_EQ(no_events, 7);  // 2, then 511 + 511 + 511 + 467 with its newline, and "after"
    int rc = 0;
    EXPECT_EQ(Exchange(GetEvents, &rc),
              open + "disk full\nno newline at the end" + longline + "\nafter\n" + end);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(Exchange(GetEvents), open + end);
}

TEST_F(ReportTest, AFullEventStoreLogsOnceAndAFailedWriteKeepsTheEvents) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += std::string(490, 'e') + " " + std::to_string(i) + "\n";
    Post(text);
    Post("one more\n");  // a full store reads nothing
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENTDEF   error too many events \n"), 1);
    for (Console console : {kStuck, kGone}) {
        int rc = 0;
        Exchange(GetEvents, &rc, console);
        EXPECT_EQ(rc, -1);                    // and no SIGPIPE
        ASSERT_TRUE(event_mutex.try_lock());  // later <EVENT> requests are not locked out
        event_mutex.unlock();
        EXPECT_EQ(no_events, kMaxEvents);
    }
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENT: failed to send event "), 1);
    std::string got = Exchange(GetEvents);
    EXPECT_EQ(CountOf(got, "e "), kMaxEvents);
    EXPECT_NE(got.find("e 511\n</EVENT_ALERTS_GENERATED>\n"), std::string::npos);
}

TEST_F(ReportTest, EventDefinitionIsWrittenAnewToTheSettingsDirectory) {
    auto def = [&](const std::string& rest, const char* tag_line) {
        WithStream(rest,
                   [&](FILE* f) { EXPECT_EQ(handle_event_def_request(f, -1, tag_line, ""), 1); });
        return ReadFile(dir_ + "/eventdef_testhost.dat");
    };
    EXPECT_EQ(def("line one\nline two\n", "<EVENT_DEF> header\n"),
              "<EVENT_DEF> header\nline one\nline two\n");
    EXPECT_EQ(def("short\n", "<EVENT_DEF>\n"), "<EVENT_DEF>\nshort\n");
    EXPECT_LE(def(std::string(2 << 20, 'f'), "<EVENT_DEF>\n").size(), 1u << 20);  // not the disk
}

}  // namespace
}  // namespace alert_test
