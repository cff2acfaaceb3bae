// The decoding of whole packet sequences: golden JSON for recorded packets, and the
// refusal of packets whose data cannot be tied to the definitions in force.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "console/vm_json.h"
#include "console/vm_model.h"
#include "test_util.h"

using namespace vornmon;
using vornmon_test::fixture;
using vornmon_test::fixture_path;
using vornmon_test::frame;
using vornmon_test::packet_body;

namespace {

bool decode(Session& s, const std::string& framed, Sample& out, std::string& err,
            Packet* keep = nullptr) {
    Framer f;
    f.feed(framed);
    Packet p;
    if (next_packet(f, p, err) != Framer::Result::kPacket) return false;
    if (!s.accept(p, out, err)) return false;
    if (keep) *keep = p;
    return true;
}

// Runs a recorded stream through the console and compares the JSON lines with the golden
// file next to it; VORN_UPDATE_GOLDEN=1 rewrites the golden file instead.
void check_golden(const std::vector<std::string>& packets, const std::string& golden) {
    Session session;
    std::string out;
    for (const std::string& name : packets) {
        Framer f;
        f.feed(fixture(name));
        Packet p;
        std::string err;
        ASSERT_EQ(next_packet(f, p, err), Framer::Result::kPacket) << name << ": " << err;
        Sample s;
        ASSERT_TRUE(session.accept(p, s, err)) << name << ": " << err;
        out += sample_json(s, p, session) + "\n";
    }
    if (const char* update = std::getenv("VORN_UPDATE_GOLDEN");
        update && std::string(update) == "1") {
        std::ofstream(fixture_path(golden), std::ios::binary) << out;
        GTEST_SKIP() << "rewrote " << golden;
    }
    std::string expected = fixture(golden);
    ASSERT_FALSE(expected.empty()) << "missing golden file " << golden;
    EXPECT_EQ(out, expected);
}

}  // namespace

TEST(Golden, HandMadeStreamDecodesToItsJson) {
    check_golden({"header.pkt", "data.pkt", "empty.pkt"}, "handmade.jsonl");
}

// Recorded from a running agent (trimmed to a few mounts and processes, the length prefixes
// recomputed); the data packet also holds a process that started after the header packet.
TEST(Golden, AgentCaptureDecodesToItsJson) {
    check_golden({"agent-header.pkt", "agent-data.pkt"}, "agent.jsonl");
}

TEST(Golden, MalformedCapturesAreRefusedWithTheirReason) {
    struct Case {
        const char* file;
        const char* message;
    } cases[] = {
        {"bad-length.pkt", "does not match"},
        {"missing-tag.pkt", "expected </TIME>"},
        {"unknown-id.pkt", "data id 999 has no header line"},
        {"bad-number.pkt", "bad number '12.5x'"},
        {"no-prefix.pkt", "BUFFERSIZE="},
        {"bad-header.pkt", "header line without"},
    };
    for (const Case& c : cases) {
        Session session;
        Sample s;
        std::string err;
        if (std::string(c.file) != "bad-header.pkt") {
            ASSERT_TRUE(decode(session, fixture("header.pkt"), s, err)) << err;
        }
        EXPECT_FALSE(decode(session, fixture(c.file), s, err)) << c.file;
        EXPECT_NE(err.find(c.message), std::string::npos) << c.file << ": " << err;
    }
}

TEST(Classify, InstancesAndCountersOfEachClass) {
    struct Case {
        const char* line;
        const char* path;
        const char* instance;
        const char* counter;
    } cases[] = {
        {"Cpu~^1~^-> Mode Averages->Idle::1::x::1,%,1", "Cpu-> Mode Averages->Idle", "",
         " Mode Averages->Idle"},
        {"Cpu~^1~^-> 12->Total::2::x::1,%,1", "Cpu-> 12->Total", "12", "Total"},
        {"Disk~^1~^->dm-0->Total Operations::3::x::1,/Sec,1", "Disk->dm-0->Total Operations",
         "dm-0", "Total Operations"},
        {"FileSystem~^1~^->/->% Space Used::4::x::1,%,1", "FileSystem->/->% Space Used", "/",
         "% Space Used"},
        {"FileSystem~^1~^->/srv/a->b->Total::5::x::1,Kb,1", "FileSystem->/srv/a->b->Total",
         "/srv/a->b", "Total"},
        {"Net->TCP->Packet Rate->Sent::6::x::0,/Sec,1", "Net->TCP->Packet Rate->Sent", "",
         "TCP->Packet Rate->Sent"},
        {"Process~^1~^->bash  (4242)->Rss (Kb)::141908::Rss::1,Kb,1", "Process->bash->Rss (Kb)",
         "4242", "Rss (Kb)"},
    };
    for (const Case& c : cases) {
        HeaderLine h;
        std::string err;
        ASSERT_TRUE(parse_header_line(c.line, h, err)) << err;
        Metric m = metric_from_header(h);
        EXPECT_EQ(m.path, c.path);
        EXPECT_EQ(m.instance, c.instance) << c.line;
        EXPECT_EQ(m.counter, c.counter) << c.line;
    }
}

TEST(SessionIds, ProcessIdsFollowThePid) {
    Metric m;
    // pid 100, row 4 ("% CPU Utilization"): 65536 + 100 * 18 + 5.
    ASSERT_TRUE(metric_from_process_id(67341, m));
    EXPECT_EQ(m.pid, 100);
    EXPECT_EQ(m.counter, "% CPU Utilization");
    EXPECT_TRUE(m.is_counter);
    EXPECT_FALSE(metric_from_process_id(65536 + 100 * 18, m));  // row 0 of the layout is unused
    EXPECT_FALSE(metric_from_process_id(65535, m));

    // A header whose id does not follow its pid, or names another row, is refused.
    Session s;
    Sample out;
    std::string err;
    EXPECT_FALSE(decode(
        s,
        frame(packet_body(1, {"Process~^1~^->sh  (100)->PID::67341::Process Id::1, ,0,100"}, "")),
        out, err));
    EXPECT_NE(err.find("belongs to process row '% CPU Utilization'"), std::string::npos) << err;
    EXPECT_FALSE(decode(
        s,
        frame(packet_body(1, {"Process~^1~^->sh  (100)->PID::67400::Process Id::1, ,0,100"}, "")),
        out, err));
    EXPECT_NE(err.find("not a process id of pid 100"), std::string::npos) << err;
}

TEST(SessionIds, NewProcessesAreDecodedWithoutHeaders) {
    Session s;
    Sample out;
    std::string err;
    ASSERT_TRUE(decode(s, fixture("header.pkt"), out, err)) << err;
    // pid 4242 is described; its row 12 (IO Chars) was not, pid 9 not at all.
    long io_4242 = 65536 + 4242 * 18 + 13;
    long cpu_9 = 65536 + 9 * 18 + 5;
    ASSERT_TRUE(
        decode(s,
               frame(packet_body(
                   2, {}, std::to_string(io_4242) + "=100\n" + std::to_string(cpu_9) + "=1.50\n")),
               out, err))
        << err;
    ASSERT_EQ(out.readings.size(), 2u);
    EXPECT_EQ(out.readings[0].metric->process_name, "bash");
    EXPECT_EQ(out.readings[0].metric->path, "Process->bash->IO Chars");
    EXPECT_EQ(out.readings[1].metric->pid, 9);
    EXPECT_EQ(out.readings[1].metric->process_name, "");
    EXPECT_DOUBLE_EQ(out.readings[1].number, 1.5);
}

TEST(SessionIds, PacketOneReplacesTheDefinitions) {
    Session s;
    Sample out;
    std::string err;
    ASSERT_TRUE(decode(s, fixture("header.pkt"), out, err)) << err;
    // A new data connection renumbers: id 5 now names something else, id 1 is gone.
    ASSERT_TRUE(
        decode(s,
               frame(packet_body(
                   1, {"Memory~^1~^-> % Memory Utilization::5::Memory Utilization::1,%,1"}, "")),
               out, err))
        << err;
    EXPECT_EQ(s.size(), 1u);
    EXPECT_EQ(s.find(5)->path, "Memory-> % Memory Utilization");
    EXPECT_FALSE(decode(s, frame(packet_body(2, {}, "1=3.00\n")), out, err));
    // A header section in a later packet adds to the definitions.
    ASSERT_TRUE(decode(s,
                       frame(packet_body(7, {"Disk~^1~^->sdb->Total Operations::9::x::1,/Sec,1"},
                                         "5=1.00\n9=2.00\n")),
                       out, err))
        << err;
    EXPECT_EQ(s.size(), 2u);
    // The same id twice in one header section is a broken agent.
    EXPECT_FALSE(decode(
        s,
        frame(packet_body(
            1, {"Disk~^1~^->a->Total::3::x::1,/Sec,1", "Disk~^1~^->b->Total::3::x::1,/Sec,1"}, "")),
        out, err));
    EXPECT_NE(err.find("defined twice"), std::string::npos);
    EXPECT_EQ(s.size(), 2u) << "a refused packet must leave the definitions alone";
}

TEST(SessionIds, AttributesMayBeTextCountersMustBeNumbers) {
    Session s;
    Sample out;
    std::string err;
    ASSERT_TRUE(decode(s, fixture("header.pkt"), out, err)) << err;
    ASSERT_TRUE(decode(s, frame(packet_body(2, {}, "141895=some user\n141893=4242\n")), out, err))
        << err;
    EXPECT_FALSE(out.readings[0].numeric);
    EXPECT_EQ(out.readings[0].text, "some user");
    EXPECT_FALSE(decode(s, frame(packet_body(3, {}, "13=\n")), out, err));
    EXPECT_NE(err.find("bad number ''"), std::string::npos) << err;
}

TEST(Json, EscapesAndNumbers) {
    EXPECT_EQ(json_quote("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\"");
    EXPECT_EQ(json_quote("caf\xc3\xa9"), "\"caf\xc3\xa9\"");
    EXPECT_EQ(json_quote("bad\xff"), "\"bad\\ufffd\"");
    EXPECT_EQ(json_quote("\xc0\xaf"), "\"\\ufffd\\ufffd\"");  // overlong '/'
    EXPECT_EQ(json_number(16.5), "16.5");
    EXPECT_EQ(json_number(0.1), "0.1");
    EXPECT_EQ(json_number(1e300 * 1e300), "null");
    EXPECT_EQ(json_number(123456789012.0), "123456789012");
    EXPECT_EQ(json_number(90), "90");
    EXPECT_EQ(json_number(5242880), "5242880");
    EXPECT_EQ(json_number(-0.25), "-0.25");
}
