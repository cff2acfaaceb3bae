// The metric tree and the exception definitions bound to it: rule grammar, field widths, "*"
// expansion, per-console replacement, abandonment, <OK_EXP>/<GETEXP>. Walk order: see <DESC>.
#include "alert_test_util.h"

namespace alert_test {
namespace {

using ExpdefTest = AlertTest;

std::string Names() {
    std::string out;
    for (const auto& r : AlertTest::Rules()) out += r.exp_name + std::string(" ");
    return out;
}

// The lines: colon runs, a missing condition that moves later fields up, over-wide fields,
// short and empty lines, lines of 5,000 characters read as pieces of 511 (the last piece of
// one is a rule), a limit that is not a number, a duration too large for an int.
TEST_F(ExpdefTest, FieldsSplitAtColonRunsAreCutToTheirWidthsAndBadLinesAreSkipped) {
    LoadRules(Fixture("rule_lines.txt"));
    std::string got;
    for (const auto& r : Rules())
        got += Fmt("%s|%s|%s|%.17g|%d|%s|[%s]\n", r.exp_name, r.name, r.condition, r.limit,
                   r.duration, r.metric->description, r.descript);
    EXPECT_EQ(got, Fixture("rules_parsed.txt"));
    std::string log = Log();
    for (const char* line :
         {"VORNRTA-W-EXPDEF:    rule line with 4 of 6 fields ignored\n",
          "VORNRTA-W-EXPDEF:    rule line with 2 of 6 fields ignored\n",
          "VORNRTA-W-EXPDEF:    rule line with 5 of 6 fields ignored\n",
          "VORNRTA-W-EXPDEF:    rule 'nan': limit is not a number, taken as 0\n"})
        EXPECT_EQ(CountOf(log, line), 1) << line;
    // The empty line and the pieces of x's alone.
    EXPECT_EQ(CountOf(log, "VORNRTA-W-EXPDEF:    rule line with 1 of 6 fields ignored\n"), 18);
}

TEST_F(ExpdefTest, ANewRequestReplacesOnlyItsOwnersRulesAndStarsExpand) {
    LoadRules("a1:Net->Sent:>:1:0:0\na2:Net->Sent:>:2:0:0\n", " 10.0.0.1");
    LoadRules("b1:Net->Sent:>:3:0:0\n", " 10.0.0.2");
    LoadRules("a3:Net->Load->Idle:<:4:0:0\n", " 10.0.0.1");
    EXPECT_EQ(Names(), "b1 a3 ");
    std::vector<CounterDef> other = {Row("Free", "free", 4, 0), CounterDef{}};
    ASSERT_EQ(AddCounter("Mem", other.data(), nullptr, Metric_Tree), 1);
    // One rule per leaf below the node before "*"; the empty path is the root.
    for (auto [path, leaves] : {std::pair{"Net->*", 5u}, {"Net->Load->*", 2u}, {"*", 6u}}) {
        ClearLists();
        LoadRules(std::string("s:") + path + ":>:1:0:0\n");
        EXPECT_EQ(Rules().size(), leaves) << path;
        for (const auto& r : Rules()) EXPECT_STREQ(r.name, r.metric->description);
    }
}

TEST_F(ExpdefTest, AnUnresolvablePathOrTheEndTagStopsReading) {
    verbose_flag = 1;
    const std::pair<void (*)(FILE*, const char*), const char*> cases[] = {
        {rtal_expdef_action, "lost:Net->Nowhere:>:1:0:0\n"},
        {rtal_expdef_action, "star:Nope->*:>:1:0:0\n"},
        {rtal_expdef_action, "</EXPDEF>\n"},
        // The kept parser of <EVENT> rules: same grammar, its own end tag, "*" binds nothing.
        {rtal_event_action, "star:Net->*:>:1:0:0\n</EVENT>\n"}};
    for (auto [action, stop] : cases) {
        ClearLists();
        const std::string text = std::string("kept:Net->Sent:>:1:0:0\n") + stop + "unread:\n";
        WithStream(text, [&](FILE* f) {
            action(f, " 10.0.0.1");
            EXPECT_EQ(ftell(f), long(text.find("unread"))) << stop;  // the rest stays unread
        });
        EXPECT_EQ(Names(), "kept ") << stop;
    }
    LoadRules("c:Net->Sent:>:1:0:0\n");  // only the end of a stream is said to finish
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-EXPDEF:   Finished Processing <EXPDEF>\n"), 1);
    EXPECT_EQ(CountOf(Log(), " Expdef Action : search for Net->Nowhere failed\n"), 1);
}

TEST_F(ExpdefTest, CheckDefsTellsTheConsoleWhetherRulesAreHeld) {
    const std::tuple<int, Console, const char*, int> cases[] = {
        {0, kReads, "<GETEXP>\n", 0},
        {0, kGone, "", -1},  // and no SIGPIPE
        {0, kReads, "", 1},
        {1, kReads, "<OK_EXP>\n", 1}};
    for (auto [always, console, reply, want] : cases) {
        if (want == 1) LoadRules("a:Net->Sent:>:1:0:0\n");
        int rc = 99;
        auto check = [&](int fd) { return rtal_expdef_check_defs(fd, always); };
        EXPECT_EQ(Exchange(check, &rc, console), reply);
        EXPECT_EQ(rc, want) << reply;
    }
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-TAGFAIL: <GETEXP> tag send failed: Broken pipe\n"), 1);
}

// The children of `parent` in sibling order; "!" marks a broken back or parent link.
std::string Order(treeNode* parent) {
    std::string out;
    for (treeNode* c = parent->child; c; c = c->next) {
        bool linked = c->parent == parent && (c->prev ? c->prev->next == c : parent->child == c);
        out += std::string(c->data->description) + (linked ? " " : "! ");
    }
    return out;
}

TEST_F(ExpdefTest, ChildrenLinkNewestFirstAndRemovalRelinksSiblings) {
    treeNode* root = Metric_Tree;
    ASSERT_EQ(rtal_create_root("other"), 1);  // made once only
    EXPECT_EQ(Metric_Tree, root);
    auto add = [](const char* name, treeNode* parent) {
        treeNode* node = nullptr;
        return AddMetricNode(name, parent, &node), node;
    };
    treeNode *a = add("A", root), *b = add("B", root), *c = add("C", root);
    add("B1", b);
    EXPECT_EQ(Order(root), "C B A Net ");
    const std::pair<treeNode*, const char*> removals[] = {
        {b, "C A Net "}, {c, "A Net "}, {Find("Net"), "A "}};  // middle, first, last
    for (auto [node, left] : removals) {
        ASSERT_EQ(RemoveNode(node), 1);
        EXPECT_EQ(Order(root), left);
    }
    EXPECT_EQ(Find("A"), a);  // every removal released the tree lock
    RemoveNode(root);
    EXPECT_EQ(Metric_Tree, nullptr);  // else the next root would never be made
}

TEST_F(ExpdefTest, CounterNamesSplitIntoLevelsAndRegisteringAgainReusesThem) {
    std::vector<CounterDef> odd = {Row("Read-Write->Rate>Max", "odd", 4, 0), CounterDef{}};
    ASSERT_EQ(AddCounter("Disk", odd.data(), nullptr, Metric_Tree), 1);
    EXPECT_NE(Find("Disk->Read->Write->Rate->Max"), nullptr);  // every '-' and '>' splits
    EXPECT_EQ(Find("Net->Idle"), nullptr);                     // every level must be named
    EXPECT_EQ(Find("Net->" + std::string(600, 'x')), nullptr);

    // Again: "->" levels are reused, a single-level counter gets a second node.
    ASSERT_EQ(AddCounter("Net", table_.data(), &record_, Metric_Tree), 1);
    EXPECT_EQ(Order(Metric_Tree), "Disk Net ");
    EXPECT_EQ(Order(Find("Net->Load")), "Net->Load->Idle Net->Load->Busy ");
    EXPECT_EQ(GetListCount(Find("Net->Load->Idle")->data->instances), 1);
    EXPECT_EQ(CountOf(Order(Find("Net")), "Net->Sent "), 2);
}

// Processes of one name share one node and each pid is an instance once, however many
// there are; a name whose node was removed (its process ended) starts afresh, the same pid
// included; names that look like paths are whole names.
TEST_F(ExpdefTest, ProcessesOfOneNameShareANodeAndEachPidCountsOnce) {
    std::vector<CounterDef> rows = {Row("CPU->User", "", 4, 0), Row("Size", "", 4, 0),
                                    CounterDef{}};
    double value = 1;
    for (int round = 0; round < 2; ++round)
        for (int pid = 1; pid <= 3000; ++pid)
            ASSERT_EQ(AddProcessCounter("worker", rows.data(), &value, Metric_Tree, pid), 1);
    for (const char* leaf : {"Process->worker->CPU->User", "Process->worker->Size"})
        EXPECT_EQ(GetListCount(Find(leaf)->data->instances), 3000) << leaf;
    EXPECT_EQ(Order(Find("Process")), "Process->worker ");

    ASSERT_EQ(AddProcessCounter("a->b", rows.data(), &value, Metric_Tree, 7), 1);
    EXPECT_EQ(FindProcessNode("a->b")->child->data->description, std::string("Process->a->b->Size"));
    EXPECT_EQ(FindProcessNode("a"), nullptr);

    RemoveNode(FindProcessNode("worker"));
    EXPECT_EQ(FindProcessNode("worker"), nullptr);
    ASSERT_EQ(AddProcessCounter("worker", rows.data(), &value, Metric_Tree, 2), 1);
    EXPECT_EQ(GetListCount(Find("Process->worker->Size")->data->instances), 1);
    EXPECT_EQ(Order(Find("Process")), "Process->worker Process->a->b ");
}

}  // namespace
}  // namespace alert_test
