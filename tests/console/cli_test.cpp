// The subcommands against a scripted agent: what each sends, how it reads the replies, and
// that every failure is one line on standard error with a non-zero status.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "console/vm_cli.h"
#include "fake_agent.h"
#include "test_util.h"

using namespace vornmon;
using vornmon_test::closed_port;
using vornmon_test::FakeAgent;
using vornmon_test::FakeConn;
using vornmon_test::fixture;
using vornmon_test::frame;
using vornmon_test::packet_body;

namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
    double seconds = 0;
};

Outcome vm(std::vector<std::string> args, const std::string& input = "") {
    char *out_buf = nullptr, *err_buf = nullptr;
    std::size_t out_len = 0, err_len = 0;
    std::FILE* out = open_memstream(&out_buf, &out_len);
    std::FILE* err = open_memstream(&err_buf, &err_len);
    std::string in_text = input.empty() ? std::string(" ") : input;
    std::FILE* in = fmemopen(in_text.data(), input.size(), "r");
    auto start = std::chrono::steady_clock::now();
    Outcome r;
    r.status = run_vornmon(args, out, err, in);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fclose(out);
    std::fclose(err);
    std::fclose(in);
    r.out.assign(out_buf, out_len);
    r.err.assign(err_buf, err_len);
    std::free(out_buf);
    std::free(err_buf);
    return r;
}

std::vector<std::string> at(int port, std::vector<std::string> rest) {
    std::vector<std::string> args = {"--port", std::to_string(port), "--timeout", "2"};
    args.insert(args.end(), rest.begin(), rest.end());
    return args;
}

// A one-line error on standard error and nothing on standard output.
void expect_one_line_error(const Outcome& r, int status, const std::string& words) {
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(r.out, "");
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
}

const char* kDescReply =
    "<HEADER>\n"
    "Cpu->Average Utilization::Overall CPU Utilzation::1,%,1\n"
    "TCP->Packet Rate->Sent::TCP Segments sent::0,/Sec,1\n"
    "</HEADER>\n";

}  // namespace

TEST(Cli, UsageErrorsExitTwo) {
    expect_one_line_error(vm({"frobnicate"}), kExitUsage, "unknown command");
    expect_one_line_error(vm({"desc", "--bogus"}), kExitUsage, "unknown option '--bogus'");
    expect_one_line_error(vm({"--port", "70000", "desc"}), kExitUsage, "--port");
    expect_one_line_error(vm({"--timeout", "0", "desc"}), kExitUsage, "--timeout");
    expect_one_line_error(vm({"interval", "0"}), kExitUsage, "from 1 to 86400");
    expect_one_line_error(vm({"interval"}), kExitUsage, "usage: vornmon interval");
    expect_one_line_error(vm({"alert-interval", "50000"}), kExitUsage, "1 to 20000");
    expect_one_line_error(vm({"top", "--sort", "colour"}), kExitUsage, "--sort");
    expect_one_line_error(vm({"top", "--once", "--count", "2"}), kExitUsage, "exclude");
    expect_one_line_error(vm({"json", "--count", "x"}), kExitUsage, "--count");
    expect_one_line_error(vm({"openmetrics", "--listen", "nowhere"}), kExitUsage, "host:port");
    expect_one_line_error(vm({"rules", "-"}, "broken rule\n"), kExitUsage,
                          "standard input, line 1");
    expect_one_line_error(vm({"event", std::string(600, 'x')}), kExitUsage, "510");
    expect_one_line_error(vm({}), kExitUsage, "missing command");
}

TEST(Cli, HelpForEveryCommand) {
    Outcome r = vm({"--help"});
    EXPECT_EQ(r.status, 0);
    for (const char* c : {"top", "raw", "json", "desc", "rules", "alert-interval", "alerts",
                          "event", "events", "event-def", "interval", "exit", "openmetrics"}) {
        EXPECT_NE(r.out.find(std::string("  ") + c + " "), std::string::npos) << c;
        Outcome h = vm({c, "--help"});
        EXPECT_EQ(h.status, 0) << c;
        EXPECT_EQ(
            h.out.rfind(
                std::string("usage: vornmon [--host HOST] [--port PORT] [--timeout SECONDS] ") + c,
                0),
            0u)
            << h.out;
    }
}

TEST(Cli, UnreachableAgentsFailFast) {
    int port = closed_port();
    for (std::vector<std::string> cmd :
         std::vector<std::vector<std::string>>{{"desc"},
                                               {"alerts"},
                                               {"events"},
                                               {"exit"},
                                               {"interval", "5"},
                                               {"json", "--count", "1"},
                                               {"raw", "--count", "1"},
                                               {"top", "--once"},
                                               {"event", "x"},
                                               {"openmetrics", "--listen", "127.0.0.1:0"}}) {
        Outcome r = vm(at(port, cmd));
        expect_one_line_error(r, kExitFailure, "Connection refused");
        EXPECT_LT(r.seconds, 3.0);
    }
}

TEST(Cli, SilentAgentsTimeOut) {
    // Accepts and reads, never answers: every read must give up at the timeout.
    FakeAgent agent([](FakeConn& c) { c.read_to_end(4000); });
    for (std::vector<std::string> cmd :
         std::vector<std::vector<std::string>>{{"desc"}, {"alerts"}, {"alert-interval", "60"}}) {
        Outcome r = vm(at(agent.port(), cmd));
        expect_one_line_error(r, kExitFailure, "no reply from the agent");
        EXPECT_LT(r.seconds, 3.5);
    }
}

TEST(Cli, DescListsLeaves) {
    std::string request;
    FakeAgent agent([&](FakeConn& c) {
        c.read_line(request);
        c.write(kDescReply);
        c.read_to_end(1000);  // the agent lingers before closing; the console must not wait
    });
    Outcome r = vm(at(agent.port(), {"desc"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(request, "<DESC>");
    EXPECT_NE(r.out.find("Cpu->Average Utilization  %      Overall CPU Utilzation"),
              std::string::npos)
        << r.out;
    EXPECT_LT(r.seconds, 0.9);
}

TEST(Cli, RulesAreCheckedThenSent) {
    std::vector<std::string> received;
    std::mutex m;
    FakeAgent agent([&](FakeConn& c) {
        std::string line;
        if (!c.read_line(line)) return;
        if (line == "<DESC>") {
            c.write(kDescReply);
            return;
        }
        std::string all = line + "\n" + c.read_to_end(2000);
        std::lock_guard<std::mutex> lock(m);
        received.push_back(all);
    });
    Outcome r =
        vm(at(agent.port(), {"rules", "-"}),
           "# comment\nbusy:Cpu->Average Utilization:>:90:0:1:cpu busy\nnet:TCP->*:>:1000:0:5\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "sent 2 rule(s) to 127.0.0.1:" + std::to_string(agent.port()) + "\n");
    {
        std::lock_guard<std::mutex> lock(m);
        ASSERT_EQ(received.size(), 1u);
        EXPECT_EQ(received[0],
                  "<EXPDEF>\nbusy:Cpu->Average Utilization:>:90:0:1:cpu "
                  "busy\nnet:TCP->*:>:1000:0:5\n</EXPDEF>\n");
    }
    // An unknown path is refused before anything is sent: the agent would drop the rest silently.
    r = vm(at(agent.port(), {"rules", "-"}), "x:Cpu->Average Utilisation:>:90:0:1\n");
    expect_one_line_error(r, kExitFailure, "no metric 'Cpu->Average Utilisation'");
    r = vm(at(agent.port(), {"rules", "--no-check", "-"}), "x:Cpu->Average Utilisation:>:90:0:1\n");
    EXPECT_EQ(r.status, 0) << r.err;
    r = vm(at(agent.port(), {"rules", "-"}), "# nothing\n");
    EXPECT_EQ(r.out, "cleared the rules of this console on 127.0.0.1:" +
                         std::to_string(agent.port()) + "\n");
    std::lock_guard<std::mutex> lock(m);
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(received[2], "<EXPDEF>\n</EXPDEF>\n");
    EXPECT_EQ(vm({"rules", "/nonexistent/rules"}).status, kExitFailure);
}

TEST(Cli, AlertingSwitchedOffIsReported) {
    // With alerting off the agent reads the tag and closes without a word.
    FakeAgent agent([](FakeConn& c) {
        std::string line;
        c.read_line(line);
    });
    for (std::vector<std::string> cmd :
         std::vector<std::vector<std::string>>{{"alerts"}, {"events"}, {"alert-interval", "60"}})
        expect_one_line_error(vm(at(agent.port(), cmd)), kExitFailure, "alerting switched off");
}

TEST(Cli, SettingsRequestsSendExactlyTheirLines) {
    std::vector<std::string> got;
    std::mutex m;
    FakeAgent agent([&](FakeConn& c) {
        std::string all = c.read_to_end(2000);
        std::lock_guard<std::mutex> lock(m);
        got.push_back(all);
    });
    EXPECT_EQ(vm(at(agent.port(), {"interval", "5"})).status, 0);
    EXPECT_EQ(vm(at(agent.port(), {"exit"})).status, 0);
    EXPECT_EQ(vm(at(agent.port(), {"event-def", "-"}), "disk:*:>:1:0:1").status, 0);
    std::lock_guard<std::mutex> lock(m);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0], "<INTERVAL>\n5\n");
    EXPECT_EQ(got[1], "EXIT\n");
    EXPECT_EQ(got[2], "<EVENT_DEF>\ndisk:*:>:1:0:1\n");
}

namespace {

// Serves the hand-made stream: header packet, then data packets every 50 ms.
FakeAgent::Script stream_script(std::string* asked, int data_packets,
                                const std::string& tail = "") {
    return [=](FakeConn& c) {
        std::string line, interval;
        c.read_line(line);
        c.read_line(interval);
        if (asked) *asked = line + "\n" + interval + "\n";
        c.write(fixture("header.pkt"));
        std::string data = fixture("data.pkt");
        for (int i = 0; i < data_packets; ++i) {
            c.write(data);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        c.write(tail);
        c.read_to_end(300);
    };
}

}  // namespace

TEST(Cli, JsonAndRawStreams) {
    std::string asked;
    FakeAgent agent(stream_script(&asked, 3));
    Outcome r = vm(at(agent.port(), {"json", "--count", "2", "--interval", "5"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(asked, "<DATA>\n5\n");
    std::string golden = fixture("handmade.jsonl");
    EXPECT_EQ(r.out, golden.substr(0, golden.find('\n', golden.find('\n') + 1) + 1));

    r = vm(at(agent.port(), {"raw", "--count", "2"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, fixture("header.pkt") + fixture("data.pkt"));
}

TEST(Cli, MalformedPacketsEndTheStreamWithTheReason) {
    FakeAgent agent(stream_script(nullptr, 1, fixture("unknown-id.pkt")));
    Outcome r = vm(at(agent.port(), {"json"}));
    EXPECT_EQ(r.status, kExitFailure);
    EXPECT_NE(r.err.find("malformed packet 2 from 127.0.0.1:"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("data id 999 has no header line"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << "the good packets still came out";

    // raw shows a refused packet before the reason.
    std::string broken = fixture("missing-tag.pkt");
    FakeAgent tagless([&](FakeConn& c) {
        c.read_to_end(200);
        c.write(broken);
    });
    r = vm(at(tagless.port(), {"raw"}));
    EXPECT_EQ(r.status, kExitFailure);
    EXPECT_EQ(r.out, broken);
    EXPECT_NE(r.err.find("expected </TIME>"), std::string::npos) << r.err;

    FakeAgent garbage([](FakeConn& c) {
        c.read_to_end(200);
        c.write("HTTP/1.0 400 Bad Request\r\n\r\n");
    });
    r = vm(at(garbage.port(), {"raw", "--count", "1"}));
    expect_one_line_error(r, kExitFailure, "expected length prefix 'BUFFERSIZE='");
}

TEST(Cli, LostAgentsAreReconnected) {
    // The first connection ends after one data packet; the second serves normally.
    std::atomic<int> served{0};
    FakeAgent agent([&](FakeConn& c) {
        int n = ++served;
        stream_script(nullptr, n == 1 ? 1 : 3)(c);
    });
    Outcome r = vm(at(agent.port(), {"json", "--count", "4"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("closed the data connection; reconnecting"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("reconnected"), std::string::npos) << r.err;
    EXPECT_EQ(served.load(), 2);
    // Both connections start with the header packet, which redefines the ids.
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 4);

    // An agent that keeps closing the data connection at once is given up after
    // --reconnect seconds without a packet.
    std::atomic<int> tries{0};
    FakeAgent once([&](FakeConn& c) {
        if (++tries == 1) stream_script(nullptr, 1)(c);
    });
    r = vm(at(once.port(), {"json", "--reconnect", "1"}));
    EXPECT_EQ(r.status, kExitFailure);
    EXPECT_NE(r.err.find("did not come back within 1 s"), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
    EXPECT_GE(tries.load(), 2);
    EXPECT_LT(r.seconds, 6.0);
}

TEST(Cli, TopFramesInPlainText) {
    FakeAgent agent(stream_script(nullptr, 3));
    // The first data packet holds no interval yet: frames start with the second.
    Outcome two = vm(at(agent.port(), {"top", "--count", "2", "--procs", "0"}));
    EXPECT_EQ(two.status, 0) << two.err;
    std::size_t frames = 0;
    for (std::size_t at = two.out.find("vornmon 127.0.0.1:"); at != std::string::npos;
         at = two.out.find("vornmon 127.0.0.1:", at + 1))
        ++frames;
    EXPECT_EQ(frames, 2u) << two.out;
    EXPECT_NE(two.out.find("Processes (2, by cpu)"), std::string::npos);
    EXPECT_EQ(two.out.find("  bash"), std::string::npos) << "--procs 0 shows no process rows";
    expect_one_line_error(vm(at(agent.port(), {"top"})), kExitUsage, "needs a terminal");
}
