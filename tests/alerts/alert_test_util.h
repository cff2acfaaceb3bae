// Shared set-up for the alerting suites: a log file in a temp dir that tests can read back,
// a small metric tree built through the real registration code, empty rule and alert lists,
// a hand-driven clock, and a console end of a socketpair that drains replies.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
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
#include "alerts/rtal_tree.h"
#include "control/rta_cmdline.h"

namespace alert_test {

inline std::string MakeTempDir() {
    char tmpl[] = "/tmp/vornalertXXXXXX";
    const char* dir = mkdtemp(tmpl);
    return dir ? dir : "";
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline int CountOf(const std::string& hay, const std::string& needle) {
    int n = 0;
    for (size_t pos = hay.find(needle); pos != std::string::npos;
         pos = hay.find(needle, pos + needle.size()))
        ++n;
    return n;
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);) out.push_back(line);
    return out;
}

// The hand-driven clock of the alert state machine.
inline std::atomic<time_t> fake_now{1000000};
inline time_t FakeClock() { return fake_now.load(); }

inline CounterDef Row(const char* name, const char* description, int type, int offset,
                      const char* units = "%", int is_counter = 1, int marker = 0) {
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

struct TestRecord {
    double busy;
    double idle;
    int64_t sent;
    int32_t conns;
};

// Frees every rule and alert so each test starts from no lists at all.
inline void ClearLists() {
    {
        std::lock_guard<std::mutex> lock(expdef_mutex);
        DestroyList(Expdef_list);  // rules point into the tree; only the rule is theirs
        Expdef_list = nullptr;
        DestroyList(Evntdef_list);
        Evntdef_list = nullptr;
    }
    std::lock_guard<std::mutex> lock(alert_mutex);
    if (Alert_list) {
        for (ListItem* it = Alert_list->first; it; it = it->next)
            rtal_free_alert(static_cast<ExceptionObject*>(it->data));
        for (ListItem* it = Alert_list->first; it; it = it->next) it->data = nullptr;
        DestroyList(Alert_list);
        Alert_list = nullptr;
    }
}

inline int AlertCount() {
    std::lock_guard<std::mutex> lock(alert_mutex);
    return GetListCount(Alert_list);
}

inline int RuleCount() {
    std::lock_guard<std::mutex> lock(expdef_mutex);
    return GetListCount(Expdef_list);
}

inline std::vector<ExceptionObject> Rules() {
    std::lock_guard<std::mutex> lock(expdef_mutex);
    std::vector<ExceptionObject> out;
    for (ListItem* it = Expdef_list ? Expdef_list->first : nullptr; it; it = it->next)
        out.push_back(*static_cast<ExceptionObject*>(it->data));
    return out;
}

inline std::vector<ExceptionObject> Alerts() {
    std::lock_guard<std::mutex> lock(alert_mutex);
    std::vector<ExceptionObject> out;
    for (ListItem* it = Alert_list ? Alert_list->first : nullptr; it; it = it->next)
        out.push_back(*static_cast<ExceptionObject*>(it->data));
    return out;
}

// Feeds `text` to a reader as the rest of a request stream.
inline void WithStream(const std::string& text, const std::function<void(FILE*)>& fn) {
    std::string copy = text;
    FILE* f = fmemopen(copy.data(), copy.size(), "r");
    ASSERT_NE(f, nullptr);
    fn(f);
    fclose(f);
}

// Runs `agent_side` on one end of a socketpair while a console thread reads the other end to
// end of stream (bounded by a poll timeout); returns what the console received.
inline std::string Exchange(const std::function<void(int)>& agent_side) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return "socketpair failed";
    std::string got;
    std::thread console([&] {
        char buf[4096];
        for (int spins = 0; spins < 1000; ++spins) {
            struct pollfd p {sv[1], POLLIN, 0};
            if (poll(&p, 1, 5000) <= 0) break;
            ssize_t n = read(sv[1], buf, sizeof buf);
            if (n <= 0) break;
            got.append(buf, static_cast<size_t>(n));
            spins = 0;
        }
    });
    agent_side(sv[0]);
    close(sv[0]);
    console.join();
    close(sv[1]);
    return got;
}

// An agent end whose writes give up quickly once the console stops reading.
inline void ShrinkAndTimeOut(int fd) {
    int small = 4096;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    struct timeval tv {0, 200000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

inline std::string DrainNonBlocking(int fd) {
    std::string got;
    char buf[4096];
    for (;;) {
        struct pollfd p {fd, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) break;
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

// Log in a temp dir, empty lists, a root named "testhost" with a "Net" class of four
// counters reading `record`, the fake clock.
class AlertTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = MakeTempDir();
        ASSERT_FALSE(dir_.empty());
        snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", dir_.c_str());
        snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s", dir_.c_str());
        snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "testhost");
        rtdc_log_reset_for_tests();
        get_log_file_name_unix("testhost", logfilec);
        ClearLists();
        ASSERT_EQ(Metric_Tree, nullptr);
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
        verbose_flag = 0;
        rtal_intvl = 30;
        unsetenv("RTA_VERBOSE_ALERTS");
    }

    void TearDown() override {
        rtal_set_clock(nullptr);
        ClearLists();
        RemoveNode(Metric_Tree);
        Metric_Tree = nullptr;
        verbose_flag = 0;
        rtal_intvl = 120;
        rtdc_log_reset_for_tests();
        // Later suites in this program log too; keep them out of the removed directory.
        snprintf(logfilec, sizeof logfilec, "/dev/null");
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
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
