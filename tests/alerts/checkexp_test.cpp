// Alert evaluation: the rule state machine over a hand-driven clock, the six conditions,
// value types, instance sums and rules whose metric leaves the tree.
#include <cmath>
#include <limits>

#include "alert_test_util.h"

namespace alert_test {
namespace {

class CheckExpTest : public AlertTest {
  protected:
    void PassAt(time_t t, double busy) {
        fake_now = t;
        record_.busy = busy;
        rtal_checkexp();
    }
    ExceptionObject Rule() { return Rules().at(0); }
};

TEST_F(CheckExpTest, RaisesAfterTheDurationStaysQuietClearsAndRearms) {
    LoadRules("hot:Net->Load->Busy:>:80:0:1:too busy\n");
    const time_t t0 = 2000000;
    PassAt(t0, 90);
    PassAt(t0 + 30, 70);  // a run broken before its minute raises nothing
    EXPECT_EQ(Rule().intervals, 0u);
    PassAt(t0 + 60, 90);
    PassAt(t0 + 90, 95);
    EXPECT_TRUE(Alerts().empty());
    PassAt(t0 + 120, 85);  // 60 s since the run's first satisfied pass
    ASSERT_EQ(Alerts().size(), 1u);
    ExceptionObject raised = Alerts()[0];
    EXPECT_STREQ(raised.metric->description, "Net->Load->Busy");
    EXPECT_EQ(raised.raised, t0 + 120);
    EXPECT_DOUBLE_EQ(raised.ave, (90 + 95 + 85) / 3.0);
    EXPECT_DOUBLE_EQ(raised.min, 85);
    EXPECT_DOUBLE_EQ(raised.max, 95);
    EXPECT_EQ(raised.intervals, 0u);
    EXPECT_EQ(Rule().active, 0u);
    EXPECT_EQ(Rule().seconds, 90u);  // three passes of the 30 s interval

    PassAt(t0 + 150, 99);  // still satisfied: nothing new, statistics go on
    EXPECT_EQ(Alerts().size(), 1u);
    EXPECT_DOUBLE_EQ(Rule().max, 99);

    PassAt(t0 + 180, 80);  // 80 is not above 80: the clearing alert
    ASSERT_EQ(Alerts().size(), 2u);
    EXPECT_EQ(Alerts()[1].raised, t0 + 180);
    EXPECT_DOUBLE_EQ(Alerts()[1].ave, (90 + 95 + 85 + 99) / 4.0);
    ExceptionObject rule = Rule();
    EXPECT_EQ(rule.active, 1u);
    EXPECT_EQ(rule.intervals + rule.seconds, 0u);
    EXPECT_EQ(rule.started + rule.last, 0);
    EXPECT_DOUBLE_EQ(rule.sum + rule.max + rule.min + rule.ave, 0.0);

    PassAt(t0 + 210, 90);  // re-armed: a new run needs its own minute
    PassAt(t0 + 240, 90);
    EXPECT_EQ(Alerts().size(), 2u);
    PassAt(t0 + 270, 90);
    EXPECT_EQ(Alerts().size(), 3u);

    ClearLists();
    LoadRules("now:Net->Load->Busy:>=:10:0:0\n");  // duration 0: the first satisfied pass
    PassAt(t0, 10);
    EXPECT_EQ(Alerts().size(), 1u);
}

TEST_F(CheckExpTest, ConditionsCompareAsWrittenNaNSatisfiesOnlyNotEqual) {
    const char* conds[] = {">", "<", ">=", "<=", "==", "!="};
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct {
        double value;
        bool expect[6];
    } cases[] = {{49, {0, 1, 0, 1, 0, 1}},
                 {50, {0, 0, 1, 1, 1, 0}},
                 {51, {1, 0, 1, 0, 0, 1}},
                 {nan, {0, 0, 0, 0, 0, 1}}};
    for (const auto& c : cases) {
        ClearLists();
        std::string text;
        for (const char* cond : conds)
            text += std::string("c:Net->Load->Busy:") + cond + ":50:1:0\n";
        LoadRules(text + "odd:Net->Load->Busy:=>:50:0:0\n");
        PassAt(100, c.value);
        auto rules = Rules();
        ASSERT_EQ(rules.size(), 7u);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(rules[i].intervals, c.expect[i] ? 1u : 0u) << c.value << conds[i];
        EXPECT_EQ(rules[6].intervals, 0u);
    }
    EXPECT_EQ(CountOf(Log(), "VORN-E-CHECKEXP: Unknown condition: => \n"), 4);
}

// Hangs a hand-built description under the root with one instance per base.
void HangLeaf(const char* path, uint32_t type, uint32_t offset, std::vector<void*> bases,
              uint32_t alertable = 1) {
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    snprintf(md->description, sizeof md->description, "%s", path);
    md->type = type;
    md->offset = offset;
    md->alertable = alertable;
    CreateList(&md->instances);
    for (void* base : bases) {
        auto* inst = static_cast<MetricInstance*>(calloc(1, sizeof(MetricInstance)));
        inst->base = base;
        AppendToList(&md->instances, inst);
    }
    treeNode* node = nullptr;
    CreateNode(md, &node);
    std::lock_guard<std::mutex> lock(tree_mutex);
    AddChild(node, Metric_Tree);
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
    const struct {
        uint32_t type, offset;
        double expect;
    } cases[] = {{1, 0, -7}, {2, 8, 5e9},    {3, 30, 0}, {4, 16, 2.5}, {6, 8, 5e9}, {7, 24, 1.25},
                 {8, 0, -7}, {9, 28, 65535}, {10, 0, 0}, {11, 30, 0},  {12, 0, 0},  {13, 16, 0}};
    std::string rules;
    for (const auto& c : cases) {
        std::string path = "T" + std::to_string(c.type);
        HangLeaf(path.c_str(), c.type, c.offset, {&rec});
        rules += "r:" + path + ":>=:-1e300:0:5\n";
    }
    double a = 10, b = 32;
    HangLeaf("Sum", 4, 0, {&a, &b});
    HangLeaf("GapThenGood", 4, 0, {nullptr, &b});
    HangLeaf("GoodThenGap", 4, 0, {&a, nullptr});
    HangLeaf("NotAlertable", 4, 0, {&a}, 0);
    LoadRules(rules + "s:Sum:>:0:0:5\ng:GapThenGood:>:0:0:5\nl:GoodThenGap:>:0:0:5\n" +
              "n:NotAlertable:>:0:0:5\n");
    PassAt(100, 0);
    auto got = Rules();
    ASSERT_EQ(got.size(), std::size(cases) + 4);
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(got[i].intervals, 1u) << "type " << cases[i].type;
        EXPECT_DOUBLE_EQ(got[i].sum, cases[i].expect) << "type " << cases[i].type;
    }
    const ExceptionObject* extra = &got[std::size(cases)];
    EXPECT_DOUBLE_EQ(extra[0].sum, 42);  // all processes of one name add up
    EXPECT_DOUBLE_EQ(extra[1].sum, 32);  // a good instance after a missing one counts
    EXPECT_EQ(extra[2].intervals, 0u);   // a missing last instance skips the rule
    EXPECT_EQ(extra[3].intervals, 0u);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "rtal_checkexp: unknown data type \n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-E-NODAT: NULL base for GoodThenGap, skipping it...\n"), 1);
}

TEST_F(CheckExpTest, StatisticsTracingAndTheAlertCopy) {
    treeNode* leaf = nullptr;
    ASSERT_EQ(SearchDescription1("Net->Sent", Metric_Tree, &leaf, 0), 1);
    ExceptionObject rule{};
    rule.metric = leaf->data;
    snprintf(rule.exp_name, sizeof rule.exp_name, "hand");
    snprintf(rule.name, sizeof rule.name, "Net->Sent");
    snprintf(rule.owner, sizeof rule.owner, " 10.0.0.9");
    rule.duration = 600;
    rule.active = 1;
    CheckForAlert(1, &rule, 3);
    setenv("RTA_VERBOSE_ALERTS", "1", 1);  // read on every call
    fake_now = fake_now + 30;
    CheckForAlert(1, &rule, 0);
    unsetenv("RTA_VERBOSE_ALERTS");
    CheckForAlert(1, &rule, 2);
    EXPECT_DOUBLE_EQ(rule.min, 2);  // the 0.0 in between counted as "no minimum yet"
    EXPECT_DOUBLE_EQ(rule.max, 3);
    EXPECT_DOUBLE_EQ(rule.sum, 5);
    std::string log = Log();
    EXPECT_EQ(
        CountOf(log, "CheckAlert: hand, Active seconds: 30, duration required 600,  ACTIVE = 1\n"),
        1);
    EXPECT_EQ(
        CountOf(log, "CheckForAlert  Net->Sent,  statistifed = 1,  value = 0.00, ACTIVE = 1 \n"),
        1);
    EXPECT_EQ(CountOf(log, "statistifed"), 1);

    ExceptionObject* alert = nullptr;
    ASSERT_EQ(AllocateExceptionObject(&rule, &alert), 1);
    EXPECT_NE(alert->metric, leaf->data);
    EXPECT_STREQ(alert->metric->description, "Net->Sent");
    EXPECT_EQ(alert->metric->instances, leaf->data->instances);
    EXPECT_EQ(alert->intervals, 0u);
    EXPECT_EQ(alert->last, 0);
    EXPECT_DOUBLE_EQ(alert->sum, 5);
    EXPECT_STREQ(alert->owner, " 10.0.0.9");
    rtal_free_alert(alert);  // leaves the tree's instance list alone (the tree frees it)
}

TEST_F(CheckExpTest, ARuleOnAVanishedProcessWaitsAndFollowsItsReturn) {
    double first = 75, second = 5;
    std::vector<CounterDef> ptable = {Row("% CPU", "cpu share", 4, 0), CounterDef{}};
    ASSERT_EQ(AddProcessCounter("daemon", ptable.data(), &first, Metric_Tree, 101), 1);
    LoadRules("p:Process->daemon->% CPU:>:50:0:0\n");
    PassAt(100, 0);
    EXPECT_EQ(Alerts().size(), 1u);
    treeNode* proc = nullptr;
    ASSERT_EQ(SearchDescription1("Process->daemon", Metric_Tree, &proc, 0), 1);
    RemoveNode(proc);
    PassAt(130, 0);  // the rule's node is freed: nothing may read it
    EXPECT_EQ(Alerts().size(), 1u);
    ASSERT_EQ(AddProcessCounter("daemon", ptable.data(), &second, Metric_Tree, 202), 1);
    PassAt(160, 0);
    EXPECT_EQ(Alerts().size(), 2u);  // the new node's 5 clears the alert
    EXPECT_EQ(Rule().active, 1u);
}

}  // namespace
}  // namespace alert_test
