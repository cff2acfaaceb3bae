#include "console/vm_wire.h"
#include "test_util.h"

using namespace vornmon_test;

// Whatever the read boundaries, good streams come out packet by packet, and bad prefixes
// are refused for good: reading goes on after an error, so a framer that recovered shows.
TEST(Framer, SplitsStreamsAndRefusesBadPrefixes) {
    std::string b = body(1, {}, ""), empty = fixture("empty.pkt");
    std::tuple<std::string, std::vector<long>, std::string> cases[] = {
        {fixture("header.pkt") + fixture("data.pkt") + empty, {1, 2, 3}, ""},
        {frame(body(4, {}, "")).substr(2), {4}, ""},  // the prefix without its blank line
        {frame(body(5, {}, "1=" + std::string(1200000, 'x') + "\n")), {5}, ""},  // 7 digits
        // Too long shows once the next packet reveals where this one ended (too short is
        // the bad-length capture).
        {" \nBUFFERSIZE=" + std::to_string(b.size() + 40) + "\n" + b + empty,
         {},
         "ends after " + std::to_string(b.size()) + " bytes"},
        {"HTTP/1.1 200 OK\r\n\r\n" + empty, {}, "expected length prefix 'BUFFERSIZE='"},
        {" x" + empty, {}, "expected length prefix, got"},
        {"BUFFERSIZE=12a\n" + empty, {}, "malformed length prefix"},
        {"BUFFERSIZE=\n" + empty, {}, "malformed length prefix"},
        {"BUFFERSIZE=999999999999999\n" + empty, {}, "length prefix too long"},
        {" \nBUFFERSIZE=999999999\n" + empty, {}, "larger than any packet"},
    };
    for (const auto& [stream, numbers, message] : cases)
        for (std::size_t step : {1u, 7u, 4096u}) {
            SCOPED_TRACE(std::to_string(stream.size()) + " bytes in steps of " +
                         std::to_string(step));
            Framer framer;
            Packet p;
            std::vector<long> got;
            std::string raw, err;
            for (std::size_t at = 0; at < stream.size(); at += step) {
                framer.feed(stream.substr(at, step));
                while (next_packet(framer, p, err) == Framer::Result::kPacket)
                    got.push_back(p.number), raw += p.raw;
            }
            EXPECT_EQ(got, numbers) << err;
            EXPECT_TRUE(message.empty() ? raw == stream : has(err, message));
        }
}

TEST(PacketBody, NamesWhatIsMissingOrExtra) {
    const std::string good = body(2, {}, "1=1.00\n");
    auto edit = [&](const std::string& from, const std::string& to) {
        return std::string(good).replace(good.find(from), from.size(), to);
    };
    Packet p;
    std::string err;
    ASSERT_TRUE(parse_packet_body(good, p, err)) << err;
    std::pair<std::string, std::string> cases[] = {
        {good.substr(0, good.size() - 1), "line feed"},
        {good.substr(8), "expected <START>"},
        {edit("</PACKET>\n", ""), "expected </PACKET>"},
        {edit("</TIME>\n", ""), "expected </TIME>"},
        {edit("<HEADER>\n", ""), "expected <HEADER>"},
        {edit(" </HEADER>\n", ""), "missing </HEADER>"},
        {edit("</DATA>\n", ""), "missing </DATA>"},
        {good + "junk\n", "text after </START>"},
        {edit("\n2\n", "\ntwo\n"), "bad packet number"},
        {edit("<INTERVAL>\n2", "<INTERVAL>\nx"), "bad interval"},
        {edit("1=1.00", "1:1.00"), "data line"},
        {edit("1=1.00", "one=1"), "data line"},
    };
    for (const auto& [bad, message] : cases) {
        EXPECT_FALSE(parse_packet_body(bad, p, err)) << message;
        EXPECT_TRUE(has(err, message));
    }
}

// Each line of the corpus breaks one rule of the header line format (the comment above it
// says which); every one must be refused with a reason.
TEST(HeaderLine, RefusesBrokenLines) {
    std::istringstream corpus(fixture("bad-header-lines.txt"));
    // A carriage return at the end, kept here where no editor strips it.
    std::vector<std::string> bad = {"Cpu~^1~^->Average Utilization::5::Overall::1,%,1\r"};
    for (std::string line; std::getline(corpus, line);)
        if (line.rfind("# ", 0) != 0) bad.push_back(line);
    EXPECT_EQ(bad.size(), 12u);
    for (const std::string& line : bad) {
        HeaderLine h;
        std::string err;
        EXPECT_FALSE(parse_header_line(line, h, err) || err.empty()) << line;
    }
}

TEST(Numbers, AcceptOnlyWhatTheAgentPrints) {
    double d = 0;
    long l = 0;
    for (const char* good :
         {"0", "12", "-3", "0.00", "-0.25", "123456789012", "nan", "-nan", "inf"})
        EXPECT_TRUE(parse_number(good, d)) << good;
    for (const char* bad : {"", "-", ".", "1.2.3", "12abc", " 1", "1 ", "+1", "0x1A", "1e5", "--1"})
        EXPECT_FALSE(parse_number(bad, d)) << bad;
    EXPECT_TRUE(parse_number("16.50", d) && d == 16.5 && parse_long("-1", l) && l == -1);
    EXPECT_FALSE(parse_long("99999999999999999999", l) || parse_long("1.0", l));
}
