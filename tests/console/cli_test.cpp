// The subcommands against a scripted agent: what each sends, how it reads the replies, and
// that every failure is one line on standard error with a non-zero status.
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "console/vm_cli.h"
#include "test_util.h"

using namespace vornmon_test;
using namespace std::chrono_literals;

namespace {

// A scripted stand-in for the agent on 127.0.0.1, serving one connection after the other.
// Reads give up after `ms` of silence, so a misbehaving console fails instead of hanging.
struct FakeAgent {
    int fd = socket(AF_INET, SOCK_STREAM, 0), port = 0, conn = -1;
    std::string buf;
    std::atomic<bool> stop{false};
    std::thread thread;
    explicit FakeAgent(std::function<void(FakeAgent&)> script) {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        bind(fd, reinterpret_cast<sockaddr*>(&a), len);
        listen(fd, 8);
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
        thread = std::thread([this, script] {
            for (pollfd p{fd, POLLIN, 0}; !stop;)
                if (poll(&p, 1, 50) > 0) {
                    conn = accept(fd, nullptr, nullptr);
                    script(*this);
                    close(conn);
                    buf.clear();
                }
        });
    }
    ~FakeAgent() {
        stop = true;
        thread.join();
        close(fd);
    }
    std::string at() const { return "--port " + std::to_string(port) + " --timeout 2 "; }
    // What arrives before `until` (consumed), or everything until the console closes.
    std::string read(const std::string& until = "", int ms = 3000) {
        timeval tv{ms / 1000, ms % 1000 * 1000};
        setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        std::size_t at = 0;
        for (char chunk[4096]; until.empty() || (at = buf.find(until)) == std::string::npos;) {
            ssize_t n = recv(conn, chunk, sizeof chunk, 0);
            if (n <= 0) return std::exchange(buf, {});
            buf.append(chunk, std::size_t(n));
        }
        std::string got = buf.substr(0, at);
        buf.erase(0, at + until.size());
        return got;
    }
    void write(const std::string& text) { send(conn, text.data(), text.size(), MSG_NOSIGNAL); }
};

struct Outcome {
    int status;
    std::string out, err;
    double seconds;
};

// Runs vornmon in this process on a command line split at blanks.
Outcome vm(const std::string& line, std::string input = " ") {
    std::vector<std::string> args;
    std::istringstream words(line);
    for (std::string w; words >> w;) args.push_back(w);
    char* text[2] = {};
    std::size_t size[2] = {};
    std::FILE *out = open_memstream(&text[0], &size[0]), *err = open_memstream(&text[1], &size[1]);
    std::FILE* in = fmemopen(input.data(), input.size(), "r");
    auto start = std::chrono::steady_clock::now();
    int status = run_vornmon(args, out, err, in);
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::fclose(out), std::fclose(err), std::fclose(in);
    Outcome r{status, std::string(text[0], size[0]), std::string(text[1], size[1]), took.count()};
    std::free(text[0]), std::free(text[1]);
    return r;
}

// A one-line error on standard error and nothing on standard output.
void expect_one_line_error(const Outcome& r, int status, const std::string& words) {
    EXPECT_EQ(r.status, status) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    EXPECT_TRUE(has(r.err, words));
}

// Serves the hand-made stream: header packet, data packets every 50 ms, then `tail`.
std::function<void(FakeAgent&)> stream(int data_packets, const std::string& tail = "") {
    return [=](FakeAgent& a) {
        a.read("\n");
        a.write(fixture("header.pkt"));
        for (int i = 0; i < data_packets; ++i, std::this_thread::sleep_for(50ms))
            a.write(fixture("data.pkt"));
        a.write(tail);
        a.read("", 300);
    };
}

}  // namespace

TEST(Cli, UsageErrorsExitTwoAndHelpCoversEveryCommand) {
    std::pair<std::string, const char*> cases[] = {
        {"frobnicate", "unknown command"},
        {"", "missing command"},
        {"--port 70000 desc", "--port"},
        {"desc --bogus", "unknown option '--bogus'"},
        {"alerts extra", "usage: vornmon alerts"},
        {"events --count 1", "unknown option"},
        {"exit now", "usage: vornmon exit"},
        {"interval 0", "from 1 to 86400"},
        {"alert-interval 50000", "1 to 20000"},
        {"top --sort colour", "--sort"},
        {"top --once --count 2", "exclude"},
        {"top --once --interval 5", "unknown option '--interval'"},
        {"json --count x", "--count"},
        {"raw --count 0", "--count"},
        {"openmetrics --listen nowhere", "host:port"},
        {"event " + std::string(600, 'x'), "510"},
        {"event-def", "usage: vornmon event-def"},
        {"hub", "name at least one agent"},
        {"hub --agent nohost", "expected host:port"},
        {"hub --agent a=h:1 --agent a=h:2", "named twice"},
        {"hub --agent h:1 --rules /nonexistent/rules", "/nonexistent/rules: cannot read it"},
        {"hub --agent h:1 --listen nowhere", "--listen"},
    };
    for (const auto& [line, words] : cases) expect_one_line_error(vm(line), kExitUsage, words);
    expect_one_line_error(vm("rules -", "broken rule\n"), kExitUsage, "standard input, line 1");
    expect_one_line_error(vm("rules /nonexistent/rules"), kExitFailure, "/nonexistent/rules");

    std::string help = vm("--help").out;
    for (std::string c :
         {"top", "raw", "json", "desc", "rules", "alert-interval", "alerts", "event", "events",
          "event-def", "interval", "exit", "openmetrics", "hub"}) {
        EXPECT_TRUE(has(help, "  " + c + " "));
        EXPECT_TRUE(has(vm(c + " --help").out, "[--timeout SECONDS] " + c));
    }
}

TEST(Cli, UnreachableSilentAndSwitchedOffAgentsFailFast) {
    std::string closed = FakeAgent([](FakeAgent&) {}).at();  // nothing listens there any more
    for (const char* cmd :
         {"desc", "alerts", "events", "exit", "interval 5", "json --count 1", "raw --count 1",
          "top --once", "event x", "openmetrics --listen 127.0.0.1:0"}) {
        Outcome r = vm(closed + cmd);
        expect_one_line_error(r, kExitFailure, "Connection refused");
        EXPECT_LT(r.seconds, 3.0) << cmd;
    }
    Outcome hub =
        vm("json --count 1 --hub http://127.0.0.1:" + closed.substr(7, closed.find(' ', 7) - 7));
    expect_one_line_error(hub, kExitFailure, "cannot reach the hub");
    // Accepts and reads, never answers: every read must give up at the timeout. With
    // alerting off the agent reads the tag and closes without a word.
    FakeAgent silent([](FakeAgent& a) { a.read("", 4000); });
    FakeAgent off([](FakeAgent& a) { a.read("\n"); });
    for (std::string cmd : {"desc", "alerts", "events", "alert-interval 60"}) {
        Outcome r = vm(silent.at() + cmd);
        expect_one_line_error(r, kExitFailure, "no reply from the agent");
        EXPECT_LT(r.seconds, 3.5) << cmd;
        if (cmd != "desc")
            expect_one_line_error(vm(off.at() + cmd), kExitFailure, "alerting switched off");
    }
}

TEST(Cli, RequestsSendExactlyTheirLines) {
    std::vector<std::string> sent;
    std::string typo = "x:Cpu->Average Utilisation:>:90:0:1\n";
    {
        FakeAgent agent([&](FakeAgent& a) {
            std::string line = a.read("\n");
            if (line == "<DATA>") a.write(fixture("header.pkt"));
            if (line != "<DESC>") return sent.push_back(line + "\n" + a.read("", 2000));
            a.write(
                "<HEADER>\nCpu->Average Utilization::Overall CPU Utilzation::1,%,1\n"
                "TCP->Packet Rate->Sent::TCP Segments sent::0,/Sec,1\n</HEADER>\n");
            a.read("", 1000);  // the agent lingers before closing
        });
        // The reply is whole at </HEADER>: vornmon must not wait for the agent to close.
        Outcome r = vm(agent.at() + "desc");
        EXPECT_TRUE(has(r.out, "Cpu->Average Utilization  %      Overall CPU Utilzation"));
        EXPECT_LT(r.seconds, 0.9);
        r = vm(agent.at() + "rules -", "# comment\nbusy:Cpu->Average Utilization:>:90:0:1:b\n");
        EXPECT_TRUE(has(r.out, "sent 1 rule(s) to 127.0.0.1:")) << r.err;
        // An unknown path is refused before anything is sent: the agent would drop the rest.
        r = vm(agent.at() + "rules -", typo);
        expect_one_line_error(r, kExitFailure, "no metric 'Cpu->Average Utilisation'");
        EXPECT_EQ(vm(agent.at() + "rules --no-check -", typo).status, 0);
        EXPECT_TRUE(has(vm(agent.at() + "rules -", "# nothing\n").out, "cleared the rules"));
        for (const char* cmd : {"interval 5", "exit", "event-def -", "event disk sdb",
                                "raw --count 1 --interval 7 --reconnect 1"})
            EXPECT_EQ(vm(agent.at() + cmd, "disk:*:>:1:0:1").status, 0) << cmd;
    }
    EXPECT_EQ(sent, (std::vector<std::string>{
                        "<EXPDEF>\nbusy:Cpu->Average Utilization:>:90:0:1:b\n</EXPDEF>\n",
                        "<EXPDEF>\n" + typo + "</EXPDEF>\n", "<EXPDEF>\n</EXPDEF>\n",
                        "<INTERVAL>\n5\n", "EXIT\n", "<EVENT_DEF>\ndisk:*:>:1:0:1\n",
                        "<EVENT>\ndisk sdb\n", "<DATA>\n7\n"}));
}

// With --reconnect 1 a console that never completes a packet gives up instead of retrying.
TEST(Cli, RawAndTopStreamsAndMalformedPackets) {
    FakeAgent agent(stream(3));
    Outcome r = vm(agent.at() + "raw --count 2 --reconnect 1");
    EXPECT_EQ(r.out, fixture("header.pkt") + fixture("data.pkt")) << r.err;
    // The first data packet holds no interval yet: frames start with the second.
    r = vm(agent.at() + "top --count 2 --procs 1 --reconnect 1");
    EXPECT_TRUE(r.status == 0 && has(r.out.substr(1), "\nvornmon 127.0.0.1:")) << r.err;
    EXPECT_TRUE(has(r.out, "Processes (2, by cpu)") && has(r.out, "  bash\n"));
    EXPECT_FALSE(has(r.out, "my (odd)")) << "--procs 1 keeps the busiest process only";
    expect_one_line_error(vm(agent.at() + "top"), kExitUsage, "needs a terminal");

    FakeAgent bad(stream(1, fixture("unknown-id.pkt")));
    r = vm(bad.at() + "json --reconnect 1");
    EXPECT_EQ(r.status, kExitFailure);
    EXPECT_TRUE(has(r.err, "malformed packet 2 from 127.0.0.1:"));
    EXPECT_TRUE(has(r.err, "data id 999 has no header line"));
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2) << "the good packets still came out";
    // raw shows a refused packet before the reason.
    FakeAgent tagless([](FakeAgent& a) { a.read("", 200), a.write(fixture("missing-tag.pkt")); });
    r = vm(tagless.at() + "raw --reconnect 1");
    EXPECT_EQ(r.out, fixture("missing-tag.pkt"));
    EXPECT_TRUE(r.status == kExitFailure && has(r.err, "expected </TIME>"));
    FakeAgent garbage([](FakeAgent& a) { a.read("", 200), a.write("HTTP/1.0 400 Bad\r\n\r\n"); });
    r = vm(garbage.at() + "raw --count 1");
    expect_one_line_error(r, kExitFailure, "expected length prefix 'BUFFERSIZE='");
}

// Reconnection itself runs against the real agent; here the agent never comes back.
TEST(Cli, LostAgentsAreGivenUpAfterTheReconnectTime) {
    int tries = 0;
    FakeAgent once([&](FakeAgent& a) {
        if (++tries == 1) stream(1)(a);
    });
    Outcome r = vm(once.at() + "json --reconnect 1");
    EXPECT_EQ(r.status, kExitFailure);
    EXPECT_TRUE(has(r.err, "closed the data connection; reconnecting"));
    EXPECT_TRUE(has(r.err, "did not come back within 1 s"));
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
    EXPECT_LT(r.seconds, 6.0);
}

// The agent answers <DATA> with the header packet (which may carry data strings of its own)
// and a first data packet built at once, covering no interval; figures start with the third.
TEST(Cli, TheFirstDataPacketOfAConnectionIsNoMeasurement) {
    const std::string cpu = "Cpu~^1~^->Average Utilization::1::Overall::1,%,1";
    FakeAgent agent([&](FakeAgent& a) {
        a.read("\n");
        a.write(frame(body(1, {cpu}, "1=11.00\n")) + frame(body(2, {}, "1=22.00\n")));
        for (int n = 3; n < 6; ++n, std::this_thread::sleep_for(50ms))
            a.write(frame(body(n, {}, "1=" + std::to_string(n * 11) + ".00\n")));
        a.read("", 300);
    });
    Outcome r = vm(agent.at() + "top --once --procs 0");
    EXPECT_TRUE(has(r.out, "total  33.0%")) << r.err;
    r = vm(agent.at() + "json --count 3");
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 3) << "json shows every packet";
}
