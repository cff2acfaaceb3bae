// Whole packet sequences and what is made of them: goldens for recorded streams, the refusal
// of packets that cannot be tied to the definitions in force, JSON and process orders.
#include <cstdio>

#include "console/vm_json.h"
#include "console/vm_openmetrics.h"
#include "console/vm_view.h"
#include "test_util.h"

using namespace vornmon_test;

// Recorded streams against their golden JSON, OpenMetrics exposition and plain-text view.
// The agent capture (trimmed, length prefixes recomputed) repeats the start-up pass's lines
// in its first tick, so later values win, and holds a process started after the header
// packet. The odd stream holds awkward names, text in an attribute's data line, a process
// row without a header line, a process never described, and disks and file systems out
// of order. scripts/test sets VORN_REQUIRE_PROMTOOL=1: there a missing checker fails.
TEST(Golden, RecordedStreams) {
    bool promtool = std::system("command -v promtool >/dev/null 2>&1") == 0;
    const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
    EXPECT_TRUE(promtool || !required || std::string(required) != "1") << "promtool missing";
    std::pair<std::string, std::string> streams[] = {
        {"handmade", fixture("header.pkt") + fixture("data.pkt") + fixture("empty.pkt")},
        {"agent", fixture("agent-header.pkt") + fixture("agent-data.pkt")},
        {"odd", fixture("odd-header.pkt") + fixture("odd-data.pkt")}};
    for (const auto& [name, stream] : streams) {
        Session session;
        Sample s, shown;  // the last sample with figures
        std::string json, err;
        EXPECT_TRUE(decode(session, stream, s, err,
                           [&](const Packet& p) {
                               json += sample_json(s, p, session) + "\n";
                               if (!s.readings.empty()) shown = s;
                           }))
            << name << ": " << err;
        expect_golden(json, name + ".jsonl");
        std::string om = openmetrics_text(&shown, true);
        expect_golden(om, name + ".om");
        expect_golden(render_text(layout_view(build_view(shown), "x", SortKey::kPid, 100, -1), 100),
                      name + ".top");
        if (!promtool) continue;
        std::FILE* checker = popen("promtool check metrics", "w");
        std::fwrite(om.data(), 1, om.size(), checker);
        EXPECT_EQ(pclose(checker), 0) << name;
    }
}

// Each capture is refused after a good header packet, and says why.
TEST(Golden, MalformedCapturesAreRefusedWithTheirReason) {
    std::pair<const char*, const char*> cases[] = {
        {"bad-length.pkt", "does not match"},
        {"missing-tag.pkt", "expected </TIME>"},
        {"unknown-id.pkt", "data id 999 has no header line"},
        {"bad-number.pkt", "bad number '12.5x'"},
        {"no-prefix.pkt", "BUFFERSIZE="},
        {"bad-header.pkt", "header line without"},
        {"wrong-row.pkt", "belongs to process row '% CPU Utilization'"},
        {"wrong-pid.pkt", "not a process id of pid 100"},
        {"defined-twice.pkt", "defined twice"},
    };
    for (auto [file, message] : cases) {
        Session session;
        Sample s;
        std::string err;
        ASSERT_TRUE(decode(session, fixture("header.pkt"), s, err)) << err;
        EXPECT_FALSE(decode(session, fixture(file), s, err)) << file;
        EXPECT_TRUE(has(err, message)) << file;
        EXPECT_EQ(session.size(), 33u) << file << ": a refused packet leaves the definitions alone";
    }
    Metric m;  // row 0 of the process layout is unused; ids below 65536 are no process ids
    EXPECT_FALSE(metric_from_process_id(65536 + 100 * 18, m) || metric_from_process_id(65535, m));
}

TEST(Session, PacketOneReplacesTheDefinitions) {
    Session s;
    Sample out;
    std::string err;
    auto take = [&](long n, std::vector<std::string> headers, const std::string& data) {
        return decode(s, frame(body(n, headers, data)), out, err);
    };
    ASSERT_TRUE(decode(s, fixture("header.pkt"), out, err)) << err;
    // A new data connection renumbers: id 5 now names something else, id 1 is gone.
    ASSERT_TRUE(take(1, {"Memory~^1~^-> % Memory Utilization::5::x::1,%,1"}, "")) << err;
    EXPECT_EQ(s.size(), 1u);
    EXPECT_EQ(s.find(5)->path, "Memory-> % Memory Utilization");
    EXPECT_FALSE(take(2, {}, "1=3.00\n"));
    // A header section in a later packet adds to the definitions.
    ASSERT_TRUE(take(7, {"Disk~^1~^->sdb->Total::9::x::1,/Sec,1"}, "5=1.00\n9=2.00\n")) << err;
    EXPECT_EQ(s.size(), 2u);
}

TEST(Json, EscapesAndNumbers) {
    // Invalid UTF-8 (a stray byte, an overlong '/') becomes U+FFFD so the output stays valid.
    EXPECT_EQ(json_quote("a\"b\\c\n\x01 caf\xc3\xa9 \xff \xc0\xaf"),
              "\"a\\\"b\\\\c\\n\\u0001 caf\xc3\xa9 \\ufffd \\ufffd\\ufffd\"");
    std::string numbers;
    for (double d : {16.5, 0.1, -0.25, 123456789012.0, 1e300 * 1e300})
        numbers += json_number(d) + " ";
    EXPECT_EQ(numbers, "16.5 0.1 -0.25 123456789012 null ");
}

TEST(View, ProcessSortKeys) {
    std::vector<ProcRow> rows = {{30, 1, "zsh", "a", 1.0, 0, 0, 900, 5, 0},
                                 {10, 1, "bash", "b", 9.0, 0, 0, 100, 50, 0},
                                 {20, 1, "cron", "c", 5.0, 0, 0, 500, 0, 0}};
    // Each order differs from the one before it, so a key that sorts nothing shows.
    std::string orders;
    for (SortKey key :
         {SortKey::kCpu, SortKey::kMemory, SortKey::kName, SortKey::kIo, SortKey::kPid}) {
        sort_processes(rows, key);
        orders += std::string(sort_key_name(key)) + ":" + rows[0].name + "," + rows[1].name + " ";
    }
    EXPECT_EQ(orders, "cpu:bash,cron memory:zsh,cron name:bash,cron io:bash,zsh pid:bash,cron ");
}
