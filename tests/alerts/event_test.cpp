// Events: the fixed store and its reply, a console that stops reading, a client that stops
// sending, and the event definition file.
#include <sys/stat.h>

#include <chrono>

#include "alert_test_util.h"

namespace alert_test {
namespace {

class EventTest : public AlertTest {
  protected:
    void SetUp() override {
        AlertTest::SetUp();
        ClearEvents();
    }
    void TearDown() override {
        ClearEvents();
        AlertTest::TearDown();
    }
    static void ClearEvents() {
        std::lock_guard<std::mutex> lock(event_mutex);
        no_events = 0;
    }
    static void Post(const std::string& text) {
        WithStream(text, [](FILE* f) { EXPECT_EQ(handle_event_request(f, -1, " 10.0.0.5"), 0); });
    }
    static std::string Get(int* rc = nullptr) {
        return Exchange([&](int fd) {
            int result = rtal_event_getalert_action(fd, " x");
            if (rc) *rc = result;
        });
    }
    static int Stored() {
        std::lock_guard<std::mutex> lock(event_mutex);
        return no_events;
    }
    static const std::string kOpen, kClose;
};
const std::string EventTest::kOpen = "<EVENT_ALERTS_GENERATED>\n";
const std::string EventTest::kClose = "</EVENT_ALERTS_GENERATED>\n";

TEST_F(EventTest, LinesComeBackVerbatimOnceAndLongLinesSpreadOverSlots) {
    const std::string longline(2000, 'L');
    Post("disk full\nno newline at the end");
    Post(longline + "\nafter\n");
    EXPECT_EQ(Stored(), 7);  // 2, then 511 + 511 + 511 + 467 with its newline, and "after"
    {
        std::lock_guard<std::mutex> lock(event_mutex);
        EXPECT_EQ(std::string(eventlist[5]), std::string(467, 'L') + "\n");
    }
    int rc = 0;
    EXPECT_EQ(Get(&rc),
              kOpen + "disk full\nno newline at the end" + longline + "\nafter\n" + kClose);
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(Get(&rc), kOpen + kClose);
    EXPECT_EQ(rc, 1);
}

TEST_F(EventTest, SixHundredLinesFillTheStoreAndOverflowIsLoggedOnce) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += "event " + std::to_string(i) + "\n";
    Post(text);
    Post("one more\n");  // a full store reads nothing
    EXPECT_EQ(Stored(), kMaxEvents);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENTDEF   error too many events \n"), 1);
    std::string got = Get();
    EXPECT_EQ(CountOf(got, "event "), kMaxEvents);
    EXPECT_NE(got.find("event 511\n" + kClose), std::string::npos);
}

TEST_F(EventTest, AFailedWriteKeepsTheEventsAndReleasesTheStore) {
    std::string text;
    for (int i = 0; i < kMaxEvents; ++i) text += std::string(500, 'e') + "\n";
    Post(text);
    for (bool gone : {false, true}) {  // a console that stops reading, one already gone
        int sv[2];
        StuckConsole(sv);
        if (gone) close(sv[1]);
        EXPECT_EQ(rtal_event_getalert_action(sv[0], " x"), -1);
        close(sv[0]);
        if (!gone) close(sv[1]);
        ASSERT_TRUE(event_mutex.try_lock());  // later <EVENT> requests are not locked out
        event_mutex.unlock();
        EXPECT_EQ(Stored(), kMaxEvents);
    }
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENT: failed to send event "), 1);
    EXPECT_EQ(CountOf(Get(), std::string(500, 'e') + "\n"), kMaxEvents);
    EXPECT_EQ(Stored(), 0);
}

TEST_F(EventTest, AClientThatStopsSendingEndsAtTheReceiveTimeout) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    struct timeval tv {
        0, 200000
    };  // the server sets this on every request socket
    ASSERT_EQ(setsockopt(sv[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv), 0);
    ASSERT_EQ(write(sv[1], "first\nsecond\n", 13), 13);
    FILE* stream = fdopen(sv[0], "r");
    ASSERT_NE(stream, nullptr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(handle_event_request(stream, sv[0], " 10.0.0.5"), 0);  // sv[1] stays open
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    fclose(stream);
    close(sv[1]);
    EXPECT_EQ(Stored(), 2);
}

TEST_F(EventTest, EventDefinitionIsWrittenAnewToTheSettingsDirectory) {
    const std::string path = dir_ + "/eventdef_testhost.dat";
    auto def = [](const std::string& rest, const char* tag_line) {
        int rc = -1;
        WithStream(rest, [&](FILE* f) { rc = handle_event_def_request(f, -1, tag_line, " c"); });
        return rc;
    };
    EXPECT_EQ(def("line one\nline two\n", "<EVENT_DEF> header\n"), 1);
    EXPECT_EQ(ReadFile(path), "<EVENT_DEF> header\nline one\nline two\n");
    EXPECT_EQ(def("short\n", "<EVENT_DEF>\n"), 1);
    EXPECT_EQ(ReadFile(path), "<EVENT_DEF>\nshort\n");

    std::string flood;  // cut rather than fill the disk
    while (flood.size() < (2u << 20)) flood += std::string(100, 'f') + "\n";
    EXPECT_EQ(def(flood, "<EVENT_DEF>\n"), 1);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_LE(st.st_size, 1 << 20);

    snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s/missing", dir_.c_str());
    EXPECT_EQ(def("x\n", "<EVENT_DEF>\n"), 0);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-TAG:       <EVENT_DEF> tag \n"), 4);
}

}  // namespace
}  // namespace alert_test
