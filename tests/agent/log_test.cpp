#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "agent/rtdc_log.h"
#include "control/rta_cmdline.h"
#include "support/second_boundary.h"

namespace {

std::string temp_dir() {
    char tmpl[] = "/tmp/vornlogXXXXXX";
    return mkdtemp(tmpl);
}

std::vector<std::string> read_lines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

struct LogTest : ::testing::Test {
    std::string dir = temp_dir();
    void SetUp() override {
        snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", dir.c_str());
        rtdc_log_reset_for_tests();
    }
    void TearDown() override {
        rtdc_log_reset_for_tests();
        std::string cmd = "rm -rf " + dir;
        ASSERT_EQ(system(cmd.c_str()), 0);
    }
};

TEST_F(LogTest, DailyNameAndOnlyOnceADay) {
    char path[256];
    ASSERT_EQ(get_log_file_name_unix("host1", path), 1);
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char date[64];
    strftime(date, sizeof date, "%Y%b%d", &tmv);
    EXPECT_EQ(std::string(path), dir + "/rta_host1_" + date + ".log");
    EXPECT_EQ(get_log_file_name_unix("host1", path), 0) << "same day: no new name";
}

TEST_F(LogTest, EntriesAreStampedWholeLinesFromManyThreads) {
    get_log_file_name_unix("host2", logfilec);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) rtdc_logf("thread %d entry %d\n", t, i);
        });
    for (auto& th : threads) th.join();
    RTDCCloseLog();
    auto lines = read_lines(logfilec);
    ASSERT_EQ(lines.size(), 200u);
    std::regex entry(R"(^\S+ \d\d:\d\d:\d\d \d\d-[A-Za-z]{3}-\d{4} : thread \d entry \d+$)");
    for (const auto& line : lines) EXPECT_TRUE(std::regex_match(line, entry)) << line;
}

TEST_F(LogTest, EntryAtTheTurnOfASecondNamesThatSecond) {
    get_log_file_name_unix("host5", logfilec);
    std::vector<std::pair<std::string, std::string>> made_in;  // {first, last} possible stamps
    for (int tick = 0; tick < 3; ++tick) {
        const time_t woke = vorntest::wake_on_next_second();
        RTDCAppendLog("tick\n");
        const time_t done = vorntest::precise_second();
        char first[80], last[80];
        TimeString(woke, first);
        TimeString(done, last);
        made_in.emplace_back(first, last);
    }
    RTDCCloseLog();
    auto lines = read_lines(logfilec);
    ASSERT_EQ(lines.size(), made_in.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string stamp = lines[i].substr(0, lines[i].find(" : "));
        EXPECT_TRUE(stamp == made_in[i].first || stamp == made_in[i].second)
            << stamp << " written in " << made_in[i].first;
    }
}

TEST_F(LogTest, BannerWriterAddsNoStamp) {
    get_log_file_name_unix("host3", logfilec);
    RTDCAppendLogNoTs(" Port:     %d \n", 2101);
    RTDCCloseLog();
    auto lines = read_lines(logfilec);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], " Port:     2101 ");
}

TEST_F(LogTest, UnwritableDirectoryComplainsOnceThenStaysSilent) {
    snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s/missing/dir", dir.c_str());
    rtdc_log_reset_for_tests();
    get_log_file_name_unix("host4", logfilec);
    testing::internal::CaptureStderr();
    RTDCAppendLog("first\n");
    RTDCAppendLog("second\n");
    RTDCAppendLogNoTs("third\n");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, std::string("\nvornrta, Unable to open log file ") + logfilec +
                       ", No such file or directory \n");
}

// A day's file stops growing at its limit, counting what it held before the agent started;
// past it only one notice is written within the hour.
TEST_F(LogTest, ADaysFileStopsAtItsLimitWithOneNotice) {
    get_log_file_name_unix("host5", logfilec);
    { std::ofstream(logfilec) << std::string(1000, 'o') << "\n"; }
    rtdc_set_log_limit(4000);
    for (int i = 0; i < 200; ++i) rtdc_logf("entry %03d %s\n", i, std::string(40, 'x').c_str());
    RTDCCloseLog();
    auto lines = read_lines(logfilec);
    struct stat st;
    ASSERT_EQ(stat(logfilec, &st), 0);
    EXPECT_LE(st.st_size, 4000 + 200);
    EXPECT_GE(st.st_size, 4000 - 100);
    int notices = 0, entries = 0;
    for (const auto& line : lines) {
        notices += line.find("VORNRTA-W-LOGFULL:  the log file reached its limit of 4000 bytes") != std::string::npos;
        entries += line.find(" : entry ") != std::string::npos;
    }
    EXPECT_EQ(notices, 1);
    EXPECT_GT(entries, 20);
    EXPECT_LT(entries, 60);
    EXPECT_NE(lines.back().find("LOGFULL"), std::string::npos) << "nothing after the notice";
}

TEST(TimeStringTest, ZoneTimeAndDate) {
    char out[80];
    EXPECT_EQ(TimeString(0, out), 1);
    std::regex form(R"(^\S+ \d\d:\d\d:\d\d \d\d-[A-Za-z]{3}-\d{4}$)");
    EXPECT_TRUE(std::regex_match(std::string(out), form)) << out;
}

}  // namespace
