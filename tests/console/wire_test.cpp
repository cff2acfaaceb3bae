#include <gtest/gtest.h>

#include "console/vm_wire.h"
#include "test_util.h"

using namespace vornmon;
using vornmon_test::fixture;
using vornmon_test::frame;
using vornmon_test::packet_body;

namespace {

// Feeds `stream` in pieces of `step` bytes and collects the packets (or the first error).
std::vector<Packet> packets_of(const std::string& stream, std::size_t step, std::string& err) {
    Framer framer;
    std::vector<Packet> out;
    for (std::size_t at = 0; at < stream.size(); at += step) {
        framer.feed(stream.substr(at, step));
        for (;;) {
            Packet p;
            Framer::Result r = next_packet(framer, p, err);
            if (r == Framer::Result::kPacket)
                out.push_back(std::move(p));
            else if (r == Framer::Result::kError)
                return out;
            else
                break;
        }
    }
    return out;
}

}  // namespace

TEST(Framer, PacketsComeOutWhateverTheReadBoundaries) {
    std::string stream = fixture("header.pkt") + fixture("data.pkt") + fixture("empty.pkt");
    for (std::size_t step : {1u, 2u, 7u, 100u, 4096u}) {
        std::string err;
        std::vector<Packet> got = packets_of(stream, step, err);
        ASSERT_EQ(got.size(), 3u) << "step " << step << ": " << err;
        EXPECT_EQ(got[0].number, 1);
        EXPECT_EQ(got[1].number, 2);
        EXPECT_EQ(got[2].number, 3);
        EXPECT_EQ(got[0].raw + got[1].raw + got[2].raw, stream);
    }
}

TEST(Framer, AcceptsThePrefixWithoutTheLeadingBlankLine) {
    std::string body = packet_body(4, {}, "");
    std::string stream = "BUFFERSIZE=" + std::string(6 - std::to_string(body.size()).size(), '0') +
                         std::to_string(body.size()) + "\n" + body;
    std::string err;
    auto got = packets_of(stream, 3, err);
    ASSERT_EQ(got.size(), 1u) << err;
    EXPECT_EQ(got[0].number, 4);
}

TEST(Framer, SevenDigitLengthsAreRead) {
    std::string big(1200000, 'x');
    std::string body = packet_body(1, {}, "1=" + big + "\n");
    std::string stream = frame(body);
    ASSERT_EQ(stream.find("BUFFERSIZE=" + std::to_string(body.size()) + "\n"), 2u);
    ASSERT_EQ(std::to_string(body.size()).size(), 7u);
    std::string err;
    auto got = packets_of(stream, 65536, err);
    ASSERT_EQ(got.size(), 1u) << err;
    EXPECT_EQ(got[0].data[0].value.size(), big.size());
}

TEST(Framer, RefusesALengthThatIsTooLong) {
    // Too long is seen once the next packet shows where this one really ended (too short
    // is the bad-length capture of the golden tests).
    std::string body = packet_body(1, {}, "");
    std::string stream = " \nBUFFERSIZE=" + std::to_string(body.size() + 40) + "\n" + body +
                         frame(packet_body(2, {}, ""));
    for (std::size_t step : {1u, 7u, 4096u}) {
        std::string err;
        EXPECT_TRUE(packets_of(stream, step, err).empty());
        EXPECT_NE(err.find("ends after " + std::to_string(body.size()) + " bytes"),
                  std::string::npos)
            << "step " << step << ": " << err;
    }
}

TEST(Framer, RefusesStreamsWithoutAPrefix) {
    std::string err;
    for (std::string bad : {"HTTP/1.1 200 OK\r\n\r\n", " x", "BUFFERSIZE=12a\n", "BUFFERSIZE=\n",
                            "BUFFERSIZE=999999999999999\n"}) {
        err.clear();
        EXPECT_TRUE(packets_of(bad, 1, err).empty());
        EXPECT_FALSE(err.empty()) << "accepted " << bad;
    }
}

TEST(Framer, RefusesABodyLargerThanTheLimit) {
    Framer f;
    f.feed(" \nBUFFERSIZE=999999999\n");
    std::string body, raw, err;
    EXPECT_EQ(f.next(body, raw, err), Framer::Result::kError);
    EXPECT_NE(err.find("larger than any packet"), std::string::npos);
    // Once failed, the framer stays failed: nothing after garbage can be trusted.
    f.feed(fixture("empty.pkt"));
    EXPECT_EQ(f.next(body, raw, err), Framer::Result::kError);
}

TEST(PacketBody, ReadsEverySection) {
    Packet p;
    std::string err;
    std::string body =
        packet_body(17, {"Cpu~^1~^->Average Utilization::5::Overall CPU Utilzation::1,%,1"},
                    "5=16.50\n6=0\n", 5, "CET 01:02:03 05-Mar-2011");
    ASSERT_TRUE(parse_packet_body(body, p, err)) << err;
    EXPECT_EQ(p.number, 17);
    EXPECT_EQ(p.time, "CET 01:02:03 05-Mar-2011");
    EXPECT_EQ(p.interval, 5);
    ASSERT_EQ(p.headers.size(), 1u);
    ASSERT_EQ(p.data.size(), 2u);
    EXPECT_EQ(p.data[0].id, 5);
    EXPECT_EQ(p.data[0].value, "16.50");
    EXPECT_EQ(p.data[1].value, "0");
}

TEST(PacketBody, NamesWhatIsMissingOrExtra) {
    std::string good = packet_body(2, {}, "1=1.00\n");
    struct Case {
        std::string body;
        std::string message;
    } cases[] = {
        {good.substr(0, good.size() - 1), "line feed"},
        {good.substr(8), "expected <START>"},
        {std::string(good).replace(good.find("</PACKET>\n"), 10, ""), "expected </PACKET>"},
        {std::string(good).replace(good.find("</TIME>\n"), 8, ""), "expected </TIME>"},
        {std::string(good).replace(good.find("<HEADER>\n"), 9, ""), "expected <HEADER>"},
        {std::string(good).replace(good.find(" </HEADER>\n"), 11, ""), "missing </HEADER>"},
        {std::string(good).replace(good.find("</DATA>\n"), 8, ""), "missing </DATA>"},
        {good + "junk\n", "text after </START>"},
        {std::string(good).replace(good.find("\n2\n") + 1, 1, "two"), "bad packet number"},
        {std::string(good).replace(good.find("<INTERVAL>\n2") + 11, 1, "x"), "bad interval"},
        {std::string(good).replace(good.find("1=1.00"), 6, "1:1.00"), "data line"},
        {std::string(good).replace(good.find("1=1.00"), 6, "one=1"), "data line"},
    };
    for (const Case& c : cases) {
        Packet p;
        std::string err;
        EXPECT_FALSE(parse_packet_body(c.body, p, err)) << c.body;
        EXPECT_NE(err.find(c.message), std::string::npos) << "got: " << err;
    }
}

TEST(HeaderLine, SplitsClassCounterAndAttributes) {
    HeaderLine h;
    std::string err;
    ASSERT_TRUE(
        parse_header_line("Cpu~^1~^-> Mode Averages->Idle::1::CPU in Idle mode::1,%,1", h, err))
        << err;
    EXPECT_EQ(h.prefix, "Cpu");
    EXPECT_EQ(h.name, " Mode Averages->Idle");
    EXPECT_TRUE(h.marked);
    EXPECT_EQ(h.id, 1);
    EXPECT_EQ(h.description, "CPU in Idle mode");
    EXPECT_EQ(h.units, "%");
    EXPECT_EQ(h.is_counter, 1);
    EXPECT_FALSE(h.value);

    // Marker 0 uses the short separator; a trailing blank in a name is part of it.
    ASSERT_TRUE(
        parse_header_line("Net->TCP->Received Packets Breakdown->Duplicate Ack ::24::TCP "
                          "Duplicate ACK Segments Received::0,/Sec,1",
                          h, err))
        << err;
    EXPECT_EQ(h.prefix, "Net");
    EXPECT_EQ(h.name, "TCP->Received Packets Breakdown->Duplicate Ack ");
    EXPECT_FALSE(h.marked);

    // Attribute values are the rest of the line, commas and colons included; units may be blank.
    ASSERT_TRUE(parse_header_line(
        "FileSystem~^1~^->/mnt/a,b->Name::25::File system name::1, ,0,/mnt/a,b", h, err))
        << err;
    EXPECT_EQ(h.units, " ");
    EXPECT_EQ(h.is_counter, 0);
    ASSERT_TRUE(h.value);
    EXPECT_EQ(*h.value, "/mnt/a,b");
    ASSERT_TRUE(
        parse_header_line("Memory~^1~^-> System Memory (MB)::12::Total Memory::1, ,0,", h, err))
        << err;
    EXPECT_EQ(*h.value, "");
}

TEST(HeaderLine, ProcessNamesMayHoldAnything) {
    HeaderLine h;
    std::string err;
    ASSERT_TRUE(
        parse_header_line("Process~^1~^->my (odd)  name  (77)->% CPU Utilization::66927::% CPU "
                          "Utilization::1,%,1",
                          h, err))
        << err;
    EXPECT_TRUE(h.is_process);
    EXPECT_EQ(h.process_name, "my (odd)  name");
    EXPECT_EQ(h.pid, 77);
    EXPECT_EQ(h.counter, "% CPU Utilization");

    ASSERT_TRUE(parse_header_line("Process~^1~^->a::b  (5)->Rss (Kb)::65642::Rss::1,Kb,1", h, err))
        << err;
    EXPECT_EQ(h.process_name, "a::b");
    EXPECT_EQ(h.counter, "Rss (Kb)");

    EXPECT_FALSE(parse_header_line("Process~^1~^->bash->PID::65537::Process Id::1, ,0,1", h, err));
    EXPECT_NE(err.find("(<pid>)"), std::string::npos);
}

TEST(HeaderLine, RefusesBrokenLines) {
    const char* bad[] = {
        "Cpu~^1~^->Average Utilization::5::Overall CPU Utilzation",  // no marker/units
        "Cpu~^1~^->Average Utilization::x::Overall::1,%,1",          // id not a number
        "Cpu~^1~^->Average Utilization::5::Overall::1,%",            // no is_counter
        "Cpu~^1~^->Average Utilization::5::Overall::1,%,2",          // is_counter out of range
        "Cpu~^1~^->Average Utilization::5::Overall::1,%,1,12",       // counter with a value
        "Disk~^1~^->sda->Name::17::Disk name::1,0,0",                // attribute without value
        "Cpu->Average Utilization::5::Overall::1,%,1",               // marker 1, short separator
        "Net~^1~^->TCP->Sent::22::TCP Segments sent::0,/Sec,1",      // marker 0, long separator
        "CpuAverage Utilization::5::Overall::1,%,1",                 // no separator
        "~^1~^->Average::5::Overall::1,%,1",                         // no class
        "Cpu~^1~^->Average Utilization::5::Overall::1,%,1\r",        // carriage return
    };
    for (const char* line : bad) {
        HeaderLine h;
        std::string err;
        EXPECT_FALSE(parse_header_line(line, h, err)) << line;
        EXPECT_FALSE(err.empty());
    }
}

TEST(Numbers, AcceptOnlyWhatTheAgentPrints) {
    double d = 0;
    for (const char* good :
         {"0", "12", "-3", "16.50", "0.00", "-0.25", "123456789012", "nan", "-nan", "inf"})
        EXPECT_TRUE(parse_number(good, d)) << good;
    EXPECT_TRUE(parse_number("16.50", d));
    EXPECT_DOUBLE_EQ(d, 16.5);
    for (const char* bad : {"", "-", ".", "1.2.3", "12abc", " 1", "1 ", "+1", "0x1A", "1e5", "--1"})
        EXPECT_FALSE(parse_number(bad, d)) << bad;
    long l = 0;
    EXPECT_TRUE(parse_long("-1", l));
    EXPECT_EQ(l, -1);
    EXPECT_FALSE(parse_long("99999999999999999999", l));
    EXPECT_FALSE(parse_long("1.0", l));
}
