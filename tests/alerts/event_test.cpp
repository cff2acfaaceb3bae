// Events: the fixed store, its reply, a console that stops reading, a client that stops
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
        std::lock_guard<std::mutex> lock(event_mutex);
        no_events = 0;
    }
    void TearDown() override {
        {
            std::lock_guard<std::mutex> lock(event_mutex);
            no_events = 0;
        }
        AlertTest::TearDown();
    }
    void Post(const std::string& text) {
        WithStream(text, [](FILE* f) { EXPECT_EQ(handle_event_request(f, -1, " 10.0.0.5"), 0); });
    }
    std::string Get(int* rc = nullptr) {
        int result = 0;
        std::string got = Exchange([&](int fd) { result = rtal_event_getalert_action(fd, " x"); });
        if (rc) *rc = result;
        return got;
    }
    static int Stored() {
        std::lock_guard<std::mutex> lock(event_mutex);
        return no_events;
    }
};

TEST_F(EventTest, StoredLinesComeBackVerbatimOnceToWhoeverAsksFirst) {
    Post("disk full on /var\nbackup done\nno newline at the end");
    Post("second request\n");
    EXPECT_EQ(Stored(), 4);
    int rc = 0;
    EXPECT_EQ(Get(&rc),
              "<EVENT_ALERTS_GENERATED>\n"
              "disk full on /var\nbackup done\nno newline at the endsecond request\n"
              "</EVENT_ALERTS_GENERATED>\n");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(Get(&rc), "<EVENT_ALERTS_GENERATED>\n</EVENT_ALERTS_GENERATED>\n");
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(CountOf(Log(), "VORN-I-EVENT: sending event[1],backup done\n"), 1);
}

TEST_F(EventTest, SixHundredLinesFillTheStoreAndOverflowIsLoggedOnce) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += "event " + std::to_string(i) + "\n";
    Post(text);
    EXPECT_EQ(Stored(), kMaxEvents);
    Post("one more\n");  // a full store reads nothing
    EXPECT_EQ(Stored(), kMaxEvents);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENTDEF   error too many events \n"), 1);
    std::string got = Get();
    EXPECT_EQ(CountOf(got, "event "), kMaxEvents);
    EXPECT_NE(got.find("event 511\n</EVENT_ALERTS_GENERATED>\n"), std::string::npos);
    EXPECT_EQ(got.find("event 512\n"), std::string::npos);
}

TEST_F(EventTest, ALongLineSpreadsOverSlotsAndComesBackWhole) {
    std::string longline(2000, 'L');
    Post(longline + "\nafter\n");
    EXPECT_EQ(Stored(), 5);  // 511 + 511 + 511 + 467 and its newline, then "after"
    {
        std::lock_guard<std::mutex> lock(event_mutex);
        EXPECT_EQ(strlen(eventlist[0]), 511u);
        EXPECT_EQ(std::string(eventlist[3]), std::string(467, 'L') + "\n");
    }
    EXPECT_EQ(Get(), "<EVENT_ALERTS_GENERATED>\n" + longline + "\nafter\n" +
                         "</EVENT_ALERTS_GENERATED>\n");
}

TEST_F(EventTest, AFailedWriteKeepsTheEventsAndReleasesTheStore) {
    std::string text;
    for (int i = 0; i < kMaxEvents; ++i) text += std::string(500, 'e') + "\n";
    Post(text);
    ASSERT_EQ(Stored(), kMaxEvents);

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ShrinkAndTimeOut(sv[0]);
    EXPECT_EQ(rtal_event_getalert_action(sv[0], " x"), -1);  // nobody reads
    close(sv[0]);
    close(sv[1]);
    EXPECT_EQ(CountOf(Log(), "VORNRTA-E-EVENT: failed to send event "), 1);
    ASSERT_TRUE(event_mutex.try_lock());  // later <EVENT> requests are not locked out
    event_mutex.unlock();
    EXPECT_EQ(Stored(), kMaxEvents);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(rtal_event_getalert_action(sv[0], " x"), -1);  // already gone: the opening tag fails
    close(sv[0]);
    EXPECT_EQ(Stored(), kMaxEvents);

    EXPECT_EQ(CountOf(Get(), std::string(500, 'e') + "\n"), kMaxEvents);
    EXPECT_EQ(Stored(), 0);
}

TEST_F(EventTest, AClientThatStopsSendingEndsAtTheReceiveTimeout) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    struct timeval tv {0, 200000};
    ASSERT_EQ(setsockopt(sv[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv), 0);
    const char sent[] = "first\nsecond\n";
    ASSERT_EQ(write(sv[1], sent, sizeof sent - 1), static_cast<ssize_t>(sizeof sent - 1));
    FILE* stream = fdopen(sv[0], "r");
    ASSERT_NE(stream, nullptr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(handle_event_request(stream, sv[0], " 10.0.0.5"), 0);  // sv[1] stays open, silent
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    fclose(stream);
    close(sv[1]);
    EXPECT_EQ(Stored(), 2);
    ASSERT_TRUE(event_mutex.try_lock());
    event_mutex.unlock();
}

TEST_F(EventTest, EventDefinitionIsWrittenAnewToTheSettingsDirectory) {
    const std::string path = dir_ + "/eventdef_testhost.dat";
    WithStream("line one\nline two\n", [](FILE* f) {
        EXPECT_EQ(handle_event_def_request(f, -1, "<EVENT_DEF> header\n", " c"), 1);
    });
    EXPECT_EQ(ReadFile(path), "<EVENT_DEF> header\nline one\nline two\n");
    WithStream("short\n", [](FILE* f) {
        EXPECT_EQ(handle_event_def_request(f, -1, "<EVENT_DEF>\n", " c"), 1);
    });
    EXPECT_EQ(ReadFile(path), "<EVENT_DEF>\nshort\n");
    EXPECT_EQ(CountOf(Log(), "VORNRTA-I-TAG:       <EVENT_DEF> tag \n"), 2);

    // A flood is cut instead of filling the disk.
    std::string flood;
    while (flood.size() < (2u << 20)) flood += std::string(100, 'f') + "\n";
    WithStream(flood, [](FILE* f) {
        EXPECT_EQ(handle_event_def_request(f, -1, "<EVENT_DEF>\n", " c"), 1);
    });
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_LE(st.st_size, 1 << 20);
    EXPECT_EQ(CountOf(Log(), "definition longer than 1048576 bytes, rest dropped"), 1);

    snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s/missing", dir_.c_str());
    WithStream("x\n", [](FILE* f) { EXPECT_EQ(handle_event_def_request(f, -1, "<EVENT_DEF>\n", " c"), 0); });
}

}  // namespace
}  // namespace alert_test
