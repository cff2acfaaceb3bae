// Concurrency: consoles sending rules, collecting alerts, posting and collecting events and
// asking for descriptions while the evaluator runs every few milliseconds and processes come
// and go in the tree. Run under ThreadSanitizer; bounded iterations throughout.
#include <chrono>

#include "alert_test_util.h"

namespace alert_test {
namespace {

using AlertStress = AlertTest;

TEST_F(AlertStress, ConsolesAndTheEvaluatorShareTheListsSafely) {
    {
        std::lock_guard<std::mutex> lock(event_mutex);
        no_events = 0;
    }
    record_.busy = 90;
    record_.sent = 3;
    start_rtal = 1;
    struct Proc {
        double cpu;
    } proc{60};
    std::vector<CounterDef> ptable = {Row("% CPU", "cpu share", 4, 0),
                                      Row("Faults", "faults", 4, 0), CounterDef{}};
    std::atomic<bool> done{false};
    std::atomic<int> events_posted{0};
    std::atomic<int> events_received{0};

    // The consoles keep going for as long as the evaluator runs (each loop is bounded too).
    std::thread evaluator([&] {
        for (int i = 0; i < 100; ++i) {
            rtal_checkexp();
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        done = true;
    });
    // Processes starting and ending, as the process collector registers and drops them.
    std::thread churn([&] {
        for (int i = 0; i < 400 && !done; ++i) {
            AddProcessCounter("worker", ptable.data(), &proc, Metric_Tree, 100 + i % 3);
            if (i % 4 == 3) {
                treeNode* node = nullptr;
                if (SearchDescription1("Process->worker", Metric_Tree, &node, 0)) RemoveNode(node);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::vector<std::thread> consoles;
    for (int c = 0; c < 2; ++c) {
        consoles.emplace_back([&, c] {
            char owner[16];
            snprintf(owner, sizeof owner, " 10.0.0.%d", c + 1);
            for (int i = 0; i < 400 && !done; ++i) {
                WithStream(
                    "net:Net->*:>:0:0:0:all of net\n"
                    "proc:Process->worker->% CPU:>:50:0:0\n"
                    "procs:Process->*:>=:0:0:0\n"
                    "busy:Net->Load->Busy:>:80:0:0\n",
                    [&](FILE* f) { rtal_expdef_action(f, owner); });
                std::string got = Exchange([&](int fd) { rtal_getalert_action(fd, owner); });
                EXPECT_EQ(got.rfind("<ALERTS>\n", 0), 0u);
                EXPECT_EQ(CountOf(got, "</ALERTS>\n"), 1);
                rtal_expdef_check_defs(-1, 0);
                log_expdef_list(1);
                log_alert_list(1);
            }
        });
    }
    consoles.emplace_back([&] {
        for (int i = 0; i < 400 && !done; ++i) {
            WithStream("an event\nanother event\n",
                       [&](FILE* f) { handle_event_request(f, -1, " 10.0.0.9"); });
            events_posted += 2;
            std::string got = Exchange([](int fd) { rtal_event_getalert_action(fd, " 10.0.0.9"); });
            events_received += CountOf(got, " event\n");
        }
    });
    consoles.emplace_back([&] {
        for (int i = 0; i < 100 && !done; ++i) {
            std::string got = Exchange([](int fd) { rtal_desc_action(fd); });
            EXPECT_EQ(CountOf(got, "</HEADER>\n"), 1);
        }
    });
    evaluator.join();
    for (auto& t : consoles) t.join();
    churn.join();
    start_rtal = 0;

    EXPECT_GT(events_posted.load(), 0);
    EXPECT_EQ(events_received.load(), events_posted.load());  // each delivered exactly once
    // Every rule left belongs to one of the two consoles.
    for (const auto& r : Rules())
        EXPECT_TRUE(strcmp(r.owner, " 10.0.0.1") == 0 || strcmp(r.owner, " 10.0.0.2") == 0);
}

}  // namespace
}  // namespace alert_test
