// Header and data lines, byte for byte, for every value type; counter ids.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "packet/rtdc_state.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"
#include "packet/rtdc_process_headers.h"

namespace {

struct AllTypes {
    int32_t i32;
    int64_t i64;
    char text[16];
    double d;
    float f;
    uint64_t u64;
    int16_t i16;
} const kRecord{-7, -1234567890123LL, "abc def", 3.14159, 2.5f, 0x123456780000ABCDULL, -2};
#define AT(field) offsetof(AllTypes, field)

CounterDef Row(const char* name, int type, size_t offset, int is_counter, int marker = 1,
               const char* units = "%", const char* description = "desc") {
    CounterDef row{1, static_cast<int32_t>(offset), {}, type, {}, marker, {}, is_counter};
    snprintf(row.name, sizeof row.name, "%s", name);
    snprintf(row.description, sizeof row.description, "%s", description);
    snprintf(row.units, sizeof row.units, "%s", units);
    return row;
}

std::string Fixture(const char* name) {
    std::stringstream text;
    text << std::ifstream(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/lines/" + name).rdbuf();
    return text.str();
}

// Each test starts with empty arrays and id 0, and leaves them so.
class Lines : public ::testing::Test {
  protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
        Offset = exit_recieved = 0;
    }
    static int Data(const void* record, const CounterDef* table) {
        return rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, record, table);
    }
    static int Headers(const void* record, CounterDef* table) {
        return rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, record, table, "Cpu");
    }
    // Header entries as one text, an empty one as an empty line; checks their counted length.
    static std::string HeaderText() {
        std::string text;
        int counted = 0;
        for (int i = 0; i < n_rtdc_data_headers; ++i) {
            text += *rtdc_data_headers[i] ? rtdc_data_headers[i] : "\n";
            counted += static_cast<int>(strlen(rtdc_data_headers[i]) + 1);
        }
        EXPECT_EQ(n_rtdc_header_len, counted);
        return text;
    }
};

TEST_F(Lines, HeaderAndDataLinesForEveryTypeCode) {
    // Counters of every type; attributes (a value in the header line if the type has one, no
    // data line for 10-14); unknown types, which write nothing; a bad is_counter.
    const std::tuple<int, size_t, int> rows[] = {
        {1, AT(i32), 1},  {2, AT(i64), 1},  {3, AT(text), 1}, {6, AT(i64), 1},   {7, AT(f), 1},
        {8, AT(u64), 1},  {9, AT(i16), 1},  {10, AT(i32), 0}, {11, AT(text), 0}, {12, AT(u64), 0},
        {13, AT(d), 0},   {14, AT(i32), 0}, {15, AT(i32), 0}, {16, AT(text), 0}, {17, AT(u64), 0},
        {18, AT(d), 0},   {5, AT(i32), 0},  {19, AT(i32), 0}, {20, AT(i64), 0},  {0, AT(i32), 0},
        {-3, AT(i32), 0}, {4, AT(d), 2}};
    std::vector<CounterDef> table = {
        Row(" Mode Averages->Idle", 4, AT(d), 1, 1, "%", "CPU in Idle mode"),
        Row("Plain", 4, AT(d), 1, 0, "/Sec", "no marker")};
    for (auto [type, offset, is_counter] : rows)
        table.push_back(Row(("t" + std::to_string(type)).c_str(), type, offset, is_counter));
    table.push_back({});
    EXPECT_EQ(Headers(&kRecord, table.data()), 17);
    EXPECT_EQ(HeaderText(), Fixture("every-type-headers.txt"));
    const std::string data =
        "1=3.14\n2=3.14\n3=-7\n4=-1234567890123\n5=abc def\n6=-1234567890123\n"
        "7=2.50\n8=0000ABCD\n9=-2\n15=-7\n16=abc def\n17=0000ABCD\n18=3.14\n24=3.14\n";
    EXPECT_EQ(Data(&kRecord, table.data()), static_cast<int>(data.size() + 1));
    ASSERT_EQ(n_rtdc_data_buffers, 1);  // one entry per instance, however many rows
    EXPECT_EQ(rtdc_data_buffers[0], data);
    EXPECT_EQ(n_rtdc_data_len, static_cast<int>(data.size() + 1));
    Headers(&kRecord, table.data());  // a new header pass renews every id
    EXPECT_EQ(table[0].id, 25);
    // An instance without rows still takes its (empty) entry, and makes no header line.
    EXPECT_EQ(Data(nullptr, &table.back()), 1);
    EXPECT_STREQ(rtdc_data_buffers[1], "");
    EXPECT_EQ(Headers(nullptr, &table.back()), 0);
    TearDown();  // an overlong header line is cut to its 256-byte buffer
    table[0] = Row(std::string(127, 'n').c_str(), 4, 0, 1, 1, "%", std::string(255, 'd').c_str());
    table[1] = CounterDef{};
    ASSERT_EQ(Headers(nullptr, table.data()), 1);
    EXPECT_EQ(strlen(rtdc_data_headers[0]), 255u);
    EXPECT_EQ(n_rtdc_header_len, 256);
}

// Every piece a writer puts, one entry each; an empty one as an empty line.
struct EntrySink final : PacketSink {
    void put(std::string_view piece) override {
        text += piece.empty() ? std::string("\n") : std::string(piece);
        bytes += piece.size();
        ++entries;
    }
    std::string text;
    size_t bytes = 0;
    int entries = 0;
};

TEST_F(Lines, ProcessHeadersTakeAnEntryForEveryRowWithPidDerivedIds) {
    ProcessRecord rec{};  // no parent and no terminal: 0 and an empty value
    rec.pid = 100;
    snprintf(rec.user_name, sizeof rec.user_name, "root");
    std::vector<CounterDef> table(ProcessCounters, ProcessCounters + PROC_FIELDS());
    ProcessHeaderLines pass;
    EXPECT_TRUE(pass.add(100, "sendmail", table.data(), &rec, kMaxLines));
    // A row that makes no line still takes one (empty) entry; types 20 and 17 read 64 bits.
    CounterDef odd[] = {
        Row("none", 4, 0, 0), Row("big", 20, AT(i64), 0), Row("bits", 17, AT(u64), 0), {}};
    EXPECT_TRUE(pass.add(7, "x", odd, &kRecord, kMaxLines));
    // A process whose lines would pass the limit is left out whole.
    EXPECT_FALSE(pass.add(8, "y", odd, &kRecord, 22));
    EXPECT_EQ(pass.entries(), 20);
    EntrySink sink;
    pass.write(sink);
    // ids are row number + pid * rows + 65536: the same every scan, apart from ordinary ids
    EXPECT_EQ(sink.text, Fixture("process-headers.txt"));
    EXPECT_EQ(sink.entries, 20);
    EXPECT_EQ(sink.bytes, pass.length());  // the length announced before the lines
    EXPECT_EQ(Offset, 0);
    pass.clear();
    EXPECT_EQ(pass.entries(), 0);
    EXPECT_EQ(pass.length(), 0u);
}

TEST_F(Lines, FixedTwoDecimalsMatchPrintf) {
    // Decimal and binary (k/8) ties, the 2^52 end of the exact path, NaN, infinity, any bit
    // pattern; each with its negation and its next neighbour.
    std::vector<double> values = {0.0,           0.125,     2.675,          1.005,  0.005,
                                  99.995,        0.995,     0.994999999999, 100.0,  1e15,
                                  123456789.125, 42.4951,   1e300,          1e-300, HUGE_VAL,
                                  NAN,           0x1p-1074, 0x1p52 - 0.5,   0x1p52, 0x1p52 + 1};
    for (int k = -400; k <= 400; ++k) values.push_back(k / 8.0 + 1000.0 * (k % 7));
    std::mt19937_64 rng(7);
    for (int i = 0; i < 5000; ++i) values.push_back(std::bit_cast<double>(rng()));
    CounterDef table[3] = {Row("d", 4, AT(d), 1), Row("f", 7, AT(f), 1), {}};
    for (double v : values) {
        for (double s : {v, -v, std::nextafter(v, HUGE_VAL)}) {
            const AllTypes rec{0, 0, "", s, static_cast<float>(s), 0, 0};
            char expected[1024];
            snprintf(expected, sizeof expected, "1=%.2lf\n1=%.2f\n", s, static_cast<double>(rec.f));
            Data(&rec, table);
            ASSERT_STREQ(rtdc_data_buffers[0], expected) << s;
            TearDown();
        }
    }
}

TEST_F(Lines, StoredLinesSurviveReuseForeignEntriesAndFullArrays) {
    CounterDef table[3] = {Row("a", 1, 0, 1), Row("b", 1, 4, 1), {}};
    int32_t values[2] = {1, 2};
    // Many scans: the text of every scan is its own, whatever the previous one left.
    for (int scan = 0; scan < 50; ++scan) {
        values[0] = scan;
        for (int i = 0; i < 2000; ++i) Data(values, table);
        ASSERT_EQ(n_rtdc_data_buffers, 2000);
        std::string expected = "1=" + std::to_string(scan) + "\n1=2\n";
        ASSERT_EQ(rtdc_data_buffers[0], expected);
        ASSERT_EQ(rtdc_data_buffers[1999], expected);
        // Freed, or emptied without being freed: the next lines must not trust the old ones.
        if (scan % 2) TearDown();
        std::fill_n(rtdc_data_buffers, n_rtdc_data_buffers, nullptr);
        n_rtdc_data_buffers = n_rtdc_data_len = 0;
    }
    // A caller's own malloc'd string is measured, not given a length recorded for another.
    Data(values, table);
    rtdc_data_buffers[n_rtdc_data_buffers++] = strdup("7=a longer line than before\n");
    EntrySink sink;
    PacketFrame({nullptr, 0, nullptr, rtdc_data_buffers, 2}).write(sink);
    EXPECT_NE(sink.text.find("<DATA>\n1=49\n1=2\n7=a longer line than before\n"),
              std::string::npos)
        << sink.text;
    TearDown();
    n_rtdc_data_buffers = kMaxLines;  // full: the line is dropped, nothing written past
    EXPECT_EQ(Data(values, table), 0);
    EXPECT_EQ(n_rtdc_data_buffers, kMaxLines);
    n_rtdc_data_buffers = 0;
}

TEST(CounterIds, ExhaustionReturnsMinusOneWithoutAdvancing) {
    Offset = 65533;
    EXPECT_EQ(rtdc_genids(), 65534);
    EXPECT_EQ(rtdc_genids(), 65535);
    EXPECT_EQ(rtdc_genids(), -1);
    EXPECT_EQ(Offset, 65535);
    CounterDef table[3] = {Row("a", 1, 0, 1), Row("b", 1, 0, 1), {}};
    rtdc_FillIds(table);
    EXPECT_EQ(std::make_pair(table[0].id, table[1].id), std::make_pair(-1, -1));
    Offset = 0;
}


// Anonymous memory of this process now, in kB, from its status file.
long anonymous_kb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("RssAnon:", 0) == 0) return std::atol(line.c_str() + 8);
    return -1;
}

// The line store's bookkeeping is sized for 65,536 lines but must cost memory only for the
// lines a scan makes. Measured in a fresh run of this program, where this test is the first
// to use the store.
TEST(LineStore, FewLinesTouchFewPages) {
    if (!getenv("VORN_FRESH_LINE_STORE")) {
        const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
        const std::string run = "VORN_FRESH_LINE_STORE=1 '" + self +
                                "' --gtest_filter=LineStore.FewLinesTouchFewPages >/dev/null 2>&1";
        EXPECT_EQ(std::system(run.c_str()), 0);
        return;
    }
    const CounterDef table[] = {Row("a", 4, AT(d), 1), Row("b", 2, AT(i64), 1), CounterDef{}};
    const long before = anonymous_kb();
    ASSERT_GT(before, 0);
    int count = 0, len = 0;
    for (int i = 0; i < 200; ++i) rtdc_buffer_data(rtdc_data_buffers, &count, &kRecord, table);
    const long grown = anonymous_kb() - before;
    rtdc_free_lines(rtdc_data_buffers, &count, &len);
    EXPECT_LT(grown, 256) << "kB for 200 data strings";
}

}  // namespace
