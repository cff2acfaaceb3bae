// A console's view of the data path: header packet, then a data packet every scan, interval
// changes, EXIT, a second console taking over, consoles that go away.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <memory>
#include <set>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;
using Clock = std::chrono::steady_clock;

struct Packet {
    bool valid = false;
    int number = -1;
    int interval = -1;
    std::vector<std::string> headers;
    std::vector<std::string> data;
};

// Checks the frame strictly: prefix length equals the body, tags in order.
Packet parse(const std::string& raw) {
    Packet p;
    const std::string prefix = " \nBUFFERSIZE=";
    if (raw.compare(0, prefix.size(), prefix) != 0) return p;
    size_t nl = raw.find('\n', prefix.size());
    if (nl == std::string::npos || nl - prefix.size() < 6) return p;
    std::string body = raw.substr(nl + 1);
    if (std::stoul(raw.substr(prefix.size(), nl - prefix.size())) != body.size()) return p;

    size_t pos = 0;
    auto expect = [&](const std::string& text) {
        if (body.compare(pos, text.size(), text) != 0) return false;
        pos += text.size();
        return true;
    };
    auto line = [&](std::string* out) {
        size_t end = body.find('\n', pos);
        if (end == std::string::npos) return false;
        *out = body.substr(pos, end - pos);
        pos = end + 1;
        return true;
    };
    // Lines up to the closing tag; an empty section is the closing tag after one blank.
    auto section = [&](const std::string& close, std::vector<std::string>* out) {
        std::string l;
        if (!line(&l)) return false;
        if (l == " " + close) return true;
        do {
            if (l == close) return !out->empty();
            out->push_back(l);
        } while (line(&l));
        return false;
    };
    std::string number, time, interval;
    if (!expect("<START>\n<PACKET>\n") || !line(&number) || !expect("</PACKET>\n<TIME>\n") ||
        !line(&time) || !expect("</TIME>\n<INTERVAL>\n") || !line(&interval) ||
        !expect("</INTERVAL>\n<HEADER>\n") || !section("</HEADER>", &p.headers) ||
        !expect("<DATA>\n") || !section("</DATA>", &p.data) || !expect("</START>\n") ||
        pos != body.size())
        return p;
    p.number = std::stoi(number);
    p.interval = std::stoi(interval);
    p.valid = true;
    return p;
}

std::set<int> header_ids(const Packet& p) {
    std::set<int> ids;
    for (auto& h : p.headers) {
        size_t at = h.find("::");
        if (at != std::string::npos) ids.insert(std::stoi(h.substr(at + 2)));
    }
    return ids;
}

struct DataPath : ::testing::Test {
    InstallRoot root;
    int port = free_port();
    std::unique_ptr<Agent> agent;
    void SetUp() override {
        agent = std::make_unique<Agent>(root, std::vector<std::string>{"-nofork", "-port", std::to_string(port), "-scan", "1"});
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    }
    void TearDown() override { EXPECT_EQ(agent->stop(), 0); }

    // The collectors keep their system-wide files open after the first scan; a warm-up
    // session opens them so that later counts show only connections.
    void warm_up() {
        Client console(port);
        ASSERT_TRUE(console.send("<DATA>\n1\n"));
        ASSERT_TRUE(parse(console.read_packet(5000)).valid);
        ASSERT_TRUE(parse(console.read_packet(5000)).valid);
    }

    int open_descriptors() const {
        int n = 0;
        for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(agent->pid()) + "/fd")) ++n;
        return n;
    }
};

TEST_F(DataPath, HeaderPacketThenDataEverySecondWithConsistentIds) {
    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    Packet header = parse(console.read_packet(5000));
    ASSERT_TRUE(header.valid);
    EXPECT_EQ(header.number, 1);
    EXPECT_EQ(header.interval, 1);
    ASSERT_FALSE(header.headers.empty());
    EXPECT_NE(std::find_if(header.headers.begin(), header.headers.end(),
                           [](auto& h) { return h.rfind("Cpu~^1~^-> Mode Averages->Idle::", 0) == 0; }),
              header.headers.end());
    std::set<int> ids = header_ids(header);

    Packet first = parse(console.read_packet(5000));
    ASSERT_TRUE(first.valid);
    EXPECT_EQ(first.number, 2);
    EXPECT_TRUE(first.headers.empty()) << "data packets never carry header lines";
    ASSERT_FALSE(first.data.empty());

    auto last = Clock::now();
    for (int expected = 3; expected <= 5; ++expected) {
        Packet p = parse(console.read_packet(5000));
        ASSERT_TRUE(p.valid) << "packet " << expected;
        EXPECT_EQ(p.number, expected);
        auto now = Clock::now();
        auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count();
        if (expected > 3) {
            EXPECT_LT(gap, 2500) << "a data packet every scan interval";
        }
        last = now;
        for (auto& line : p.data) {
            size_t eq = line.find('=');
            ASSERT_NE(eq, std::string::npos) << line;
            EXPECT_TRUE(ids.count(std::stoi(line.substr(0, eq)))) << "data id without a header: " << line;
        }
    }
}

TEST_F(DataPath, IntervalRequestChangesPrintedInterval) {
    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    // A collection thread that starts takes the configured interval again; the first tick's
    // packet (after the header and first data packets) shows that it runs.
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(parse(console.read_packet(5000)).valid);
    std::string reply = request(port, "<INTERVAL>\n7\n", 5000);
    EXPECT_EQ(reply, "");
    bool seen = false;
    for (int i = 0; i < 6 && !seen; ++i) seen = parse(console.read_packet(5000)).interval == 7;
    EXPECT_TRUE(seen);
}

TEST_F(DataPath, ExitEndsTheDataConnectionAndANewConsoleIsServed) {
    warm_up();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    int before = open_descriptors();
    {
        Client console(port);
        ASSERT_TRUE(console.send("<DATA>\n1\n"));
        ASSERT_TRUE(parse(console.read_packet(5000)).valid);
        Client other(port);
        other.send("EXIT\n");
        other.close_now();
        bool eof = false;
        console.read_to_end(6000, &eof);
        EXPECT_TRUE(eof) << "EXIT closes the data connection at the next tick";
    }
    EXPECT_TRUE(wait_for_log(root, "RTS opted to stop getting data from RTC\n", 3000));

    Client again(port);
    ASSERT_TRUE(again.send("<DATA>\n1\n"));
    Packet header = parse(again.read_packet(5000));
    ASSERT_TRUE(header.valid);
    EXPECT_EQ(header.number, 1) << "a new data connection restarts packet numbers";
    EXPECT_FALSE(header.headers.empty());
    EXPECT_TRUE(parse(again.read_packet(5000)).valid);
    again.close_now();
    // The request and data connections are all released again.
    for (int i = 0; i < 40 && open_descriptors() > before; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_LE(open_descriptors(), before + 1);
}

TEST_F(DataPath, SecondConsoleTakesOverAndTheFirstSeesEndOfStream) {
    Client first(port);
    ASSERT_TRUE(first.send("<DATA>\n1\n"));
    ASSERT_TRUE(parse(first.read_packet(5000)).valid);
    Client second(port);
    ASSERT_TRUE(second.send("<DATA>\n1\n"));
    Packet header = parse(second.read_packet(5000));
    ASSERT_TRUE(header.valid);
    EXPECT_EQ(header.number, 1);
    bool eof = false;
    first.read_to_end(5000, &eof);
    EXPECT_TRUE(eof);
    EXPECT_TRUE(parse(second.read_packet(5000)).valid);
    EXPECT_TRUE(parse(second.read_packet(5000)).valid);
}

// Forty consoles ask for data at once, then one more: the newest is served, and the others
// end without a header pass of their own (each would cost a whole pass under the tick lock).
TEST_F(DataPath, TakeoverStormServesTheNewestConsoleOnly) {
    warm_up();
    std::vector<std::unique_ptr<Client>> storm;
    for (int i = 0; i < 40; ++i) storm.push_back(std::make_unique<Client>(port));
    // Every request thread is waiting for its first line before the lines go out together.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    for (auto& c : storm) ASSERT_TRUE(c->send("<DATA>\n1\n"));
    // The storm's requests have all been read (and queued) before the newest one arrives.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Client newest(port);
    ASSERT_TRUE(newest.send("<DATA>\n1\n"));
    EXPECT_TRUE(parse(newest.read_packet(5000)).valid);
    EXPECT_TRUE(parse(newest.read_packet(5000)).valid);
    int served = 0;
    for (auto& c : storm) {
        bool eof = false;
        if (!c->read_to_end(3000, &eof).empty()) ++served;
        EXPECT_TRUE(eof);
    }
    EXPECT_LE(served, 5) << "consoles taken over while waiting still got a header pass";
}

TEST_F(DataPath, ConsolesThatVanishDoNotStopTheAgent) {
    warm_up();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    int before = open_descriptors();
    for (int round = 0; round < 3; ++round) {
        Client console(port);
        ASSERT_TRUE(console.send("<DATA>\n1\n"));
        ASSERT_TRUE(parse(console.read_packet(5000)).valid);
        console.close_now();  // gone mid-stream: the next write fails
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    }
    Client last(port);
    ASSERT_TRUE(last.send("<DATA>\n1\n"));
    EXPECT_TRUE(parse(last.read_packet(5000)).valid);
    EXPECT_TRUE(parse(last.read_packet(5000)).valid);
    last.close_now();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_LE(open_descriptors(), before + 1) << "descriptors of vanished consoles are released";
}

}  // namespace
