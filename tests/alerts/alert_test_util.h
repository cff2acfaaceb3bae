// Shared set-up for the alerting suites: a log to read back, a small tree built by the real
// registration code, empty rule and alert lists, a hand-driven clock, socketpair consoles.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_expdef.h"
#include "control/rta_cmdline.h"

namespace alert_test {

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline int CountOf(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
    return n;
}

inline std::atomic<time_t> fake_now{1000000};
inline time_t FakeClock() {
    return fake_now.load();
}

inline CounterDef Row(const char* name, const char* description, int type, int offset,
                      const char* units = "%", int is_counter = 1) {
    CounterDef row{};
    row.id = 1;
    row.offset = offset;
    snprintf(row.name, sizeof row.name, "%s", name);
    row.type = type;
    snprintf(row.description, sizeof row.description, "%s", description);
    snprintf(row.units, sizeof row.units, "%s", units);
    row.is_counter = is_counter;
    return row;
}

inline void ClearLists() {
    std::lock_guard<std::mutex> rules(expdef_mutex);
    DestroyList(Expdef_list);  // a rule's metric is the tree's; only the rule is freed
    Expdef_list = nullptr;
    DestroyList(Evntdef_list);
    Evntdef_list = nullptr;
    std::lock_guard<std::mutex> lock(alert_mutex);
    for (ListItem* it = Alert_list ? Alert_list->first : nullptr; it; it = it->next) {
        rtal_free_alert(static_cast<ExceptionObject*>(it->data));
        it->data = nullptr;
    }
    DestroyList(Alert_list);
    Alert_list = nullptr;
}

// Snapshot copies of the rules (or alerts) in list order.
inline std::vector<ExceptionObject> Copies(List* list, std::mutex& guard) {
    std::lock_guard<std::mutex> lock(guard);
    std::vector<ExceptionObject> out;
    for (ListItem* it = list ? list->first : nullptr; it; it = it->next)
        out.push_back(*static_cast<ExceptionObject*>(it->data));
    return out;
}
inline std::vector<ExceptionObject> Rules() {
    return Copies(Expdef_list, expdef_mutex);
}
inline std::vector<ExceptionObject> Alerts() {
    return Copies(Alert_list, alert_mutex);
}

inline void WithStream(std::string text, const std::function<void(FILE*)>& fn) {
    FILE* f = fmemopen(text.data(), text.size(), "r");
    ASSERT_NE(f, nullptr);
    fn(f);
    fclose(f);
}

// Runs `agent_side` on one end of a socketpair while a console thread reads the other end to
// end of stream (each wait bounded); returns what the console received.
inline std::string Exchange(const std::function<void(int)>& agent_side) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return "socketpair failed";
    std::string got;
    std::thread console([&] {
        char buf[4096];
        struct pollfd p {
            sv[1], POLLIN, 0
        };
        for (ssize_t n; poll(&p, 1, 5000) > 0 && (n = read(sv[1], buf, sizeof buf)) > 0;)
            got.append(buf, static_cast<size_t>(n));
    });
    agent_side(sv[0]);
    close(sv[0]);
    console.join();
    close(sv[1]);
    return got;
}

// A socketpair whose agent end (sv[0]) gives up writing quickly once nobody reads.
inline void StuckConsole(int sv[2]) {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    struct timeval tv {
        0, 200000
    };
    setsockopt(sv[0], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

struct TestRecord {
    double busy, idle;
    int64_t sent;
    int32_t conns;
};

// Log in a temp dir, a root "testhost" with a "Net" class of four counters reading
// `record_`, the fake clock, a 30 s alert interval.
class AlertTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/vornalertXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", tmpl);
        snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s", tmpl);
        snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "testhost");
        rtdc_log_reset_for_tests();
        get_log_file_name_unix("testhost", logfilec);
        ClearLists();
        ASSERT_EQ(rtal_create_root("testhost"), 1);
        table_ = {Row("Load->Busy", "Busy share", 4, offsetof(TestRecord, busy)),
                  Row("Load->Idle", "Idle share", 4, offsetof(TestRecord, idle)),
                  Row("Sent", "Segments sent", 6, offsetof(TestRecord, sent), "/Sec"),
                  Row("Name", "an attribute", 11, 0, "", 0),
                  Row("Connections", "Open connections", 1, offsetof(TestRecord, conns), "#"),
                  CounterDef{}};
        ASSERT_EQ(AddCounter("Net", table_.data(), &record_, Metric_Tree), 1);
        fake_now = 1000000;
        rtal_set_clock(FakeClock);
        rtal_intvl = 30;
    }
    void TearDown() override {
        rtal_set_clock(nullptr);
        ClearLists();
        RemoveNode(Metric_Tree);
        verbose_flag = 0;
        rtal_intvl = 120;
        rtdc_log_reset_for_tests();
        snprintf(logfilec, sizeof logfilec, "/dev/null");  // later suites log too
        (void)system(("rm -rf " + dir_).c_str());
    }
    std::string Log() const { return ReadFile(logfilec); }
    void LoadRules(const std::string& text, const char* owner = " 10.0.0.1") {
        WithStream(text, [&](FILE* f) { rtal_expdef_action(f, owner); });
    }

    std::string dir_;
    std::vector<CounterDef> table_;
    TestRecord record_{};
};

}  // namespace alert_test
