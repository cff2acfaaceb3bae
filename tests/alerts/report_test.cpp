// Alert reporting: the <GETALERTS> reply per console, delivery once, a console that stops
// reading or goes away, the <DESC> leaf listing and the two log dumps.
#include "alert_test_util.h"

namespace alert_test {
namespace {

class ReportTest : public AlertTest {
protected:
    void SetUp() override {
        AlertTest::SetUp();
        saved_tz_ = getenv("TZ") ? getenv("TZ") : "";
        had_tz_ = getenv("TZ") != nullptr;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        if (had_tz_)
            setenv("TZ", saved_tz_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
        start_rtal = 0;
        start_rtdc = 0;
        AlertTest::TearDown();
    }
    std::string GetAlerts(const char* owner, int* rc = nullptr) {
        int result = 0;
        std::string got = Exchange([&](int fd) { result = rtal_getalert_action(fd, owner); });
        if (rc) *rc = result;
        return got;
    }
    std::string saved_tz_;
    bool had_tz_ = false;
};

TEST_F(ReportTest, EachConsoleGetsItsOwnAlertsExactlyOnce) {
    LoadRules("busy:Net->Load->Busy:>:80:0:0:too busy\n", " 10.0.0.1");
    LoadRules("sent:Net->Sent:>=:0:0:0\n", " 10.0.0.2");
    record_.busy = 90;
    record_.sent = 7;
    fake_now = 1000000;  // 12-Jan-1970 13:46:40 UTC
    rtal_checkexp();
    ASSERT_EQ(AlertCount(), 2);

    int rc = 0;
    EXPECT_EQ(GetAlerts(" 10.0.0.1", &rc),
              "<ALERTS>\n"
              "busy::Net->Load->Busy::>::80.000000::90.000000::90.000000::90.000000::"
              "12-Jan-1970 13:46::too busy\n\n"
              "</ALERTS>\n");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(GetAlerts(" 10.0.0.1", &rc), "<ALERTS>\n</ALERTS>\n");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(AlertCount(), 1);  // the other console's alert waits for it
    EXPECT_EQ(GetAlerts(" 10.0.0.2"),
              "<ALERTS>\nsent::Net->Sent::>=::0.000000::7.000000::7.000000::7.000000::"
              "12-Jan-1970 13:46::\n</ALERTS>\n");
    EXPECT_EQ(AlertCount(), 0);
    EXPECT_EQ(CountOf(Log(), "VORN-I-ALRTSENT: Alert SENT\n"), 2);
}

TEST_F(ReportTest, AnAddressThatFillsTheOwnerFieldStillFindsItsAlerts) {
    LoadRules("sent:Net->Sent:>=:0:0:0\n", " 192.168.100.200");
    rtal_checkexp();
    ASSERT_EQ(AlertCount(), 1);
    EXPECT_EQ(CountOf(GetAlerts(" 192.168.100.200"), "sent::Net->Sent::"), 1);
    EXPECT_EQ(AlertCount(), 0);
}

TEST_F(ReportTest, AConsoleThatStopsReadingKeepsTheUnsentAlertsQueuedInOrder) {
    std::string rules;
    const std::string pad(200, 'p');
    for (int i = 0; i < 300; ++i) {
        char line[400];
        snprintf(line, sizeof line, "r%03d:Net->Sent:>=:0:0:0:%s\n", i, pad.c_str());
        rules += line;
    }
    LoadRules(rules);
    rtal_checkexp();
    ASSERT_EQ(AlertCount(), 300);

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ShrinkAndTimeOut(sv[0]);
    EXPECT_EQ(rtal_getalert_action(sv[0], " 10.0.0.1"), -1);
    close(sv[0]);
    std::string got = DrainNonBlocking(sv[1]);
    close(sv[1]);

    ASSERT_EQ(got.rfind("<ALERTS>\n", 0), 0u);
    // Every alert line ends in the descript's newline and the line's own.
    int complete = CountOf(got, "pp\n\n");
    EXPECT_LT(complete, 300);
    EXPECT_EQ(CountOf(got, "</ALERTS>"), 0);
    auto left = Alerts();
    ASSERT_EQ(left.size(), static_cast<size_t>(300 - complete));
    char first_left[8];
    snprintf(first_left, sizeof first_left, "r%03d", complete);
    EXPECT_STREQ(left.front().exp_name, first_left);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-WRITE: write socket failed: <ALERT>: "), 1);
    // The list is free again for the evaluator.
    ASSERT_TRUE(alert_mutex.try_lock());
    alert_mutex.unlock();

    // A console already gone: nothing is lost, the next one gets everything left.
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(rtal_getalert_action(sv[0], " 10.0.0.1"), -1);
    close(sv[0]);
    EXPECT_EQ(AlertCount(), 300 - complete);
    EXPECT_EQ(CountOf(GetAlerts(" 10.0.0.1"), "pp\n\n"), 300 - complete);
    EXPECT_EQ(AlertCount(), 0);
}

TEST_F(ReportTest, DescListsEveryLeafAndStartsAlerting) {
    start_rtal = 0;
    start_rtdc = 1;  // data already flowing: only the alert switch changes
    std::string got = Exchange([](int fd) { rtal_desc_action(fd); });
    EXPECT_EQ(start_rtal.load(), 1);
    EXPECT_EQ(got,
              "<HEADER>\n"
              "Net->Connections::Open connections::0,#,1\n"
              "Net->Sent::Segments sent::0,/Sec,1\n"
              "Net->Load->Idle::Idle share::0,%,1\n"
              "Net->Load->Busy::Busy share::0,%,1\n"
              "</HEADER>\n");
}

TEST_F(ReportTest, DescToAConsoleThatLeavesMidReplyEndsWithOneLogLine) {
    std::vector<CounterDef> big;
    for (int i = 0; i < 400; ++i) {
        char name[64];
        snprintf(name, sizeof name, "Many->Leaf %03d", i);
        big.push_back(Row(name, "one of many", 4, 0));
    }
    big.push_back(CounterDef{});
    double v = 0;
    ASSERT_EQ(AddCounter("Big", big.data(), &v, Metric_Tree), 1);
    start_rtal = 1;

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ShrinkAndTimeOut(sv[0]);
    std::thread console([&] {
        char buf[100];
        struct pollfd p {sv[1], POLLIN, 0};
        if (poll(&p, 1, 5000) > 0) (void)!read(sv[1], buf, sizeof buf);
        close(sv[1]);
    });
    rtal_desc_action(sv[0]);
    console.join();
    close(sv[0]);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-W-SNDFAIL: sendMetricHeader: write socket failed: "), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAG:     </HEADER>, Error sending tag: "), 1);
    // The tree lock was given back.
    ASSERT_TRUE(tree_mutex.try_lock());
    tree_mutex.unlock();
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
    EXPECT_EQ(CountOf(log, "VORNRTA-I-EXPDEF:   a, Net->Sent,\n\t\t\t\t>=, limit: 1.000000, "
                           "duration: 0\n"),
              1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAGMON:  ---- END EXECEPTION DEFINITION LIST ----\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-ALERT:   :  10.0.0.1, a,\n\t\t\t\tNet->Sent, why\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-ALERT1:  : a, >=,\n\t\t\t\tlimit: 1.000000, ave: 4.000000, "
                           "min: 4.000000 max: 4.000000\n"),
              1);
    EXPECT_EQ(CountOf(log, "VORNRTA-I-TAGMON:  ---- END ALERTS LIST ----\n"), 1);
}

}  // namespace
}  // namespace alert_test
