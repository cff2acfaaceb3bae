// The collectors' output as the agent runs it: lines only while a console is served, tree
// counters only while they are due, and the file-system class's variations of both.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "alerts/rtal_tree.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_output.h"
#include "packet/rtdc_state.h"

namespace {

struct Probe {
    double level = 42.5;
};

class Output : public ::testing::Test {
  protected:
    void SetUp() override {
        rtal_create_root("testhost");
        clear();
    }
    void TearDown() override {
        clear();
        start_rtdc = 0;
        counter_added = 0;
    }
    void clear() {
        while (Metric_Tree && Metric_Tree->child) RemoveNode(Metric_Tree->child);
        rtdc_free_lines(headers, &nheaders, &n_rtdc_header_len);
        rtdc_free_lines(buffers, &nbuffers, &n_rtdc_data_len);
    }
    static bool registered(const char* path) {
        treeNode* node = nullptr;
        return SearchDescription1(path, Metric_Tree, &node, 0) && node;
    }

    char* headers[8] = {};
    char* buffers[8] = {};
    int nheaders = 0, nbuffers = 0;
    PacketOutput out{headers, &nheaders, buffers, &nbuffers};
    Probe record;
    CounterDef table[2] = {{1, 0, "Level", 4, "level of the probe", 0, "%", 1}, {}};
};

TEST_F(Output, AnnouncementWritesLinesWhileServedAndRegistersWhileDue) {
    // served, registered already, header lines, tree counters; lines written, registered
    for (auto [served, added, lines, tree, want_lines, want_tree] :
         {std::tuple{1, 0, HeaderLines::when_sending, TreeCounters::until_registered, 1, true},
          {0, 0, HeaderLines::when_sending, TreeCounters::until_registered, 0, true},
          {1, 1, HeaderLines::when_sending, TreeCounters::until_registered, 1, false},
          {1, 0, HeaderLines::never, TreeCounters::until_registered, 0, true},
          {0, 1, HeaderLines::when_sending, TreeCounters::always, 0, true},
          {1, 1, HeaderLines::never, TreeCounters::always, 0, true}}) {
        SCOPED_TRACE(testing::Message()
                     << "served " << served << " registered " << added << " lines "
                     << static_cast<int>(lines) << " tree " << static_cast<int>(tree));
        clear();
        start_rtdc = served;
        counter_added = added;
        out.announce("Probe", table, &record, lines, tree);
        EXPECT_EQ(nheaders, want_lines);
        EXPECT_EQ(registered("Probe->Level"), want_tree);
        if (want_lines) {
            EXPECT_NE(strstr(headers[0], "Probe->Level::"), nullptr);
        }
    }
}

TEST_F(Output, ReportsAreSentWhileServedOrRegisterWhenNobodyListens) {
    // served, registered already; data strings, registered by report_or_register
    for (auto [served, added, want_data, want_tree] :
         {std::tuple{1, 0, 1, false}, {0, 0, 0, true}, {0, 1, 0, false}, {1, 1, 1, false}}) {
        SCOPED_TRACE(testing::Message() << "served " << served << " registered " << added);
        clear();
        start_rtdc = served;
        counter_added = added;
        out.report(&record, table);
        EXPECT_EQ(nbuffers, want_data);
        EXPECT_FALSE(registered("Probe->Level"));  // a plain report never registers
        clear();
        out.report_or_register("Probe", table, &record);
        EXPECT_EQ(nbuffers, want_data);
        EXPECT_EQ(registered("Probe->Level"), want_tree);
    }
    start_rtdc = 1;
    out.report(&record, table);
    EXPECT_NE(strstr(buffers[0], "=42.50\n"), nullptr);
}

TEST_F(Output, ProcessLinesAreMadeOnlyForAServedConsole) {
    ProcessHeaderLines pass;
    PacketOutput process_out{headers, &nheaders, buffers, &nbuffers, pass};
    // served, shutting down, header entries already in the array; entries taken, data lines
    for (auto [served, closing, taken, want_entries, want_data] :
         {std::tuple{1, 0, 0, 1, 1}, {0, 0, 0, 0, 0}, {1, 1, 0, 0, 1},
          {1, 0, kMaxLines, 0, 1}}) {
        SCOPED_TRACE(testing::Message()
                     << "served " << served << " closing " << closing << " taken " << taken);
        clear();
        pass.clear();
        start_rtdc = served;
        exit_recieved = closing;
        nheaders = taken;
        // A process left out for want of room is reported as such; one skipped is not.
        EXPECT_EQ(process_out.announce_process("probe", 42, table, &record), taken == 0);
        nheaders = 0;
        EXPECT_EQ(pass.entries(), want_entries);
        process_out.report_process(42, table, &record);
        EXPECT_EQ(nbuffers, want_data);
    }
    exit_recieved = 0;
}

TEST_F(Output, WithdrawnInstancesLeaveTheTreeOnce) {
    CounterDef copy[2] = {{1, 0, "/mnt/a->Level", 4, "level", 0, "%", 1}, {}};
    out.announce("Probe", copy, &record, HeaderLines::never, TreeCounters::always);
    ASSERT_TRUE(registered("Probe->/mnt/a->Level"));
    EXPECT_TRUE(out.withdraw("Probe", "/mnt/a"));
    EXPECT_FALSE(registered("Probe->/mnt/a"));
    EXPECT_FALSE(out.withdraw("Probe", "/mnt/a"));
}

}  // namespace
