// Alert reporting: the <GETALERTS> reply per console, delivery once, a console that stops
// reading or goes away, the <DESC> leaf listing and the two log dumps.
#include "alert_test_util.h"

namespace alert_test {
namespace {

class ReportTest : public AlertTest {
  protected:
    void SetUp() override {
        AlertTest::SetUp();
        const char* tz = getenv("TZ");
        saved_tz_ = tz ? tz : "";
        had_tz_ = tz != nullptr;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        had_tz_ ? setenv("TZ", saved_tz_.c_str(), 1) : unsetenv("TZ");
        tzset();
        start_rtal = 0;
        start_rtdc = 0;
        AlertTest::TearDown();
    }
    static std::string GetAlerts(const char* owner, int* rc = nullptr) {
        return Exchange([&](int fd) {
            int result = rtal_getalert_action(fd, owner);
            if (rc) *rc = result;
        });
    }
    std::string saved_tz_;
    bool had_tz_ = false;
};

TEST_F(ReportTest, EachConsoleGetsItsOwnAlertsExactlyOnce) {
    LoadRules("busy:Net->Load->Busy:>:80:0:0:too busy\n", " 10.0.0.1");
    LoadRules("sent:Net->Sent:>=:0:0:0\n", " 192.168.100.200");  // fills the owner field
    record_.busy = 90;
    record_.sent = 7;
    rtal_checkexp();  // at 12-Jan-1970 13:46:40 UTC
    ASSERT_EQ(Alerts().size(), 2u);
    int rc = 0;
    EXPECT_EQ(GetAlerts(" 10.0.0.1", &rc),
              "<ALERTS>\nbusy::Net->Load->Busy::>::80.000000::90.000000::90.000000::90.000000::"
              "12-Jan-1970 13:46::too busy\n\n</ALERTS>\n");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(GetAlerts(" 10.0.0.1"), "<ALERTS>\n</ALERTS>\n");
    EXPECT_EQ(Alerts().size(), 1u);
    EXPECT_EQ(GetAlerts(" 192.168.100.200"),
              "<ALERTS>\nsent::Net->Sent::>=::0.000000::7.000000::7.000000::7.000000::"
              "12-Jan-1970 13:46::\n</ALERTS>\n");
    EXPECT_TRUE(Alerts().empty());
}

TEST_F(ReportTest, AConsoleThatStopsReadingOrLeavesLosesNoAlert) {
    std::string rules;
    for (int i = 0; i < 300; ++i) {
        char line[64];
        snprintf(line, sizeof line, "r%03d:Net->Sent:>=:0:0:0:", i);
        rules += line + std::string(200, 'p') + "\n";
    }
    LoadRules(rules);
    rtal_checkexp();
    ASSERT_EQ(Alerts().size(), 300u);

    int sv[2];
    StuckConsole(sv);
    EXPECT_EQ(rtal_getalert_action(sv[0], " 10.0.0.1"), -1);
    close(sv[0]);
    std::string got;
    char buf[4096];
    for (ssize_t n; (n = read(sv[1], buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    close(sv[1]);
    ASSERT_EQ(got.rfind("<ALERTS>\n", 0), 0u);
    const int complete = CountOf(got, "pp\n\n");  // descript newline plus the line's own
    EXPECT_LT(complete, 300);
    // That alert and every later one stay queued, in order.
    auto left = Alerts();
    ASSERT_EQ(left.size(), static_cast<size_t>(300 - complete));
    char first_left[8];
    snprintf(first_left, sizeof first_left, "r%03d", complete);
    EXPECT_STREQ(left.front().exp_name, first_left);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-WRITE: write socket failed: <ALERT>: "), 1);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);  // already gone before the reply starts
    EXPECT_EQ(rtal_getalert_action(sv[0], " 10.0.0.1"), -1);
    close(sv[0]);
    EXPECT_EQ(CountOf(GetAlerts(" 10.0.0.1"), "pp\n\n"), 300 - complete);
}

TEST_F(ReportTest, DescListsEveryLeafAndStartsAlerting) {
    start_rtdc = 1;  // data already flowing: only the alert switch changes
    EXPECT_EQ(Exchange([](int fd) { rtal_desc_action(fd); }),
              "<HEADER>\n"
              "Net->Connections::Open connections::0,#,1\n"
              "Net->Sent::Segments sent::0,/Sec,1\n"
              "Net->Load->Idle::Idle share::0,%,1\n"
              "Net->Load->Busy::Busy share::0,%,1\n"
              "</HEADER>\n");
    EXPECT_EQ(start_rtal.load(), 1);

    // A console that leaves mid-reply: one log line, not one per remaining leaf.
    std::vector<CounterDef> big;
    for (int i = 0; i < 400; ++i)
        big.push_back(Row(("Many->Leaf " + std::to_string(i)).c_str(), "one of many", 4, 0));
    big.push_back(CounterDef{});
    double v = 0;
    ASSERT_EQ(AddCounter("Big", big.data(), &v, Metric_Tree), 1);
    int sv[2];
    StuckConsole(sv);
    std::thread console([&] {
        char buf[100];
        struct pollfd p {
            sv[1], POLLIN, 0
        };
        if (poll(&p, 1, 5000) > 0) (void)!read(sv[1], buf, sizeof buf);
        close(sv[1]);
    });
    rtal_desc_action(sv[0]);
    console.join();
    close(sv[0]);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-W-SNDFAIL: sendMetricHeader: write socket failed: "), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAG:     </HEADER>, Error sending tag: "), 1);
}

TEST_F(ReportTest, ListDumpsAreWrittenOnlyWhenAskedFor) {
    LoadRules("a:Net->Sent:>=:1:0:0:why\n", " 10.0.0.1");
    record_.sent = 4;
    rtal_checkexp();
    log_expdef_list(0);
    log_alert_list(0);
    EXPECT_EQ(CountOf(Log(), "LIST ----"), 0);
    log_expdef_list(1);
    log_alert_list(1);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAGMON:  ---- EXECEPTION DEFINITION LIST ----\n"), 1);
    EXPECT_EQ(CountOf(log,
                      "VORNRTA-I-EXPDEF:   a, Net->Sent,\n\t\t\t\t>=, limit: 1.000000, "
                      "duration: 0\n"),
              1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-ALERT:   :  10.0.0.1, a,\n\t\t\t\tNet->Sent, why\n"), 1);
    EXPECT_EQ(CountOf(log,
                      "VORNRTA-I-ALERT1:  : a, >=,\n\t\t\t\tlimit: 1.000000, ave: 4.000000, "
                      "min: 4.000000 max: 4.000000\n"),
              1);
    EXPECT_EQ(CountOf(log, "---- END ALERTS LIST ----\n"), 1);
}

}  // namespace
}  // namespace alert_test
