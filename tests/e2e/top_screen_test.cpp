// `vornmon top` as a person sees it: in an 80x24 terminal (tmux on a server of its own)
// reading a real agent through a hub whose rule fires, driven by keys.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "hub_support.h"

namespace {

using std::to_string;

// A tmux server of the test's own (its own socket name), ended with the test.
struct Terminal {
    std::string socket = "vorn-top-" + to_string(getpid());
    std::string tmux(const std::string& args) const {
        std::string out;
        std::string cmd = "tmux -L " + socket + " " + args + " 2>&1";
        if (FILE* p = popen(cmd.c_str(), "r")) {
            char buf[4096];
            for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
            pclose(p);
        }
        return out;
    }
    void start(const std::string& command) const {
        tmux("new-session -d -x 80 -y 24 -s top '" + command + "'");
    }
    std::string screen() const { return tmux("capture-pane -p -t top"); }
    void keys(const std::string& keys) const { tmux("send-keys -t top " + keys); }
    ~Terminal() { tmux("kill-server"); }
};

// Rows of the process table: a pid, then a user column.
int process_rows(const std::string& screen) {
    static const std::regex row(R"(^ *\d+ )");
    int rows = 0;
    std::istringstream lines(screen);
    for (std::string line; std::getline(lines, line);)
        if (std::regex_search(line, row)) ++rows;
    return rows;
}

::testing::AssertionResult shows(const Terminal& t, int seconds, const std::string& part) {
    std::string last;
    if (e2e::eventually(seconds, [&] { return (last = t.screen()).find(part) != std::string::npos; }))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no '" << part << "' on the screen:\n" << last;
}

struct TopScreen : ::testing::Test {
    e2e::InstallRoot root;
    int port = e2e::free_port(), http = e2e::free_port();
    std::unique_ptr<e2e::Agent> agent;
    std::unique_ptr<e2e::Child> hub, marker;
    Terminal terminal;

    void SetUp() override {
        ASSERT_EQ(std::system("command -v tmux >/dev/null 2>&1"), 0)
            << "tmux missing (scripts/test installs it)";
        agent = std::make_unique<e2e::Agent>(
            root, std::vector<std::string>{"-nofork", "-port", to_string(port), "-scan", "1",
                                           "-collectprocess"});
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
        std::ofstream(root.path + "/rules") << "busy:Cpu->Average Utilization:>=:0:0:0:cpu\n";
        hub = std::make_unique<e2e::Child>(
            std::vector<std::string>{e2e::vornmon_binary(), "hub", "--listen",
                                     "127.0.0.1:" + to_string(http), "--alert-interval", "2",
                                     "--rules", root.path + "/rules", "--agent",
                                     "a=127.0.0.1:" + to_string(port)},
            root.path + "/hub.out");
        // A process with a name of its own for the filter to find.
        std::filesystem::copy_file("/bin/sleep", root.path + "/vtopmark");
        marker = std::make_unique<e2e::Child>(
            std::vector<std::string>{root.path + "/vtopmark", "120"}, root.path + "/mark.out");
    }
    void TearDown() override {
        marker.reset();
        hub.reset();
        if (agent) {
            EXPECT_EQ(agent->stop(), 0) << agent->err();
        }
    }
};

TEST_F(TopScreen, SmallTerminalShowsSummaryProcessesAlertsAndAnswersKeys) {
    // The rule fires once and holds: a view opened after that learns of it from the hub.
    ASSERT_TRUE(e2e::eventually(30, [&] {
        return e2e::http_get(http, "/api/agents/a/alerts").find("\"raised\":true") !=
               std::string::npos;
    })) << hub->output();
    terminal.start(e2e::vornmon_binary() + " top --hub http://127.0.0.1:" + to_string(http) +
                   " --agent a");
    ASSERT_TRUE(shows(terminal, 30, "ALERT busy")) << hub->output();
    std::string screen = terminal.screen();
    for (const char* part : {"CPU ", "Mem ", "Disk ", "Net ", "FS    /", "PID USER"})
        EXPECT_NE(screen.find(part), std::string::npos) << part << " in:\n" << screen;
    EXPECT_GE(process_rows(screen), 10) << screen;
    if (const char* keep = std::getenv("VORN_TOP_SCREEN")) std::ofstream(keep) << screen;
    EXPECT_EQ(screen.find("/proc"), std::string::npos) << screen;

    terminal.keys("/ vtopmark Enter");
    ASSERT_TRUE(shows(terminal, 10, "filter 'vtopmark'"));
    EXPECT_TRUE(shows(terminal, 10, "vtopmark\n"));
    EXPECT_EQ(process_rows(terminal.screen()), 1) << terminal.screen();

    terminal.keys("/ Escape I");  // clear the filter, then reverse the order
    EXPECT_TRUE(shows(terminal, 10, "reversed"));
    EXPECT_GE(process_rows(terminal.screen()), 10);
    terminal.keys("?");
    EXPECT_TRUE(shows(terminal, 10, "vornmon top: keys"));
    terminal.keys("x q");  // any key leaves the help; q quits, which ends the session
    EXPECT_TRUE(e2e::eventually(10, [&] {
        return terminal.tmux("has-session -t top || echo ended").find("ended") != std::string::npos;
    }));
}

}  // namespace
