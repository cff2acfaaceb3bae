// Header and data lines, byte for byte, for every value type; counter ids.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"
#include "support/fixture_roots.h"

namespace {

struct AllTypes {
    int32_t i32;
    int64_t i64;
    char text[16];
    double d;
    float f;
    uint64_t u64;
    int16_t i16;
};

CounterDef Row(const char* name, int type, int32_t offset, int is_counter, int marker = 1,
               const char* units = "%", const char* description = "desc") {
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

#define AT(field) static_cast<int32_t>(offsetof(AllTypes, field))

AllTypes SampleRecord() {
    AllTypes r{};
    r.i32 = -7;
    r.i64 = 1234567890123LL;
    snprintf(r.text, sizeof r.text, "abc def");
    r.d = 3.14159;
    r.f = 2.5f;
    r.u64 = 0x123456789ABCDEF0ULL;
    r.i16 = -2;
    return r;
}

// Each test starts with empty arrays and id 0, and leaves them so.
class Lines : public ::testing::Test {
  protected:
    void SetUp() override {
        Offset = 0;
        exit_recieved = 0;
    }
    void TearDown() override {
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
        Offset = 0;
        exit_recieved = 0;
    }
    std::vector<std::string> Headers() const {
        return {rtdc_data_headers, rtdc_data_headers + n_rtdc_data_headers};
    }
};

TEST_F(Lines, DataLinesForEveryTypeCode) {
    AllTypes r = SampleRecord();
    std::vector<CounterDef> table = {
        Row("t1", 1, AT(i32), 1),    Row("t2", 2, AT(i64), 1),   Row("t3", 3, AT(text), 1),
        Row("t4", 4, AT(d), 1),      Row("t6", 6, AT(i64), 1),   Row("t7", 7, AT(f), 1),
        Row("t8", 8, AT(u64), 1),    Row("t9", 9, AT(i16), 1),   Row("t10", 10, AT(i32), 0),
        Row("t11", 11, AT(text), 0), Row("t12", 12, AT(i32), 0), Row("t13", 13, AT(d), 0),
        Row("t14", 14, AT(i32), 0),  Row("t15", 15, AT(i32), 0), Row("t16", 16, AT(text), 0),
        Row("t17", 17, AT(u64), 0),  Row("t18", 18, AT(d), 0),   CounterDef{}};
    for (size_t i = 0; i + 1 < table.size(); ++i) table[i].id = 100 + static_cast<int>(i);

    int len = rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, &r, table.data());
    const std::string expected =
        "100=-7\n101=1234567890123\n102=abc def\n103=3.14\n104=1234567890123\n105=2.50\n"
        "106=9ABCDEF0\n107=-2\n113=-7\n114=abc def\n115=9ABCDEF0\n116=3.14\n";
    ASSERT_EQ(n_rtdc_data_buffers, 1);  // one entry per instance, however many rows
    EXPECT_EQ(rtdc_data_buffers[0], expected);
    EXPECT_EQ(len, static_cast<int>(expected.size() + 1));
    EXPECT_EQ(n_rtdc_data_len, len);
}

TEST_F(Lines, UnknownTypesWriteNoDataLineButAreLogged) {
    vorntest::TempTree tree;
    snprintf(logfilec, sizeof logfilec, "%s/test.log", tree.root().c_str());
    rtdc_log_reset_for_tests();

    AllTypes r = SampleRecord();
    std::vector<CounterDef> table = {Row("a", 1, AT(i32), 1),
                                     Row("b", 5, AT(i32), 1),
                                     Row("c", 20, AT(i64), 1),
                                     Row("d", -3, AT(i32), 1),
                                     Row("e", 0, AT(i32), 1),
                                     Row("f", 19, AT(i32), 1),
                                     CounterDef{}};
    table[1].id = 42;
    rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, &r, table.data());
    EXPECT_STREQ(rtdc_data_buffers[0], "1=-7\n");

    RTDCCloseLog();
    std::ifstream in(logfilec);
    std::stringstream log;
    log << in.rdbuf();
    for (const char* text : {"Unknown type in meta data 5, m[1].id = 42\n",
                             "Unknown type in meta data 20, m[2].id = 1\n",
                             "Unknown type in meta data -3, m[3].id = 1\n",
                             "Unknown type in meta data 0, m[4].id = 1\n",
                             "Unknown type in meta data 19, m[5].id = 1\n"})
        EXPECT_NE(log.str().find(text), std::string::npos) << text;
    logfilec[0] = '\0';
    rtdc_log_reset_for_tests();
}

TEST_F(Lines, EmptyTableGivesNoHeaderAndOneEmptyDataEntry) {
    CounterDef table[1] = {};
    EXPECT_EQ(rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, nullptr, table, "X"), 0);
    EXPECT_EQ(n_rtdc_data_headers, 0);
    EXPECT_EQ(rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, nullptr, table), 1);
    ASSERT_EQ(n_rtdc_data_buffers, 1);
    EXPECT_STREQ(rtdc_data_buffers[0], "");
    EXPECT_EQ(n_rtdc_data_len, 1);
}

TEST_F(Lines, HeaderLinesForEveryTypeCode) {
    AllTypes r = SampleRecord();
    std::vector<CounterDef> table = {
        Row(" Mode Averages->Idle", 4, AT(d), 1, 1, "%", "CPU in Idle mode"),
        Row("Plain", 4, AT(d), 1, 0, "/Sec", "no marker"), Row("t10", 10, AT(i32), 0, 1, " "),
        Row("t11", 11, AT(text), 0, 1, "0"), Row("t12", 12, AT(u64), 0), Row("t13", 13, AT(d), 0),
        Row("t15", 15, AT(i32), 0), Row("t16", 16, AT(text), 0), Row("t17", 17, AT(u64), 0),
        Row("t18", 18, AT(d), 0),
        // Attributes whose type carries no header value, and a bad is_counter: no lines.
        Row("t1", 1, AT(i32), 0), Row("t14", 14, AT(i32), 0), Row("t20", 20, AT(i64), 0),
        Row("bad", 4, AT(d), 2), CounterDef{}};

    int added =
        rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, &r, table.data(), "Cpu");
    const std::vector<std::string> expected = {
        "Cpu~^1~^-> Mode Averages->Idle::1::CPU in Idle mode::1,%,1\n",
        "Cpu->Plain::2::no marker::0,/Sec,1\n",
        "Cpu~^1~^->t10::3::desc::1, ,0,-7\n",
        "Cpu~^1~^->t11::4::desc::1,0,0,abc def\n",
        "Cpu~^1~^->t12::5::desc::1,%,0,9ABCDEF0\n",  // 32 bits read: the low half here
        "Cpu~^1~^->t13::6::desc::1,%,0,3.14159\n",
        "Cpu~^1~^->t15::7::desc::1,%,0,-7\n",
        "Cpu~^1~^->t16::8::desc::1,%,0,abc def\n",
        "Cpu~^1~^->t17::9::desc::1,%,0,9ABCDEF0\n",
        "Cpu~^1~^->t18::10::desc::1,%,0,3.14159\n"};
    EXPECT_EQ(added, 10);
    EXPECT_EQ(Headers(), expected);
    int total = 0;
    for (const auto& line : expected) total += static_cast<int>(line.size() + 1);
    EXPECT_EQ(n_rtdc_header_len, total);
    // Every live row got a fresh id, the silent ones too.
    EXPECT_EQ(table[13].id, 14);
    EXPECT_EQ(Offset, 14);
    // Building the headers again renews the ids.
    rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, &r, table.data(), "Cpu");
    EXPECT_EQ(table[0].id, 15);
}

TEST_F(Lines, OverlongHeaderLineIsCutToItsBuffer) {
    CounterDef row =
        Row(std::string(127, 'n').c_str(), 4, 0, 1, 1, "%", std::string(255, 'd').c_str());
    CounterDef table[2] = {row, {}};
    double value = 0;
    ASSERT_EQ(rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, &value, table, "Cpu"),
              1);
    EXPECT_EQ(strlen(rtdc_data_headers[0]), 255u);
    EXPECT_EQ(n_rtdc_header_len, 256);
}

TEST_F(Lines, ProcessHeadersKeepAnEntryForEveryRow) {
    ProcessRecord rec{};
    rec.pid = 100;
    rec.ppid = 1;
    snprintf(rec.user_name, sizeof rec.user_name, "root");
    snprintf(rec.tty_name, sizeof rec.tty_name, "?");
    std::vector<CounterDef> table(ProcessCounters, ProcessCounters + PROC_FIELDS());
    ASSERT_EQ(PROC_FIELDS(), 18);

    EXPECT_EQ(rtdc_buffer_process_headers(rtdc_data_headers, &n_rtdc_data_headers, table.data(),
                                          &rec, 100, "sendmail"),
              1);
    ASSERT_EQ(n_rtdc_data_headers, 17);
    // ids are index + pid * rows + 65536, rows counted from 1
    EXPECT_STREQ(rtdc_data_headers[0],
                 "Process~^1~^->sendmail  (100)->PID::67337::Process Id::1, ,0,100\n");
    EXPECT_STREQ(rtdc_data_headers[2],
                 "Process~^1~^->sendmail  (100)->User Name::67339::User Name::1, ,0,root\n");
    EXPECT_STREQ(
        rtdc_data_headers[4],
        "Process~^1~^->sendmail  (100)->% CPU Utilization::67341::% CPU Utilization::1,%,1\n");
    EXPECT_STREQ(rtdc_data_headers[16],
                 "Process~^1~^->sendmail  (100)->Priority::67353::Priority::1,#,1\n");
    EXPECT_EQ(table[16].id, 67353);
    EXPECT_EQ(Offset, 0);  // process ids do not use the ordinary id space

    // A row that makes no line still takes one (empty) entry; types 20 and 17 have values.
    struct Wide {
        int64_t big;
        uint64_t bits;
    } wide{-5000000000LL, 0xFFFFFFFF00000010ULL};
    std::vector<CounterDef> odd = {Row("none", 4, 0, 0), Row("big", 20, 0, 0),
                                   Row("bits", 17, 8, 0), CounterDef{}};
    int before = n_rtdc_header_len;
    rtdc_buffer_process_headers(rtdc_data_headers, &n_rtdc_data_headers, odd.data(), &wide, 7, "x");
    ASSERT_EQ(n_rtdc_data_headers, 20);
    EXPECT_STREQ(rtdc_data_headers[17], "");
    EXPECT_STREQ(rtdc_data_headers[18],
                 "Process~^1~^->x  (7)->big::65664::desc::1,%,0,-5000000000\n");
    EXPECT_STREQ(rtdc_data_headers[19],
                 "Process~^1~^->x  (7)->bits::65665::desc::1,%,0,00000010\n");
    EXPECT_EQ(n_rtdc_header_len - before, 1 + static_cast<int>(strlen(rtdc_data_headers[18]) +
                                                               strlen(rtdc_data_headers[19]) + 2));

    exit_recieved = 1;
    EXPECT_EQ(rtdc_buffer_process_headers(rtdc_data_headers, &n_rtdc_data_headers, table.data(),
                                          &rec, 101, "sendmail"),
              0);
    EXPECT_EQ(n_rtdc_data_headers, 20);
}

TEST_F(Lines, FixedTwoDecimalsMatchPrintf) {
    std::vector<double> values = {0.0,
                                  -0.0,
                                  0.125,
                                  0.375,
                                  2.675,
                                  1.005,
                                  0.005,
                                  99.995,
                                  100.0,
                                  1e15,
                                  123456789.125,
                                  -42.4951,
                                  1e300,
                                  -1e-300,
                                  std::numeric_limits<double>::infinity(),
                                  -std::numeric_limits<double>::infinity(),
                                  std::numeric_limits<double>::quiet_NaN(),
                                  std::numeric_limits<double>::denorm_min()};
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> pct(0.0, 100.0);
    for (int i = 0; i < 2000; ++i) values.push_back(pct(rng));
    for (int i = 0; i < 500; ++i)
        values.push_back(std::ldexp(pct(rng), static_cast<int>(rng() % 80) - 40));
    // Exact ties at the third decimal (k/8) and values right beside them.
    for (int k = -400; k <= 400; ++k) {
        double tie = k / 8.0 + 1000.0 * (k % 7);
        values.insert(values.end(), {tie, std::nextafter(tie, 1e9), std::nextafter(tie, -1e9)});
    }
    // Arbitrary bit patterns: every exponent, subnormals, the 2^52 boundary.
    for (int i = 0; i < 3000; ++i) {
        uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, sizeof v);
        values.push_back(v);
    }
    for (double edge :
         {4503599627370495.5, 4503599627370496.0, 4503599627370497.0, 0.995, 0.994999999999})
        values.insert(values.end(), {edge, -edge});
    CounterDef table[3] = {Row("d", 4, 0, 1), Row("f", 7, 8, 1), {}};
    table[0].id = 1;
    table[1].id = 2;
    for (double v : values) {
        struct {
            double d;
            float f;
        } rec{v, static_cast<float>(v)};
        char expected[1024];
        snprintf(expected, sizeof expected, "1=%.2lf\n2=%.2f\n", v, static_cast<double>(rec.f));
        rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, &rec, table);
        ASSERT_STREQ(rtdc_data_buffers[n_rtdc_data_buffers - 1], expected) << v;
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
    }
}

TEST_F(Lines, FullArraysDropLinesInsteadOfOverrunning) {
    CounterDef table[2] = {Row("a", 1, 0, 1), {}};
    int32_t value = 1;
    n_rtdc_data_buffers = kMaxLines;  // pretend full; entries beyond are never touched
    EXPECT_EQ(rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, &value, table), 0);
    EXPECT_EQ(n_rtdc_data_buffers, kMaxLines);
    n_rtdc_data_buffers = 0;
    n_rtdc_data_len = 0;
}

TEST_F(Lines, StoredLinesSurviveReuseAndForeignEntries) {
    CounterDef table[3] = {Row("a", 1, 0, 1), Row("b", 1, 4, 1), {}};
    int32_t values[2] = {1, 2};
    // Many scans: the text of every scan is its own, whatever the previous one left.
    for (int scan = 0; scan < 50; ++scan) {
        values[0] = scan;
        for (int i = 0; i < 2000; ++i)
            rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, values, table);
        ASSERT_EQ(n_rtdc_data_buffers, 2000);
        std::string expected = "1=" + std::to_string(scan) + "\n1=2\n";
        ASSERT_EQ(rtdc_data_buffers[0], expected);
        ASSERT_EQ(rtdc_data_buffers[1999], expected);
        if (scan % 2) {
            rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
        } else {
            // Emptied without being freed: the next lines must not trust the old ones.
            for (int i = 0; i < n_rtdc_data_buffers; ++i) rtdc_data_buffers[i] = nullptr;
            n_rtdc_data_buffers = 0;
            n_rtdc_data_len = 0;
        }
    }
    // A string a caller puts in itself is malloc'd and freed with the array; the packet
    // measures it rather than trusting a length recorded for another string.
    rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, values, table);
    rtdc_data_buffers[n_rtdc_data_buffers++] = strdup("7=a longer line than before\n");
    std::vector<char> out(8192 + 200);
    ASSERT_EQ(
        rtdc_packetize_data(nullptr, 0, rtdc_data_buffers, n_rtdc_data_buffers, out.data(), 200),
        1);
    EXPECT_NE(
        std::string(out.data()).find("<DATA>\n1=49\n1=2\n7=a longer line than before\n</DATA>"),
        std::string::npos)
        << out.data();
}

TEST(CounterIds, ExhaustionReturnsMinusOneWithoutAdvancing) {
    Offset = 65533;
    EXPECT_EQ(rtdc_genids(), 65534);
    EXPECT_EQ(rtdc_genids(), 65535);
    EXPECT_EQ(rtdc_genids(), -1);
    EXPECT_EQ(Offset, 65535);
    CounterDef table[3] = {Row("a", 1, 0, 1), Row("b", 1, 0, 1), {}};
    rtdc_FillIds(table);
    EXPECT_EQ(table[0].id, -1);
    EXPECT_EQ(table[1].id, -1);
    Offset = 0;
    EXPECT_EQ(rtdc_genids(), 1);
    Offset = 0;
}

}  // namespace
