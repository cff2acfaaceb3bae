// Alert evaluation: the rule state machine over a hand-driven clock, conditions, value types,
// instance sums, rules whose metric leaves the tree, and all of alerting used concurrently.
#include <chrono>
#include <cmath>

#include "alert_test_util.h"
#include "support/second_boundary.h"

namespace alert_test {
namespace {

using namespace std::chrono_literals;

using CheckExpTest = AlertTest;

TEST_F(CheckExpTest, RaisesAfterTheDurationStaysQuietClearsAndRearms) {
    // A run broken before its minute raises nothing; 80 is not above 80 and clears; a
    // re-armed rule needs a new minute. Then duration 0 raises on the first satisfied pass,
    // and a minimum of exactly 0 counts as "none yet", so the clearing alert reports 5.
    LoadRules("hot:Net->Load->Busy:>:80:0:1:too busy\n");
    const double busy[] = {90, 70, 90, 95, 85, 99, 80, 90, 90, 90, 0, 5, -1};
    for (int i = 0; i < 13; ++i) {
        if (i == 10) LoadRules("now:Net->Load->Busy:>=:0:0:0\n");
        // Tracing is read from the environment on every pass.
        i == 10 ? setenv("RTA_VERBOSE_ALERTS", "1", 1) : unsetenv("RTA_VERBOSE_ALERTS");
        PassAt(30 * i, busy[i]);
    }
    auto alerts = Alerts();
    std::string stats;
    for (const auto& al : alerts)
        stats += Fmt("%s +%ld ave %g min %g max %g\n", al.exp_name, long(al.raised), al.ave, al.min,
                     al.max);
    EXPECT_EQ(stats,
              "hot +120 ave 90 min 85 max 95\nhot +180 ave 92.25 min 85 max 99\n"
              "hot +270 ave 90 min 90 max 90\nnow +300 ave 0 min 0 max 0\n"
              "now +360 ave 2.5 min 5 max 5\n");
    std::string log = Log();
    for (const char* line :
         {"CheckAlert: now, Active seconds: 0, duration required 0,  ACTIVE = 1\n",
          "CheckForAlert  Net->Load->Busy,  statistifed = 1,  value = 0.00, ACTIVE = 1 \n"})
        EXPECT_EQ(CountOf(log, line), 1) << line;
    EXPECT_EQ(CountOf(log, "statistifed"), 1);
    // An alert owns a copy of the description but shares the tree's instance list.
    treeNode* leaf = Find("Net->Load->Busy");
    ASSERT_EQ(alerts.size(), 5u);
    EXPECT_NE(alerts[0].metric, leaf->data);
    EXPECT_EQ(alerts[0].metric->instances, leaf->data->instances);
}

TEST(AlertClock, ChecksAtTheTurnOfASecondReadThatSecond) {
    // The checks run on the tick, which wakes exactly as the second turns; the times an
    // alert carries (its run's start, when it was raised) must not name the second before.
    rtal_set_clock(nullptr);
    for (int tick = 0; tick < 3; ++tick) {
        const time_t woke = vorntest::wake_on_next_second();
        EXPECT_GE(rtal_now(), woke);
    }
}

TEST_F(CheckExpTest, ConditionsCompareAsWrittenNaNSatisfiesOnlyNotEqual) {
    std::string text;
    for (const char* cond : {">", "<", ">=", "<=", "==", "!=", "=>"})
        text += std::string("c:Net->Load->Busy:") + cond + ":50:1:0\n";
    const std::pair<double, std::string> cases[] = {
        {49, "< <= != "}, {50, ">= <= == "}, {51, "> >= != "}, {std::nan(""), "!= "}};
    for (const auto& [value, held] : cases) {
        LoadRules(text);
        PassAt(100, value);
        std::string got;
        for (const auto& r : Rules()) got += r.intervals ? std::string(r.condition) + " " : "";
        EXPECT_EQ(got, held) << value;
    }
    EXPECT_EQ(CountOf(Log(), "VORN-E-CHECKEXP: Unknown condition: => \n"), 4);
}

TEST_F(CheckExpTest, TypeCodesInstanceSumsAndMissingBases) {
    struct alignas(8) {
        int32_t i32 = -7, pad = 0;
        int64_t i64 = 5000000000LL;
        double f64 = 2.5;
        float f32 = 1.25f;
        uint16_t u16 = 65535;
        char text[10] = "42";
    } rec;
    const std::pair<int, int> types[] = {{1, 0}, {2, 8},  {3, 30}, {4, 16},  {6, 8},  {7, 24},
                                         {8, 0}, {9, 28}, {10, 0}, {11, 30}, {12, 0}, {13, 16}};
    std::vector<CounterDef> table;
    for (auto [type, offset] : types)
        table.push_back(Row("T" + std::to_string(type), "", type, offset));
    table.push_back(CounterDef{});
    ASSERT_EQ(AddCounter("T", table.data(), &rec, Metric_Tree), 1);
    // Processes of one name are instances of one leaf, each pid once; a process without a
    // snapshot has no base.
    double a = 10, b = 32;
    for (auto [name, first, second] : {std::tuple<const char*, void*, void*>{"sum", &a, &b},
                                       {"gapfirst", nullptr, &b},
                                       {"gaplast", &a, nullptr}})
        for (int pid : {1, 2, 2})
            AddProcessCounter(name, ptable_.data(), pid == 1 ? first : second, Metric_Tree, pid);
    LoadRules("t:T->*:>=:-1e300:0:5\np:Process->*:>:0:0:5\n");
    PassAt(100, 0);
    std::string got;
    for (const auto& r : Rules()) got += Fmt(r.intervals ? "%s=%g " : "%s- ", r.name, r.sum);
    // Texts carry no number; only the last instance decides whether a rule is skipped.
    EXPECT_EQ(got,
              "T->T13=0 T->T12=0 T->T11=0 T->T10=0 T->T9=65535 T->T8=-7 T->T7=1.25 T->T6=5e+09 "
              "T->T4=2.5 T->T3=0 T->T2=5e+09 T->T1=-7 Process->sum->v=42 Process->gapfirst->v=32 "
              "Process->gaplast->v- ");
    for (const char* line :
         {"rtal_checkexp: unknown data type \n",
          "VORNRTA-E-NODAT: NULL base for Process->gaplast->v, skipping it...\n"})
        EXPECT_EQ(CountOf(Log(), line), 1) << line;
}

TEST_F(CheckExpTest, ARuleOnAVanishedProcessWaitsAndFollowsItsReturn) {
    double first = 75, second = 5;
    ASSERT_EQ(AddProcessCounter("daemon", ptable_.data(), &first, Metric_Tree, 101), 1);
    LoadRules("p:Process->daemon->v:>:50:0:0\n");
    PassAt(100, 0);
    EXPECT_EQ(Alerts().size(), 1u);
    RemoveNode(Find("Process->daemon"));
    PassAt(130, 0);  // the rule's node is freed: nothing may read it
    EXPECT_EQ(Alerts().size(), 1u);
    ASSERT_EQ(AddProcessCounter("daemon", ptable_.data(), &second, Metric_Tree, 202), 1);
    PassAt(160, 0);
    EXPECT_EQ(Alerts().size(), 2u);  // the new node's 5 clears the alert
    EXPECT_EQ(Rules().at(0).active, 1u);
}

// Consoles send rules, collect alerts and events and ask for descriptions while the
// evaluator runs every few milliseconds and processes come and go in the tree: meant for
// ThreadSanitizer, with bounded iterations throughout.
TEST_F(CheckExpTest, ConsolesAndTheEvaluatorShareTheListsSafely) {
    record_.busy = 90;
    start_rtal = 1;
    double cpu = 60;
    std::atomic<bool> done{false};
    std::atomic<int> posted{0}, received{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {  // the evaluator; the others stop when it does
        for (int i = 0; i < 100; ++i, std::this_thread::sleep_for(2ms)) rtal_checkexp();
        done = true;
    });
    threads.emplace_back([&] {  // processes start and end as the collector sees them
        for (int i = 0; i < 400 && !done; ++i, std::this_thread::sleep_for(1ms)) {
            AddProcessCounter("worker", ptable_.data(), &cpu, Metric_Tree, 100 + i % 3);
            if (i % 4 == 3) RemoveNode(Find("Process->worker"));
        }
    });
    for (const char* owner : {" 10.0.0.1", " 10.0.0.2"}) {
        threads.emplace_back([&, owner] {
            for (int i = 0; i < 400 && !done; ++i) {
                LoadRules(
                    "net:Net->*:>:0:0:0:all\nproc:Process->worker->v:>:50:0:0\n"
                    "procs:Process->*:>=:0:0:0\nbusy:Net->Load->Busy:>:80:0:0\n",
                    owner);
                std::string got = Exchange(GetAlerts(owner));
                EXPECT_EQ(CountOf(got, "</ALERTS>\n"), 1);
                rtal_expdef_check_defs(-1, 0);
                log_expdef_list(1);
                log_alert_list(1);
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 400 && !done; ++i, posted += 2) {
            Post("an event\nanother event\n");
            received += CountOf(Exchange(GetEvents), " event\n");
            EXPECT_EQ(CountOf(Exchange(Desc), "</HEADER>\n"), 1);
        }
    });
    for (auto& t : threads) t.join();
    EXPECT_GT(posted.load(), 0);
    EXPECT_EQ(received.load(), posted.load());  // each delivered exactly once
    for (const auto& r : Rules())  // every rule left belongs to one of the two consoles
        EXPECT_TRUE(strcmp(r.owner, " 10.0.0.1") == 0 || strcmp(r.owner, " 10.0.0.2") == 0);
}

}  // namespace
}  // namespace alert_test
