// Metric tree: node linking, path resolution, class and process registration, removal and
// the leaf walk.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "agent/rtdc_globals.h"
#include "alerts/rtal_tree.h"

namespace {

CounterDef Row(const char* name, const char* description, int type, int is_counter, int offset = 0,
               int marker = 1, const char* units = "%") {
    CounterDef row{};
    row.id = 1;
    row.offset = offset;
    snprintf(row.name, sizeof row.name, "%s", name);
    row.type = type;
    snprintf(row.description, sizeof row.description, "%s", description);
    row.marker = marker;
    snprintf(row.units, sizeof row.units, "%s", units);
    row.is_counter = is_counter;
    return row;
}

// A processor-like table: two levels under " Mode Averages", one single-level counter, an
// attribute row that must stay out of the tree, and a row after the terminator.
std::vector<CounterDef> CpuLikeTable() {
    return {Row(" Mode Averages->Idle", "CPU in Idle mode", 4, 1, 24),
            Row(" Mode Averages->System", "CPU  Utilizatoin in System mode", 4, 1, 16),
            Row("Name", "an attribute", 11, 0),
            Row("Average Utilization", "Overall CPU Utilzation", 4, 1, 0),
            CounterDef{},
            Row("After End", "never read", 4, 1)};
}

std::vector<CounterDef> ProcessLikeTable() {
    return {Row("PID", "Process Id", 15, 0), Row("% CPU Utilization", "% CPU Utilization", 4, 1, 8),
            Row("Rss (Kb)", "Rss", 2, 1, 16, 1, "Kb"), CounterDef{}};
}

class TreeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto* md = static_cast<MetricDescription*>(calloc(1, sizeof(MetricDescription)));
        snprintf(md->description, sizeof md->description, "testhost");
        snprintf(md->text, sizeof md->text, "Root node");
        CreateNode(md, &root);
        ASSERT_NE(root, nullptr);
    }
    void TearDown() override { RemoveTree(root); }

    static int ChildCount(treeNode* n) {
        int count = 0;
        for (treeNode* c = n->child; c; c = c->next) ++count;
        return count;
    }
    static int CountNamed(treeNode* n, const char* description) {
        int count = 0;
        for (treeNode* c = n->child; c; c = c->next)
            if (strcmp(c->data->description, description) == 0) ++count;
        return count;
    }
    treeNode* Find(const char* path) {
        treeNode* found = nullptr;
        return SearchDescription1(path, root, &found, 0) ? found : nullptr;
    }

    treeNode* root = nullptr;
};

TEST(TokenList, SplitsAtEveryDashAndGreaterThanWithoutEmptyTokens) {
    char text[] = "TCP->Packet Rate-->Sent>x-y";
    List* tokens = nullptr;
    ASSERT_EQ(CreateTokenList(text, "->", &tokens), 1);
    std::vector<std::string> got;
    for (ListItem* it = tokens->first; it; it = it->next)
        got.emplace_back(static_cast<char*>(it->data));
    EXPECT_EQ(got, (std::vector<std::string>{"TCP", "Packet Rate", "Sent", "x", "y"}));
    EXPECT_STREQ(text, "TCP");  // the caller's text is cut at the first separator
    DestroyList(tokens);

    std::string limit(512, 'a');
    ASSERT_EQ(CreateTokenList(limit.data(), "->", &tokens), 1);
    EXPECT_EQ(GetListCount(tokens), 1);
    DestroyList(tokens);
    std::string too_long(513, 'a');
    EXPECT_EQ(CreateTokenList(too_long.data(), "->", &tokens), 0);
    EXPECT_EQ(tokens, nullptr);
}

TEST_F(TreeTest, ChildrenStandNewestFirstWithBackLinks) {
    treeNode* a = nullptr;
    treeNode* b = nullptr;
    ASSERT_EQ(AddMetricNode("A", root, &a), 1);
    ASSERT_EQ(AddMetricNode("B", root, &b), 1);
    EXPECT_EQ(root->child, b);
    EXPECT_EQ(b->next, a);
    EXPECT_EQ(a->prev, b);
    EXPECT_EQ(b->prev, nullptr);
    EXPECT_EQ(a->parent, root);
    // The same name finds the existing child; the name is taken as given, not joined.
    treeNode* again = nullptr;
    ASSERT_EQ(AddMetricNode("A", root, &again), 1);
    EXPECT_EQ(again, a);
    EXPECT_STREQ(a->data->text, "A");
    EXPECT_EQ(a->data->instances, nullptr);
    treeNode* none = nullptr;
    EXPECT_EQ(AddMetricNode("C", nullptr, &none), 0);
}

TEST_F(TreeTest, AddCounterBuildsLevelsCarryingTheFirstCountersAttributes) {
    auto table = CpuLikeTable();
    double record[5] = {};
    ASSERT_EQ(AddCounter("Cpu", table.data(), record, root), 1);

    treeNode* cls = Find("Cpu");
    ASSERT_NE(cls, nullptr);
    EXPECT_EQ(ChildCount(cls), 2);  // " Mode Averages" and "Average Utilization"

    // The intermediate level was made by the first counter and carries its description.
    treeNode* mid = Find("Cpu-> Mode Averages");
    ASSERT_NE(mid, nullptr);
    EXPECT_STREQ(mid->data->description, "Cpu-> Mode Averages");
    EXPECT_STREQ(mid->data->text, "CPU in Idle mode");
    EXPECT_EQ(ChildCount(mid), 2);

    treeNode* idle = Find("Cpu-> Mode Averages->Idle");
    ASSERT_NE(idle, nullptr);
    EXPECT_EQ(idle->data->offset, 24u);
    EXPECT_EQ(idle->data->type, 4u);
    EXPECT_EQ(idle->data->attr, 1u);
    EXPECT_EQ(idle->data->alertable, 1u);
    EXPECT_STREQ(idle->data->unit, "%");
    ASSERT_EQ(GetListCount(idle->data->instances), 1);
    auto* inst = static_cast<MetricInstance*>(idle->data->instances->first->data);
    EXPECT_EQ(inst->base, record);
    EXPECT_STREQ(inst->name, "Cpu-> Mode Averages->Idle");

    EXPECT_NE(Find("Cpu->Average Utilization"), nullptr);
    EXPECT_EQ(Find("Cpu->Name"), nullptr);       // attributes are not alertable
    EXPECT_EQ(Find("Cpu->After End"), nullptr);  // the walk stops at the terminator
    EXPECT_EQ(Find("Cpu->Idle"), nullptr);       // every level must be named
    EXPECT_EQ(Find(" Mode Averages"), nullptr);

    // Registering again: no second class node, "->" counters reused, the single-level
    // counter added a second time.
    ASSERT_EQ(AddCounter("Cpu", table.data(), record, root), 1);
    EXPECT_EQ(ChildCount(root), 1);
    EXPECT_EQ(ChildCount(mid), 2);
    EXPECT_EQ(CountNamed(cls, "Cpu->Average Utilization"), 2);
    EXPECT_EQ(GetListCount(idle->data->instances), 1);

    EXPECT_EQ(AddCounter("Cpu", table.data(), record, nullptr), 5);
}

TEST_F(TreeTest, LevelNamesHoldingDashesOrGreaterThanSplitThere) {
    std::vector<CounterDef> table = {Row("Read-Write->Rate>Max", "odd", 4, 1), CounterDef{}};
    ASSERT_EQ(AddCounter("Disk", table.data(), nullptr, root), 1);
    EXPECT_NE(Find("Disk->Read->Write->Rate->Max"), nullptr);
    // The same path written with the original punctuation resolves identically.
    treeNode* found = nullptr;
    EXPECT_EQ(SearchDescription1("Disk->Read-Write->Rate>Max", root, &found, 1), 1);
    EXPECT_STREQ(found->data->description, "Disk->Read->Write->Rate->Max");
}

TEST_F(TreeTest, SearchRejectsMissingRootAndOverlongPaths) {
    auto table = CpuLikeTable();
    ASSERT_EQ(AddCounter("Cpu", table.data(), nullptr, root), 1);
    treeNode* found = reinterpret_cast<treeNode*>(0x1);
    EXPECT_EQ(SearchDescription1("Cpu", nullptr, &found, 0), 0);
    std::string long_path = "Cpu->" + std::string(600, 'x');
    EXPECT_EQ(SearchDescription1(long_path.c_str(), root, &found, 0), 0);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(SearchDescription1("Cpu->Nope", root, &found, 1), 0);
}

TEST_F(TreeTest, SecondProcessOfTheSameNameAddsInstancesNotNodes) {
    auto table = ProcessLikeTable();
    char first[32] = {}, second[32] = {};
    ASSERT_EQ(AddProcessCounter("sendmail", table.data(), first, root, 100), 1);
    treeNode* proc = Find("Process->sendmail");
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(ChildCount(proc), 2);
    treeNode* cpu = Find("Process->sendmail->% CPU Utilization");
    ASSERT_NE(cpu, nullptr);
    ASSERT_EQ(GetListCount(cpu->data->instances), 1);
    EXPECT_STREQ(static_cast<MetricInstance*>(cpu->data->instances->first->data)->name, "100");

    ASSERT_EQ(AddProcessCounter("sendmail", table.data(), second, root, 200), 1);
    EXPECT_EQ(ChildCount(proc), 2);
    treeNode* rss = Find("Process->sendmail->Rss (Kb)");
    ASSERT_NE(rss, nullptr);
    for (treeNode* leaf : {cpu, rss}) {
        ASSERT_EQ(GetListCount(leaf->data->instances), 2);
        auto* added = static_cast<MetricInstance*>(leaf->data->instances->last->data);
        EXPECT_STREQ(added->name, "200");
        EXPECT_EQ(added->base, second);
    }
    // The same pid again adds nothing.
    ASSERT_EQ(AddProcessCounter("sendmail", table.data(), second, root, 200), 1);
    EXPECT_EQ(GetListCount(cpu->data->instances), 2);
    // Another name gets its own node beside the first.
    ASSERT_EQ(AddProcessCounter("sshd", table.data(), first, root, 300), 1);
    EXPECT_EQ(ChildCount(Find("Process")), 2);
    EXPECT_EQ(AddProcessCounter("sshd", table.data(), first, nullptr, 300), 5);
}

TEST_F(TreeTest, RemovingKeepsSiblingsLinked) {
    treeNode *a, *b, *c, *d;
    AddMetricNode("A", root, &a);
    AddMetricNode("B", root, &b);
    AddMetricNode("C", root, &c);
    AddMetricNode("D", root, &d);  // order: D C B A
    treeNode* grandchild = nullptr;
    AddMetricNode("B1", b, &grandchild);

    ASSERT_EQ(RemoveNode(b), 1);  // a middle child with its own subtree
    EXPECT_EQ(c->next, a);
    EXPECT_EQ(a->prev, c);
    EXPECT_EQ(ChildCount(root), 3);

    ASSERT_EQ(RemoveNode(d), 1);  // the first child
    EXPECT_EQ(root->child, c);
    EXPECT_EQ(c->prev, nullptr);

    ASSERT_EQ(RemoveNode(a), 1);  // the last child
    EXPECT_EQ(c->next, nullptr);
    EXPECT_EQ(RemoveNode(nullptr), 1);
    EXPECT_EQ(Find("B"), nullptr);
    EXPECT_NE(Find("C"), nullptr);
    // The tree lock was released on every path: a search still gets it.
}

void Collect(treeNode* leaf, void* arg, void* arg2) {
    EXPECT_EQ(arg, arg2);
    static_cast<std::vector<std::string>*>(arg)->emplace_back(leaf->data->description);
}

TEST_F(TreeTest, LeafWalkVisitsSiblingsBeforeChildren) {
    treeNode *a, *b, *a1, *a2, *b1;
    AddMetricNode("A", root, &a);
    AddMetricNode("B", root, &b);  // root: B A
    AddMetricNode("A1", a, &a1);
    AddMetricNode("A2", a, &a2);  // A: A2 A1
    AddMetricNode("B1", b, &b1);
    treeNode* leaf = nullptr;
    AddMetricNode("L", root, &leaf);  // root: L B A
    std::vector<std::string> seen;
    Traverse_Tree_for_leaves(root->child, Collect, &seen);
    // L (a leaf), then B and A are inner nodes; then the children of the last sibling
    // first: A's (A2 A1), then B's (B1).
    EXPECT_EQ(seen, (std::vector<std::string>{"L", "A2", "A1", "B1"}));
    seen.clear();
    TraverseTree(nullptr, Collect, &seen);
    EXPECT_TRUE(seen.empty());
}

void CountLeaf(treeNode*, void* arg, void*) {
    ++*static_cast<int*>(arg);
}

TEST_F(TreeTest, WritersAndReadersShareTheTreeUnderItsLock) {
    // A collection thread adding and dropping processes while request threads resolve paths
    // and walk leaves: every entry point takes the tree lock itself.
    auto table = ProcessLikeTable();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        char base[32] = {};
        for (int round = 0; round < 200; ++round) {
            AddProcessCounter("worker", table.data(), base, root, 1000 + round);
            treeNode* proc = nullptr;
            if (SearchDescription1("Process->worker", root, &proc, 0) && round % 10 == 9)
                RemoveNode(proc);
        }
        done = true;
    });
    std::thread reader([&] {
        while (!done) {
            int leaves = 0;
            Traverse_Tree_for_leaves(root, CountLeaf, &leaves);  // the root itself is stable
            treeNode* found = nullptr;
            SearchDescription1("Process->worker->Rss (Kb)", root, &found, 0);
        }
    });
    writer.join();
    reader.join();
    treeNode* proc = Find("Process->worker");
    ASSERT_EQ(proc, nullptr);  // the last round removed it
}

TEST(TreeRoot, CreatedOnceWithRootText) {
    ASSERT_EQ(Metric_Tree, nullptr);
    ASSERT_EQ(rtal_create_root("node1"), 1);
    treeNode* root = Metric_Tree;
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root->data->text, "Root node");
    EXPECT_STREQ(root->data->description, "node1");
    ASSERT_EQ(rtal_create_root("node2"), 1);
    EXPECT_EQ(Metric_Tree, root);
    RemoveNode(Metric_Tree);  // the root has no parent: the whole tree goes
    EXPECT_EQ(Metric_Tree, nullptr);
}

}  // namespace
