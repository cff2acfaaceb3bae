// Alert evaluation: the rule state machine over a hand-driven clock, the six conditions,
// value types, instance sums and rules whose metric leaves the tree.
#include <cmath>
#include <limits>

#include "alert_test_util.h"

namespace alert_test {
namespace {

class CheckExpTest : public AlertTest {
protected:
    // One evaluation pass at `t` with the busy share at `busy`.
    void PassAt(time_t t, double busy) {
        fake_now = t;
        record_.busy = busy;
        rtal_checkexp();
    }
    ExceptionObject Rule(size_t i = 0) {
        auto rules = Rules();
        EXPECT_GT(rules.size(), i);
        return rules.size() > i ? rules[i] : ExceptionObject{};
    }
};

TEST_F(CheckExpTest, RaisesAfterTheDurationStaysQuietThenClearsAndRearms) {
    LoadRules("hot:Net->Load->Busy:>:80:0:1:too busy\n");
    const time_t t0 = 2000000;

    PassAt(t0, 90);
    EXPECT_EQ(Rule().intervals, 1u);
    EXPECT_EQ(Rule().started, t0);
    PassAt(t0 + 30, 95);
    EXPECT_EQ(AlertCount(), 0);  // 30 s held of the 60 s asked for
    PassAt(t0 + 60, 85);
    ASSERT_EQ(AlertCount(), 1);
    ExceptionObject raised = Alerts()[0];
    EXPECT_STREQ(raised.exp_name, "hot");
    EXPECT_STREQ(raised.metric->description, "Net->Load->Busy");
    EXPECT_EQ(raised.raised, t0 + 60);
    EXPECT_DOUBLE_EQ(raised.ave, (90 + 95 + 85) / 3.0);
    EXPECT_DOUBLE_EQ(raised.min, 85);
    EXPECT_DOUBLE_EQ(raised.max, 95);
    EXPECT_EQ(raised.intervals, 0u);  // the copy does not carry the run's counters
    EXPECT_EQ(raised.last, 0);
    EXPECT_STREQ(raised.descript, "too busy\n");
    EXPECT_EQ(Rule().active, 0u);
    EXPECT_EQ(Rule().seconds, 90u);  // three passes of the 30 s alert interval

    // Staying satisfied queues nothing more but keeps the statistics going.
    PassAt(t0 + 90, 99);
    EXPECT_EQ(AlertCount(), 1);
    EXPECT_DOUBLE_EQ(Rule().max, 99);
    EXPECT_EQ(Rule().intervals, 4u);

    // Falling to the limit clears: one more alert, the rule is armed and its run reset.
    PassAt(t0 + 120, 80);
    ASSERT_EQ(AlertCount(), 2);
    ExceptionObject cleared = Alerts()[1];
    EXPECT_EQ(cleared.raised, t0 + 120);
    EXPECT_DOUBLE_EQ(cleared.ave, (90 + 95 + 85 + 99) / 4.0);
    ExceptionObject rule = Rule();
    EXPECT_EQ(rule.active, 1u);
    EXPECT_EQ(rule.intervals, 0u);
    EXPECT_EQ(rule.seconds, 0u);
    EXPECT_EQ(rule.started, 0);
    EXPECT_EQ(rule.last, 0);
    EXPECT_DOUBLE_EQ(rule.sum, 0.0);
    EXPECT_DOUBLE_EQ(rule.max, 0.0);

    // Re-armed: a new run counts from its own first satisfied pass.
    PassAt(t0 + 150, 90);
    EXPECT_EQ(Rule().started, t0 + 150);
    PassAt(t0 + 180, 90);
    EXPECT_EQ(AlertCount(), 2);
    PassAt(t0 + 210, 90);
    EXPECT_EQ(AlertCount(), 3);
}

TEST_F(CheckExpTest, ARunThatBreaksBeforeTheDurationRaisesNothing) {
    LoadRules("hot:Net->Load->Busy:>:80:0:1\n");
    PassAt(100, 90);
    PassAt(130, 70);
    EXPECT_EQ(Rule().intervals, 0u);
    PassAt(160, 90);
    PassAt(190, 90);  // only 30 s into the new run
    EXPECT_EQ(AlertCount(), 0);
    EXPECT_EQ(Rule().started, 160);
    PassAt(220, 90);
    EXPECT_EQ(AlertCount(), 1);
}

TEST_F(CheckExpTest, ZeroDurationRaisesOnTheFirstSatisfiedPass) {
    LoadRules("now:Net->Load->Busy:>=:10:0:0\n");
    PassAt(100, 10);
    EXPECT_EQ(AlertCount(), 1);
    EXPECT_EQ(Rule().active, 0u);
}

TEST_F(CheckExpTest, EveryConditionComparesAsWrittenAndNaNSatisfiesOnlyNotEqual) {
    const char* conds[] = {">", "<", ">=", "<=", "==", "!="};
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        double value;
        bool expect[6];
    } cases[] = {
        {49, {false, true, false, true, false, true}},
        {50, {false, false, true, true, true, false}},
        {51, {true, false, true, false, false, true}},
        {nan, {false, false, false, false, false, true}},
    };
    for (const Case& c : cases) {
        ClearLists();
        std::string text;
        for (const char* cond : conds) text += std::string("c") + cond + ":Net->Load->Busy:" + cond + ":50:1:0\n";
        LoadRules(text);
        PassAt(100, c.value);
        auto rules = Rules();
        ASSERT_EQ(rules.size(), 6u);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(rules[i].intervals, c.expect[i] ? 1u : 0u)
                << "value " << c.value << " condition " << conds[i];
    }
}

TEST_F(CheckExpTest, UnknownConditionIsLoggedEveryPassAndLeavesTheRuleAlone) {
    LoadRules("odd:Net->Load->Busy:=>:50:0:0\n");
    PassAt(100, 90);
    PassAt(130, 90);
    EXPECT_EQ(CountOf(Log(), "VORN-E-CHECKEXP: Unknown condition: => \n"), 2);
    EXPECT_EQ(Rule().intervals, 0u);
    EXPECT_EQ(AlertCount(), 0);
}

// Hangs a hand-built description under the root with one instance per base.
MetricDescription* HangLeaf(const char* path, uint32_t type, uint32_t offset,
                            std::vector<void*> bases, uint32_t alertable = 1) {
    auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
    snprintf(md->description, sizeof md->description, "%s", path);
    snprintf(md->text, sizeof md->text, "hand made");
    md->type = type;
    md->offset = offset;
    md->alertable = alertable;
    CreateList(&md->instances);
    for (void* base : bases) {
        auto* inst = static_cast<MetricInstance*>(calloc(1, sizeof(MetricInstance)));
        inst->base = base;
        snprintf(inst->name, sizeof inst->name, "%s", path);
        AppendToList(&md->instances, inst);
    }
    treeNode* node = nullptr;
    CreateNode(md, &node);
    std::lock_guard<std::mutex> lock(tree_mutex);
    AddChild(node, Metric_Tree);
    return md;
}

struct alignas(8) Mixed {
    int32_t i32;       // 0
    int32_t pad;       // 4
    int64_t i64;       // 8
    double f64;        // 16
    float f32;         // 24
    uint16_t u16;      // 28
    char text[10];     // 30
};

TEST_F(CheckExpTest, EachTypeCodeReadsItsWidthAndTextsAddNothing) {
    Mixed rec{};
    rec.i32 = -7;
    rec.i64 = 5000000000LL;
    rec.f64 = 2.5;
    rec.f32 = 1.25f;
    rec.u16 = 65535;
    snprintf(rec.text, sizeof rec.text, "42");
    struct TypeCase {
        uint32_t type;
        uint32_t offset;
        double expect;
    } cases[] = {{1, 0, -7},     {2, 8, 5e9},   {3, 30, 0},  {4, 16, 2.5}, {6, 8, 5e9},
                 {7, 24, 1.25},  {8, 0, -7},    {9, 28, 65535}, {10, 0, 0}, {11, 30, 0},
                 {12, 0, 0},     {13, 16, 0}};
    std::string rules;
    for (const TypeCase& c : cases) {
        char path[32];
        snprintf(path, sizeof path, "T%u", c.type);
        HangLeaf(path, c.type, c.offset, {&rec});
        rules += std::string("r:") + path + ":>=:-1e300:0:5\n";
    }
    LoadRules(rules);
    PassAt(100, 0);
    auto got = Rules();
    ASSERT_EQ(got.size(), std::size(cases));
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].intervals, 1u) << "type " << cases[i].type;
        EXPECT_DOUBLE_EQ(got[i].sum, cases[i].expect) << "type " << cases[i].type;
    }
    EXPECT_EQ(CountOf(Log(), "rtal_checkexp: unknown data type \n"), 1);
}

TEST_F(CheckExpTest, InstancesAddUpAndOnlyTheLastMissingBaseSkips) {
    double a = 10, b = 32;
    HangLeaf("Sum", 4, 0, {&a, &b});
    HangLeaf("GapThenGood", 4, 0, {nullptr, &b});
    HangLeaf("GoodThenGap", 4, 0, {&a, nullptr});
    HangLeaf("NotAlertable", 4, 0, {&a}, 0);
    LoadRules(
        "s:Sum:>:0:0:5\n"
        "g:GapThenGood:>:0:0:5\n"
        "l:GoodThenGap:>:0:0:5\n"
        "n:NotAlertable:>:0:0:5\n");
    PassAt(100, 0);
    auto got = Rules();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_DOUBLE_EQ(got[0].sum, 42);
    EXPECT_DOUBLE_EQ(got[1].sum, 32);
    EXPECT_EQ(got[2].intervals, 0u);  // skipped: its state is kept as it was
    EXPECT_EQ(got[3].intervals, 0u);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "VORNRTA-E-NODAT: NULL base for GapThenGood, skipping it...\n"), 1);
    EXPECT_EQ(CountOf(log, "VORNRTA-E-NODAT: NULL base for GoodThenGap, skipping it...\n"), 1);
}

ExceptionObject HandRule(MetricDescription* md) {
    ExceptionObject rule{};
    rule.metric = md;
    snprintf(rule.exp_name, sizeof rule.exp_name, "hand");
    snprintf(rule.name, sizeof rule.name, "%s", md->description);
    snprintf(rule.condition, sizeof rule.condition, ">");
    snprintf(rule.owner, sizeof rule.owner, " 10.0.0.9");
    rule.duration = 600;
    rule.active = 1;
    return rule;
}

TEST_F(CheckExpTest, MinimumOfExactlyZeroIsReplacedAndMaximumStartsAtZero) {
    MetricDescription md{};
    snprintf(md.description, sizeof md.description, "Hand->Made");
    ExceptionObject rule = HandRule(&md);
    for (double v : {3.0, 0.0, 2.0}) CheckForAlert(1, &rule, v);
    EXPECT_DOUBLE_EQ(rule.min, 2.0);  // the 0.0 in between counted as "no minimum yet"
    EXPECT_DOUBLE_EQ(rule.max, 3.0);
    ExceptionObject neg = HandRule(&md);
    for (double v : {-4.0, -9.0}) CheckForAlert(1, &neg, v);
    EXPECT_DOUBLE_EQ(neg.max, 0.0);
    EXPECT_DOUBLE_EQ(neg.min, -9.0);
    EXPECT_DOUBLE_EQ(neg.sum, -13.0);
}

TEST_F(CheckExpTest, TracingFollowsTheEnvironmentOnEveryCall) {
    MetricDescription md{};
    snprintf(md.description, sizeof md.description, "Hand->Made");
    ExceptionObject rule = HandRule(&md);
    CheckForAlert(1, &rule, 5);
    EXPECT_EQ(CountOf(Log(), "rtal_invterval"), 0);
    setenv("RTA_VERBOSE_ALERTS", "1", 1);
    fake_now = fake_now + 30;
    CheckForAlert(1, &rule, 6);
    unsetenv("RTA_VERBOSE_ALERTS");
    CheckForAlert(0, &rule, 1);
    std::string log = Log();
    EXPECT_EQ(CountOf(log, "CheckAlert: hand, intervals: 2 * rtal_invterval = 30,  time: 1000030,  ACTIVE = 1\n"), 1);
    EXPECT_EQ(CountOf(log, "CheckAlert: hand, Active seconds: 30, duration required 600,  ACTIVE = 1\n"), 1);
    EXPECT_EQ(CountOf(log, "CheckForAlert  Hand->Made,  statistifed = 1,  value = 6.00, ACTIVE = 1 \n"), 1);
    EXPECT_EQ(CountOf(log, "NOT SATISTIFIED"), 0);  // tracing was off again
    EXPECT_EQ(CountOf(log, "statistifed"), 1);  // only the traced call was verbose
}

TEST_F(CheckExpTest, AlertCopiesOwnTheirDescriptionButShareTheInstanceList) {
    treeNode* leaf = nullptr;
    ASSERT_EQ(SearchDescription1("Net->Sent", Metric_Tree, &leaf, 0), 1);
    ExceptionObject rule = HandRule(leaf->data);
    rule.intervals = 7;
    rule.last = 99;
    rule.sum = 12;
    rule.limit = 3.5;
    ExceptionObject* alert = nullptr;
    ASSERT_EQ(AllocateExceptionObject(&rule, &alert), 1);
    ASSERT_NE(alert, nullptr);
    EXPECT_NE(alert->metric, leaf->data);
    EXPECT_STREQ(alert->metric->description, "Net->Sent");
    EXPECT_EQ(alert->metric->instances, leaf->data->instances);
    EXPECT_EQ(alert->intervals, 0u);
    EXPECT_EQ(alert->last, 0);
    EXPECT_DOUBLE_EQ(alert->sum, 12);
    EXPECT_DOUBLE_EQ(alert->limit, 3.5);
    EXPECT_STREQ(alert->owner, " 10.0.0.9");
    // Freeing the copy leaves the tree's list intact (the tree frees it at tear-down).
    rtal_free_alert(alert);
    EXPECT_EQ(GetListCount(leaf->data->instances), 1);
}

TEST_F(CheckExpTest, RulesOnAVanishedProcessWaitAndFollowItsReturn) {
    struct Proc {
        double cpu;
    } first{75}, second{5};
    std::vector<CounterDef> ptable = {Row("PID", "Process Id", 15, 0, "", 0),
                                      Row("% CPU", "cpu share", 4, 0), CounterDef{}};
    ASSERT_EQ(AddProcessCounter("daemon", ptable.data(), &first, Metric_Tree, 101), 1);
    LoadRules("p:Process->daemon->% CPU:>:50:0:0\n");
    ASSERT_EQ(RuleCount(), 1);
    PassAt(100, 0);
    EXPECT_EQ(AlertCount(), 1);

    treeNode* proc = nullptr;
    ASSERT_EQ(SearchDescription1("Process->daemon", Metric_Tree, &proc, 0), 1);
    RemoveNode(proc);
    // The node the rule pointed at is freed; the pass must not read it.
    PassAt(130, 0);
    EXPECT_EQ(AlertCount(), 1);
    EXPECT_EQ(Rule().active, 0u);

    // The process comes back under the same name: the rule reads the new node.
    ASSERT_EQ(AddProcessCounter("daemon", ptable.data(), &second, Metric_Tree, 202), 1);
    PassAt(160, 0);
    EXPECT_EQ(AlertCount(), 2);  // cleared: 5 is not above 50
    EXPECT_EQ(Rule().active, 1u);
}

TEST_F(CheckExpTest, NoRulesYetOnlyCreatesTheAlertList) {
    verbose_flag = 1;
    rtal_checkexp();
    {
        std::lock_guard<std::mutex> lock(alert_mutex);
        EXPECT_NE(Alert_list, nullptr);
    }
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-CHECKEXP: No exception definitions\n"), 1);
}

}  // namespace
}  // namespace alert_test
