// The hub's parts on canned data: Prometheus series from recorded packets, counters that the
// hub accumulates, the history ring, live-stream queues and the event framing its readers use.
#include "console/vm_exposition.h"
#include "console/vm_history.h"
#include "console/vm_hub.h"
#include "console/vm_hub_feed.h"
#include "console/vm_renewal.h"
#include "test_util.h"

using namespace vornmon_test;

namespace {

// Decodes a hand-made stream and returns its last sample.
Sample last_sample(const std::vector<std::string>& headers, const std::string& data) {
    Session s;
    Sample out;
    std::string err;
    EXPECT_TRUE(decode(s, frame(body(1, headers, "")) + frame(body(3, {}, data)), out, err)) << err;
    return out;
}

std::string scrape(const std::vector<Series>& series, bool om = false) {
    AgentSeries a;
    a.instance = "db1:2101";
    a.host = "db1";
    a.up = true;
    a.series = std::make_shared<const std::vector<Series>>(series);
    return exposition_text({a}, om);
}

const std::vector<std::string> kHeaders = {
    "Cpu~^1~^-> 0-> User::1::x::1,%,1",
    "Disk~^1~^->sda->Total Operations::2::x::1,/Sec,1",
    "Disk~^1~^->sda->Total Transfers::3::x::1,/Sec,1",
    "Network->TCP->Connection Establish Rate->Number of Connections::4::x::0,/Sec,1",
    "FileSystem~^1~^->/->Available::5::x::1,Kb,1",
    "FileSystem~^1~^->/->Used::6::x::1,%,1",
    "FileSystem~^1~^->/->Total::7::x::1,Kb,1",
    "FileSystem~^1~^->/proc->Total::8::x::1,Kb,1",
    "FileSystem~^1~^->/run/user->Total::9::x::1,Kb,1",
    "Process~^1~^->make  (100)->% user CPU::67342::x::1,%,1",
    "Process~^1~^->make  (100)->Rss (Kb)::67352::x::1,Kb,1",
    "Process~^1~^->make  (200)->% user CPU::69142::x::1,%,1",
    "Process~^1~^->make  (200)->Rss (Kb)::69152::x::1,Kb,1",
    "Memory~^1~^-> System Memory (MB)::10::Total Memory::1, ,0,1024"};
const std::string kData =
    "1=50.00\n2=40\n3=4096\n4=7\n5=300\n6=100\n7=500\n8=0\n9=10\n67342=10.00\n67352=100\n"
    "69142=30.00\n69152=300\n70942=99.00\n";

}  // namespace

// Rates become totals over the seconds given, per-interval disk counts add up as they are,
// levels stay gauges; processes of one name add up; unnamed processes are left out.
TEST(Exposition, SeriesFromOneAgent) {
    Sample s = last_sample(kHeaders, kData);
    Accumulator acc({});
    std::map<std::string, std::string> attributes = {{"Memory->System Memory (MB)", "1024"}};
    acc.add(s, 2, attributes);
    std::string text = scrape(acc.add(s, 2, attributes));
    const std::string who = "{instance=\"db1:2101\",host=\"db1\"";
    for (std::string line : {
             "vornrta_cpu_seconds_total" + who + ",cpu=\"0\",mode=\"user\"} 2\n",
             "vornrta_disk_io_operations_total" + who + ",device=\"sda\"} 80\n",
             "vornrta_disk_io_bytes_total" + who + ",device=\"sda\"} 8192\n",
             "vornrta_tcp_connections" + who + "} 7\n",
             "vornrta_filesystem_fill_ratio" + who + ",mountpoint=\"/\"} 0.25\n",
             "vornrta_filesystem_size_blocks" + who + ",mountpoint=\"/\"} 500\n",
             "vornrta_process_cpu_seconds_total" + who + ",name=\"make\",mode=\"user\"} 1.6\n",
             "vornrta_process_resident_memory_bytes" + who + ",name=\"make\"} 409600\n",
             "vornrta_processes" + who + ",name=\"make\"} 2\n",
             "vornrta_memory_total_bytes" + who + "} 1073741824\n",
             std::string("# TYPE vornrta_cpu_seconds_total counter\n"),
             std::string("# TYPE vornrta_tcp_connections gauge\n"),
         })
        EXPECT_TRUE(has(text, line));
    for (std::string absent : {"/proc", "/run/user", "name=\"\"", "_per_second"})
        EXPECT_FALSE(has(text, absent)) << absent;
    // Per pid when asked; pseudo file systems when asked.
    Accumulator per_pid({true, true});
    text = scrape(per_pid.add(s, 2, attributes));
    EXPECT_TRUE(has(text, ",name=\"make\",pid=\"200\",mode=\"user\"} 0.6\n"));
    EXPECT_TRUE(has(text, "mountpoint=\"/run/user\""));
    // OpenMetrics names a counter family without its suffix, with its unit, and ends.
    text = scrape(acc.add(s, 2, attributes), true);
    EXPECT_TRUE(has(text, "# TYPE vornrta_cpu_seconds counter\n# UNIT vornrta_cpu_seconds seconds\n"));
    EXPECT_EQ(text.substr(text.size() - 6), "# EOF\n");
}

TEST(Exposition, PseudoFileSystemsAndLabelEscapes) {
    std::pair<const char*, double> cases[] = {{"/proc", 10}, {"/sys/fs/cgroup", 10}, {"/dev", 10},
                                              {"/run", 10},  {"/srv", 0},           {"/", 10},
                                              {"/running", 10}, {"/device", 10}};
    std::string pseudo;
    for (auto [mount, total] : cases) pseudo += is_pseudo_filesystem(mount, total) ? "1" : "0";
    EXPECT_EQ(pseudo, "11111000");
    EXPECT_EQ(label_value("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    EXPECT_EQ(help_text("a\"b\\c\nd"), "a\"b\\\\c\\nd");  // quotes stand in HELP text
}

TEST(Hub, AgentSpecsAndFiles) {
    AgentSpec a;
    std::string err;
    ASSERT_TRUE(parse_agent_spec("db1=10.0.0.5:2101", a, err)) << err;
    EXPECT_EQ(a.name + " " + a.endpoint.text(), "db1 10.0.0.5:2101");
    ASSERT_TRUE(parse_agent_spec("[::1]:2101", a, err));
    EXPECT_EQ(a.name, "[::1]:2101");
    for (const char* bad : {"db1", "x=db1:0", "a/b=db1:1", "=db1:1", "db1:99999"})
        EXPECT_FALSE(parse_agent_spec(bad, a, err)) << bad;
    std::vector<AgentSpec> specs;
    ASSERT_TRUE(parse_agents_text("# fleet\n\nweb=web1:2101 web.rules\n10.0.0.7:2101\n", specs, err));
    ASSERT_EQ(specs.size(), 2u);
    EXPECT_EQ(specs[0].rules_file, "web.rules");
    specs.clear();
    EXPECT_FALSE(parse_agents_text("a=h:1\na=h:2\n", specs, err));
    EXPECT_TRUE(has(err, "listed twice"));
    specs.clear();
    EXPECT_FALSE(parse_agents_text("ok:1\nh:1 r extra\n", specs, err));
    EXPECT_TRUE(has(err, "line 2"));
}

TEST(Hub, HistoryKeepsTheLastCapacitySamples) {
    History h(3, 1);
    Sample s = last_sample(kHeaders, kData);
    for (int i = 1; i <= 5; ++i) h.add(i * 1000, s);
    EXPECT_EQ(h.size(), 3u);
    auto points = h.points("Cpu-> 0-> User");
    ASSERT_EQ(points.size(), 3u);
    EXPECT_EQ(points.front().unix_ms, 3000);
    EXPECT_EQ(points.back().unix_ms, 5000);
    EXPECT_EQ(h.paths().size(), 1u) << "the cap on paths holds";
    EXPECT_TRUE(h.points("Process->make->% user CPU").empty()) << "processes are not kept";
}

// A reader that falls behind loses its stream; the side that pushes never waits.
// Renewals come no faster than the pause; an agent whose header entries are full can name no
// more processes, so each full header packet doubles the pause, up to an hour, and a header
// packet with room sets it back.
TEST(Hub, RenewalsSlowDownWhileTheAgentsHeaderIsFull) {
    using std::chrono::seconds;
    RenewalPace pace(seconds(60));
    const auto t0 = RenewalPace::Clock::now();
    EXPECT_TRUE(pace.due(t0));
    EXPECT_FALSE(pace.due(t0 + seconds(59)));
    EXPECT_TRUE(pace.due(t0 + seconds(60)));
    const size_t full = 65536 - 10, room = 65536 - 17;
    // lines of each header packet, the pause after it
    for (auto [lines, pause] : {std::pair{full, 120}, {full, 240}, {room, 60}, {full, 120},
                                {full, 240}, {full, 480}, {full, 960}, {full, 1920},
                                {full, 3600}, {full, 3600}, {size_t{300}, 60}}) {
        pace.header_arrived(lines);
        EXPECT_EQ(pace.pause(), seconds(pause)) << lines;
    }
    pace.header_arrived(full);
    EXPECT_FALSE(pace.due(t0 + seconds(60 + 119)));
    EXPECT_TRUE(pace.due(t0 + seconds(60 + 120)));
    RenewalPace slow(seconds(7200));  // a pause set longer than an hour is kept
    slow.header_arrived(full);
    EXPECT_EQ(slow.pause(), seconds(7200));
}

TEST(Hub, SubscriberQueuesAreBounded) {
    Subscriber s(2);
    auto e = std::make_shared<const std::string>("x");
    s.push(e), s.push(e);
    EXPECT_FALSE(s.closed());
    EXPECT_EQ(s.pop(0), e);
    s.push(e), s.push(e);
    EXPECT_TRUE(s.closed());
    EXPECT_EQ(s.pop(0), nullptr);
}

TEST(HubFeed, EventsAndAgentNames) {
    std::string buffer = "event: header\ndata:  \ndata: BUFFERSIZE=1\ndata: \n\n: idle\n\nevent: x";
    auto events = take_sse_events(buffer);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "header");
    EXPECT_EQ(events[0].data, " \nBUFFERSIZE=1\n");
    EXPECT_EQ(buffer, "event: x");
    EXPECT_EQ(agent_names("[{\"name\":\"a\\\"b\",\"x\":1},{\"name\":\"c\"}]"),
              (std::vector<std::string>{"a\"b", "c"}));
}
