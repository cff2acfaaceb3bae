// Shared set-up for the alerting suites: a log to read back, a small tree built by the real
// registration code, empty rule, alert and event stores, a hand-driven clock, socket consoles.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <thread>
#include <utility>

#include "agent/rtdc_log.h"
#include "alerts/rtal_state.h"
#include "packet/rtdc_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_expdef.h"
#include "control/rta_cmdline.h"

namespace alert_test {

inline std::atomic<time_t> fake_now{1000000};

struct TestRecord {
    double busy, idle;
    int64_t sent;
    int32_t conns;
};

// Log in a temp dir, a root "testhost" with a "Net" class reading `record_` (the attribute
// row and the row after the terminator stay out of the tree), the fake clock, 30 s passes.
class AlertTest : public ::testing::Test {
  public:
    static std::string ReadFile(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    static std::string Fixture(const char* name) {
        return ReadFile(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/alerts/" + name);
    }
    template <class... Args>
    static std::string Fmt(const char* format, Args... args) {
        char buf[1024];
        snprintf(buf, sizeof buf, format, args...);
        return buf;
    }
    static int CountOf(const std::string& hay, const std::string& needle) {
        int n = 0;
        for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
        return n;
    }
    static CounterDef Row(const std::string& name, const char* text, int type, int offset,
                          const char* units = "%", int is_counter = 1) {
        CounterDef row{1, offset, {}, type, {}, 0, {}, is_counter};
        snprintf(row.name, sizeof row.name, "%s", name.c_str());
        snprintf(row.description, sizeof row.description, "%s", text);
        snprintf(row.units, sizeof row.units, "%s", units);
        return row;
    }
    static treeNode* Find(const std::string& path) {
        treeNode* found = nullptr;
        return SearchDescription1(path.c_str(), Metric_Tree, &found, 0) ? found : nullptr;
    }
    static void ClearLists() {
        std::lock_guard<std::mutex> rules(expdef_mutex), alerts(alert_mutex);
        DestroyList(Expdef_list);  // a rule's metric is the tree's; only the rule is freed
        Expdef_list = nullptr;
        for (ListItem* it = Alert_list ? Alert_list->first : nullptr; it; it = it->next)
            rtal_free_alert(static_cast<ExceptionObject*>(std::exchange(it->data, nullptr)));
        DestroyList(Alert_list);
        Alert_list = nullptr;
    }
    // Shallow copies of the rules (or alerts) in list order.
    static std::vector<ExceptionObject> Copies(List* list, std::mutex& guard) {
        std::lock_guard<std::mutex> lock(guard);
        std::vector<ExceptionObject> out;
        for (ListItem* it = list ? list->first : nullptr; it; it = it->next)
            out.push_back(*static_cast<ExceptionObject*>(it->data));
        return out;
    }
    static std::vector<ExceptionObject> Rules() { return Copies(Expdef_list, expdef_mutex); }
    static std::vector<ExceptionObject> Alerts() { return Copies(Alert_list, alert_mutex); }
    static void WithStream(std::string text, const std::function<void(FILE*)>& fn) {
        FILE* f = fmemopen(text.data(), text.size(), "r");
        ASSERT_NE(f, nullptr);
        fn(f);
        fclose(f);
    }
    static void LoadRules(const std::string& text, const char* owner = " 10.0.0.1") {
        WithStream(text, [&](FILE* f) { rtal_expdef_action(f, owner); });
    }
    static void Post(const std::string& events) {
        WithStream(events, [](FILE* f) { EXPECT_EQ(handle_event_request(f, -1, " c"), 0); });
    }
    static std::function<int(int)> GetAlerts(const char* owner) {
        return [owner](int fd) { return rtal_getalert_action(fd, owner); };
    }
    static int GetEvents(int fd) { return rtal_event_getalert_action(fd, " x"); }
    static int Desc(int fd) { return rtal_desc_action(fd), 0; }
    // Runs `agent_side` on the agent end of a socketpair and returns what the console end
    // received. A console that reads does so on its own thread (each wait bounded); a stuck
    // one reads only after the reply, which gives up writing after 200 ms; a gone one has
    // shut its end before the reply starts.
    enum Console { kReads, kStuck, kGone };
    static std::string Exchange(const std::function<int(int)>& agent_side, int* rc = nullptr,
                                Console console = kReads) {
        int sv[2], small = 4096;
        timeval tv{0, 200000};
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return "socketpair failed";
        if (console == kStuck) {
            setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
            setsockopt(sv[0], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        }
        std::string got;
        auto read_all = [&] {
            char buf[4096];
            pollfd p{sv[1], POLLIN, 0};
            for (ssize_t n; poll(&p, 1, 5000) > 0 && (n = read(sv[1], buf, sizeof buf)) > 0;)
                got.append(buf, static_cast<size_t>(n));
        };
        std::thread reader;
        if (console == kReads) reader = std::thread(read_all);
        if (console == kGone) shutdown(sv[1], SHUT_RD);
        int result = agent_side(sv[0]);
        if (rc) *rc = result;
        close(sv[0]);
        console == kReads ? reader.join() : read_all();
        close(sv[1]);
        return got;
    }

  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/vornalertXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s", tmpl);
        snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "testhost");
        rtdc_log_reset_for_tests();
        snprintf(logfilec, sizeof logfilec, "%s/rta.log", tmpl);
        ClearLists();
        no_events = 0;  // no other thread runs between tests
        ASSERT_EQ(rtal_create_root("testhost"), 1);
        table_ = {Row("Load->Busy", "Busy share", 4, offsetof(TestRecord, busy)),
                  Row("Load->Idle", "Idle share", 4, offsetof(TestRecord, idle)),
                  Row("Sent", "Segments sent", 6, offsetof(TestRecord, sent), "/Sec"),
                  Row("Name", "an attribute", 11, 0, "", 0),
                  Row("Err->Drops", "Dropped", 1, offsetof(TestRecord, conns), "#"),
                  Row("Connections", "Open connections", 1, offsetof(TestRecord, conns), "#"),
                  CounterDef{},
                  Row("After End", "never read", 4, 0)};
        ASSERT_EQ(AddCounter("Net", table_.data(), &record_, Metric_Tree), 1);
        fake_now = 1000000;
        rtal_set_clock([] { return fake_now.load(); });
        rtal_intvl = 30;
    }
    void TearDown() override {
        rtal_set_clock(nullptr);
        ClearLists();
        RemoveNode(Metric_Tree);
        verbose_flag = 0;
        start_rtal = start_rtdc = 0;
        rtdc_log_reset_for_tests();
        (void)system(("rm -rf " + dir_).c_str());
    }
    std::string Log() const { return ReadFile(logfilec); }
    void PassAt(time_t t, double busy) {
        fake_now = t;
        record_.busy = busy;
        rtal_checkexp();
    }

    std::string dir_;
    std::vector<CounterDef> table_, ptable_ = {Row("v", "", 4, 0), CounterDef{}};
    TestRecord record_{};
};

}  // namespace alert_test
