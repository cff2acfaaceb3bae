// The web dashboard in a real browser: two agents, a hub serving the page files of the source
// tree, and headless Chromium reading the pages as a person would see them. The figures shown
// must be the agents' own, the charts must have drawn, the filter must find a process this
// test started, and the alert this test provoked must be on the page. Screenshots are kept in
// the build directory (VORN_UPDATE_SCREENSHOTS=1 copies them into docs/images/).
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <set>

#include "browser_support.h"
#include "hub_support.h"

namespace {

using std::to_string;

// A name no other process has, even when this test runs twice at once on one machine: both
// runs' agents see every process of the host.
// Five digits always, so that no run's name holds another's.
const std::string kSleeperName = [] {
    char name[16];
    std::snprintf(name, sizeof name, "vmdash%05d", static_cast<int>(getpid() % 100000));
    return std::string(name);
}();

// Processor count and memory size as the agent's latest measurement states them.
struct AgentFacts {
    int processors = 0;
    std::string memory_mb;
    bool has_disks = false;
};

AgentFacts facts_from_latest(const std::string& latest) {
    AgentFacts f;
    std::set<std::string> processors;
    std::regex total("\"path\":\"Cpu-> (\\d+)->Total\"");
    for (std::sregex_iterator i(latest.begin(), latest.end(), total), end; i != end; ++i)
        processors.insert((*i)[1]);
    f.processors = static_cast<int>(processors.size());
    std::smatch m;
    if (std::regex_search(
            latest, m,
            std::regex("\"path\":\"Memory-> System Memory \\(MB\\)\"[^}]*\"value\":\"(\\d+)\"")))
        f.memory_mb = m[1];
    f.has_disks = latest.find("\"class\":\"Disk\"") != std::string::npos;
    return f;
}

std::string screenshot_path(const std::string& name) {
    std::string dir = std::string(VORN_BINARY_DIR) + "/screenshots";
    std::filesystem::create_directories(dir);
    return dir + "/" + name;
}

// Keeps a screenshot; with VORN_UPDATE_SCREENSHOTS=1 it also replaces the one docs/ shows.
bool updating_screenshots() {
    const char* update = std::getenv("VORN_UPDATE_SCREENSHOTS");
    return update && std::string(update) == "1";
}

void keep_screenshot(e2e::Browser& browser, const std::string& name) {
    std::string err;
    ASSERT_TRUE(browser.screenshot(screenshot_path(name), err)) << err;
    if (updating_screenshots())
        std::filesystem::copy_file(screenshot_path(name),
                                   std::string(VORN_SOURCE_DIR) + "/docs/images/" + name,
                                   std::filesystem::copy_options::overwrite_existing);
}

struct DashboardBrowser : e2e::TwoAgentsAndAHub {
    std::string chromium = e2e::chromium_binary();
    std::unique_ptr<e2e::Child> sleeper;

    void SetUp() override {
        if (chromium.empty())
            GTEST_SKIP() << "chromium is not installed, so the dashboard is not tried in a browser "
                            "(scripts/test installs it)";
        // Started before the agents, so their first header pass already names it.
        std::string sleeper_path = root_b.path + "/" + kSleeperName;
        std::filesystem::copy_file("/bin/sleep", sleeper_path);
        sleeper = std::make_unique<e2e::Child>(std::vector<std::string>{sleeper_path, "300"},
                                               root_b.path + "/sleeper.out");
        start_agents();
        if (HasFatalFailure()) return;
        // A rule that holds from the first check: the alert the page must show.
        std::ofstream(root_a.path + "/rules") << "always:Cpu->Average Utilization:>=:0:0:0:"
                                                 "provoked by the dashboard test\n";
        start_hub({"--interval", "1", "--alert-interval", "2", "--rules", root_a.path + "/rules",
                   "--agent", "alpha=127.0.0.1:" + to_string(port_a), "--agent",
                   "beta=127.0.0.1:" + to_string(port_b), "--web",
                   std::string(VORN_SOURCE_DIR) + "/console/web"});
    }
    std::string get(const std::string& target) { return e2e::http_get(http, target); }
    std::string url(const std::string& page) {
        return "http://127.0.0.1:" + to_string(http) + "/" + page;
    }
};

TEST_F(DashboardBrowser, PagesShowTheAgentsFiguresChartsProcessesAndAlerts) {
    // A few scans, and the provoked alert collected, before a browser looks.
    ASSERT_TRUE(e2e::eventually(
        60,
        [&] {
            std::string agents = get("/api/agents");
            return std::regex_search(agents,
                                     std::regex("\"name\":\"alpha\",[^}]*\"samples\":[3-9]")) &&
                   std::regex_search(agents,
                                     std::regex("\"name\":\"beta\",[^}]*\"samples\":[3-9]")) &&
                   get("/api/agents/alpha/alerts").find("\"name\":\"always\"") != std::string::npos;
        }))
        << get("/api/agents") << hub->output();
    // Pictures for the docs show a minute of history rather than a few seconds.
    if (updating_screenshots()) std::this_thread::sleep_for(std::chrono::seconds(60));
    AgentFacts alpha = facts_from_latest(get("/api/agents/alpha/latest"));
    ASSERT_GT(alpha.processors, 0);
    ASSERT_FALSE(alpha.memory_mb.empty());

    e2e::Browser browser(chromium, root_a.path + "/profile", root_a.path + "/chromium.log");
    std::string err;
    ASSERT_TRUE(browser.open(err) && browser.resize(1400, 1000, err)) << err;

    // The fleet: both agents up, with the agents' own processor count and memory size.
    ASSERT_TRUE(browser.navigate(url(""), err)) << err;
    ASSERT_TRUE(browser.wait_for("document.querySelectorAll('#fleet tr[data-up=true]').length == 2",
                                 20, err))
        << err << browser.text("document.body.outerHTML", err);
    for (const char* name : {"alpha", "beta"}) {
        std::string row =
            "document.querySelector('#fleet tr[data-agent=" + std::string(name) + "]')";
        EXPECT_EQ(browser.text(row + ".dataset.processors", err), to_string(alpha.processors))
            << name;
        EXPECT_EQ(browser.text(row + ".dataset.memTotalMb", err), alpha.memory_mb) << name;
        EXPECT_EQ(browser.text(row + ".querySelector('a').getAttribute('href')", err),
                  "agent.html?agent=" + std::string(name));
    }
    EXPECT_TRUE(browser.wait_for(
        "document.querySelector('#fleet tr[data-agent=alpha]').dataset.firing == '1'", 10, err))
        << err;
    keep_screenshot(browser, "dashboard-fleet.png");

    // One agent: live charts with points, the filter given in the address finding the
    // test's process, and the provoked alert raised.
    ASSERT_TRUE(browser.navigate(url("agent.html?agent=alpha#filter=" + kSleeperName), err)) << err;
    std::string charts = "[...document.querySelectorAll('canvas[data-chart]')]";
    ASSERT_TRUE(browser.wait_for(
        "Number(document.body.dataset.samples) >= 3 && " + charts + ".length > 0 && " + charts +
            ".every(c => c.dataset.chart.startsWith('disk') || Number(c.dataset.points) > 0)",
        30, err))
        << err
        << browser.text(charts + ".map(c => c.dataset.chart + '=' + c.dataset.points).join(' ')",
                        err)
        << browser.text("document.getElementById('notice').textContent", err);
    EXPECT_EQ(browser.text("document.getElementById('summary').dataset.processors", err),
              to_string(alpha.processors));
    EXPECT_EQ(browser.text("document.getElementById('summary').dataset.memTotalMb", err),
              alpha.memory_mb);
    EXPECT_EQ(browser.text(
                  "document.querySelectorAll('#processors canvas[data-chart^=cpu-]').length", err),
              to_string(alpha.processors));
    if (alpha.has_disks) {
        EXPECT_NE(browser.text(
                      "document.querySelector('canvas[data-chart=disk-ops]').dataset.points", err),
                  "0");
    }

    std::string rows = "[...document.querySelectorAll('#processes tbody tr')]";
    EXPECT_EQ(browser.text(rows + ".map(r => r.dataset.name).join(',')", err), kSleeperName)
        << "the filter from the address keeps exactly the test's process";
    EXPECT_EQ(browser.text(rows + "[0].dataset.pid", err), to_string(sleeper->pid));
    EXPECT_EQ(browser.text("document.querySelector('#processes input').value", err), kSleeperName);

    EXPECT_TRUE(browser.wait_for(
        "document.querySelector('#alerts li[data-rule=always][data-raised=true]')", 10, err))
        << err;
    EXPECT_TRUE(browser.wait_for(
        "document.querySelector('#rules tr[data-rule=always]').dataset.firing == 'true'", 10, err))
        << err;
    EXPECT_EQ(browser.text("document.getElementById('status').textContent", err), "live");
    keep_screenshot(browser, "dashboard-agent.png");
    ASSERT_TRUE(browser.resize(1280, 800, err)) << err;
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    keep_screenshot(browser, "dashboard-agent-laptop.png");
}

}  // namespace

namespace {

// The whole reply to a GET sent exactly as written (no client normalises the path).
std::string raw_get(int port, const std::string& target, const std::string& headers = "") {
    e2e::Client c(port);
    return c.ok() && c.send("GET " + target + " HTTP/1.0\r\nHost: x\r\n" + headers + "\r\n")
               ? c.read_to_end(5000)
               : "";
}

int status_of(const std::string& reply) {
    return reply.size() > 12 ? std::atoi(reply.c_str() + 9) : 0;
}

std::string header_of(const std::string& reply, const std::string& name) {
    std::smatch m;
    return std::regex_search(reply, m,
                             std::regex("\r\n" + name + ": ([^\r]*)\r\n", std::regex::icase))
               ? m[1].str()
               : "";
}

struct HubWithPage {
    e2e::InstallRoot root;
    int http = e2e::free_port();
    std::unique_ptr<e2e::Child> hub;
    explicit HubWithPage(const std::string& web) {
        // No agent answers there: the hub serves its page all the same.
        hub = std::make_unique<e2e::Child>(
            std::vector<std::string>{
                e2e::vornmon_binary(), "hub", "--listen", "127.0.0.1:" + to_string(http), "--agent",
                "nobody=127.0.0.1:" + to_string(e2e::free_port()), "--web", web},
            root.path + "/hub.out");
        e2e::eventually(10, [&] { return status_of(raw_get(http, "/api/agents")) == 200; });
    }
};

}  // namespace

// The page files with their types and validators; nothing outside their directory, however
// the path is spelled.
TEST(DashboardFiles, ServedSafelyByTheHub) {
    HubWithPage h(std::string(VORN_SOURCE_DIR) + "/console/web");
    const std::pair<const char*, const char*> pages[] = {
        {"/", "text/html; charset=utf-8"},
        {"/agent.html?agent=nobody", "text/html; charset=utf-8"},
        {"/app.css", "text/css; charset=utf-8"},
        {"/agent.js", "text/javascript; charset=utf-8"},
    };
    for (auto [target, type] : pages) {
        std::string reply = raw_get(h.http, target);
        EXPECT_EQ(status_of(reply), 200) << target << "\n" << reply.substr(0, 300);
        EXPECT_EQ(header_of(reply, "Content-Type"), type) << target;
        EXPECT_EQ(header_of(reply, "Cache-Control"), "no-cache") << target;
        std::string etag = header_of(reply, "ETag");
        ASSERT_FALSE(etag.empty()) << target;
        std::string again = raw_get(h.http, target, "If-None-Match: " + etag + "\r\n");
        EXPECT_EQ(status_of(again), 304) << target << ": a reload costs no body";
    }
    for (const char* target :
         {"/../../CMakeLists.txt", "/%2e%2e/%2e%2e/CMakeLists.txt", "/..%2f..%2fCMakeLists.txt",
          "/vendor/..%2f..%2f..%2fCMakeLists.txt", "//etc/passwd", "/%2fetc%2fpasswd",
          "/.%2e/.%2e/CMakeLists.txt", "/web/../../../CMakeLists.txt", "/..\\..\\CMakeLists.txt"}) {
        std::string reply = raw_get(h.http, target);
        EXPECT_NE(status_of(reply), 200) << target;
        EXPECT_EQ(reply.find("cmake_minimum_required"), std::string::npos) << target;
        EXPECT_EQ(reply.find("root:"), std::string::npos) << target;
    }
    EXPECT_EQ(status_of(raw_get(h.http, "/api/nothing")), 404);
    EXPECT_TRUE(h.hub->output().find("dashboard page files from ") != std::string::npos)
        << h.hub->output();
}

// Without its page files the hub still serves its API, and says on / and in its log where it
// looked and how to give the page.
TEST(DashboardFiles, MissingPageIsExplained) {
    e2e::InstallRoot elsewhere;
    HubWithPage h(elsewhere.path + "/no-such-dir");
    std::string reply = raw_get(h.http, "/");
    EXPECT_EQ(status_of(reply), 404);
    EXPECT_NE(reply.find("page files were not found"), std::string::npos) << reply;
    EXPECT_NE(reply.find("--web DIR"), std::string::npos) << reply;
    EXPECT_NE(reply.find("no-such-dir"), std::string::npos) << reply;
    EXPECT_EQ(status_of(raw_get(h.http, "/api/agents")), 200);
    EXPECT_NE(h.hub->output().find("no dashboard page files (looked in "), std::string::npos)
        << h.hub->output();
}

// The first data packet of a connection covers no interval: the page's stream never carries
// it as a measurement, and goes on with measurements once a restarted agent is back.
TEST(DashboardStream, FirstDataPacketOfAConnectionIsNeverASample) {
    e2e::InstallRoot root;
    int port = e2e::free_port(), http = e2e::free_port();
    const std::vector<std::string> args = {"-nofork", "-port", to_string(port), "-scan", "1"};
    auto agent = std::make_unique<e2e::Agent>(root, args);
    ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    e2e::Child hub({e2e::vornmon_binary(), "hub", "--listen", "127.0.0.1:" + to_string(http),
                    "--interval", "1", "--agent", "a=127.0.0.1:" + to_string(port)},
                   root.path + "/hub.out");
    ASSERT_TRUE(e2e::eventually(30, [&] {
        return e2e::http_get(http, "/api/agents/a").find("\"up\":true") != std::string::npos;
    })) << hub.output();
    e2e::Client packets(http), page(http), fleet(http);
    ASSERT_TRUE(packets.send("GET /api/agents/a/packets HTTP/1.0\r\n\r\n"));
    ASSERT_TRUE(page.send("GET /api/agents/a/stream?format=compact HTTP/1.0\r\n\r\n"));
    ASSERT_TRUE(fleet.send("GET /api/fleet/stream HTTP/1.0\r\n\r\n"));
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(agent->stop(), 0);
    agent = std::make_unique<e2e::Agent>(root, args);
    ASSERT_TRUE(agent->wait_listening(port)) << agent->err();

    std::string raw = packets.read_to_end(6000);
    std::string compact = page.read_to_end(500);
    // The fleet page's stream: the whole fleet at once, then again as the agent measures and
    // comes back.
    std::string fleet_events = fleet.read_to_end(500);
    std::regex fleet_event("event: fleet\ndata: \\{\"interval\":1,[^\n]*\"name\":\"a\"");
    EXPECT_GE(std::distance(std::sregex_iterator(fleet_events.begin(), fleet_events.end(),
                                                 fleet_event),
                            std::sregex_iterator()),
              3)
        << fleet_events.substr(0, 2000);
    std::set<std::pair<std::string, std::string>> firsts;  // packet number and time
    std::regex first(
        "event: first\n(?:data: [^\n]*\n)*?data: <PACKET>\ndata: (\\d+)\ndata: </PACKET>\n"
        "data: <TIME>\ndata: ([^\n]*)\n");
    for (std::sregex_iterator i(raw.begin(), raw.end(), first), end; i != end; ++i)
        firsts.insert({(*i)[1], (*i)[2]});
    ASSERT_FALSE(firsts.empty()) << "the restarted agent's connection began with a first packet";
    std::regex sample(
        "event: sample\ndata: \\{\"agent\":\"a\",\"packet\":(\\d+),\"time\":\"([^\"]*)\"");
    int samples = 0;
    for (std::sregex_iterator i(compact.begin(), compact.end(), sample), end; i != end; ++i) {
        ++samples;
        EXPECT_EQ(firsts.count({(*i)[1], (*i)[2]}), 0u)
            << "packet " << (*i)[1] << " of " << (*i)[2] << " covers no interval";
    }
    EXPECT_GE(samples, 4) << compact.substr(0, 2000);
}
