#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "console/vm_openmetrics.h"
#include "test_util.h"

using namespace vornmon;
using vornmon_test::fixture;

namespace {

Sample fixture_sample(Session& session) {
    Sample out;
    for (const char* name : {"header.pkt", "data.pkt"}) {
        Framer f;
        f.feed(fixture(name));
        Packet p;
        std::string err;
        EXPECT_EQ(next_packet(f, p, err), Framer::Result::kPacket) << err;
        EXPECT_TRUE(session.accept(p, out, err)) << err;
    }
    return out;
}

Metric metric(const std::string& line) {
    HeaderLine h;
    std::string err;
    EXPECT_TRUE(parse_header_line(line, h, err)) << err;
    return metric_from_header(h);
}

}  // namespace

TEST(Exposure, NamesCarryBaseUnitsAndInstancesBecomeLabels) {
    Exposure e = expose(metric("Cpu~^1~^-> Mode Averages->Idle::1::CPU in Idle mode::1,%,1"));
    EXPECT_EQ(e.family, "vornrta_cpu_mode_averages_idle_percent");
    EXPECT_EQ(e.unit, "percent");
    EXPECT_TRUE(e.labels.empty());

    e = expose(metric("Cpu~^1~^-> 3->Total::2::CPU Utilization::1,%,1"));
    EXPECT_EQ(e.family, "vornrta_processor_total_percent");
    ASSERT_EQ(e.labels.size(), 1u);
    EXPECT_EQ(e.labels[0], (std::pair<std::string, std::string>{"cpu", "3"}));

    e = expose(metric("Memory~^1~^-> Allocation(MB)-> Free::3::Free memory::1,MBs,1"));
    EXPECT_EQ(e.family, "vornrta_memory_allocation_free_bytes");
    EXPECT_DOUBLE_EQ(e.scale, 1048576);

    e = expose(metric("Memory~^1~^-> System Memory (MB)::4::Total Memory::1, ,0,7954"));
    EXPECT_EQ(e.family, "vornrta_memory_system_memory_bytes");
    EXPECT_TRUE(e.exported);

    e = expose(metric("Process~^1~^->bash  (4242)->Rss (Kb)::141908::Rss::1,Kb,1"));
    EXPECT_EQ(e.family, "vornrta_process_rss_bytes");
    EXPECT_DOUBLE_EQ(e.scale, 1024);

    e = expose(metric("Net->TCP->Packet Rate->Sent::5::TCP Segments sent::0,/Sec,1"));
    EXPECT_EQ(e.family, "vornrta_net_tcp_packet_rate_sent_per_second");

    // File-system sizes are block counts whatever their unit text says.
    e = expose(metric("FileSystem~^1~^->/->Total::8::Total Space::1,Kb,1"));
    EXPECT_EQ(e.family, "vornrta_filesystem_total_blocks");
    EXPECT_DOUBLE_EQ(e.scale, 1);
    e = expose(metric("FileSystem~^1~^->/->Used::9::Used Space::1,%,1"));
    EXPECT_EQ(e.family, "vornrta_filesystem_used_blocks");
    e = expose(metric("FileSystem~^1~^->/->% Space Used::10::Space Used::1,%,1"));
    EXPECT_EQ(e.family, "vornrta_filesystem_space_used_percent");

    e = expose(metric("Disk~^1~^->sda->Waiting Elements::6::x::1,#,1"));
    EXPECT_EQ(e.family, "vornrta_disk_waiting_elements");
    EXPECT_EQ(e.unit, "");

    // Per-instance attributes are what the labels already say.
    EXPECT_FALSE(expose(metric("Disk~^1~^->sda->Name::7::Disk name::1,0,0,sda")).exported);
    EXPECT_FALSE(
        expose(metric("Process~^1~^->bash  (4242)->PID::141893::Process Id::1, ,0,4242")).exported);
}

TEST(Exposition, FamiliesAreWholeAndLabelsEscaped) {
    Session session;
    Sample s = fixture_sample(session);
    std::string text = openmetrics_text(&s, true);
    EXPECT_EQ(text.substr(text.size() - 6), "# EOF\n");
    EXPECT_NE(text.find("vornmon_agent_up 1\n"), std::string::npos);
    EXPECT_NE(text.find("# TYPE vornrta_cpu_average_utilization_percent gauge\n"
                        "# UNIT vornrta_cpu_average_utilization_percent percent\n"
                        "# HELP vornrta_cpu_average_utilization_percent Overall CPU Utilzation\n"
                        "vornrta_cpu_average_utilization_percent 16.5\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("vornrta_process_cpu_utilization_percent{pid=\"4242\",name=\"bash\",user="
                        "\"root\"} 2.5\n"),
              std::string::npos);
    EXPECT_NE(
        text.find(
            "vornrta_process_cpu_utilization_percent{pid=\"77\",name=\"my (odd)  name\"} 0\n"),
        std::string::npos);
    EXPECT_NE(
        text.find("vornrta_process_rss_bytes{pid=\"4242\",name=\"bash\",user=\"root\"} 5242880\n"),
        std::string::npos);
    EXPECT_NE(text.find("vornrta_memory_system_memory_bytes 8340373504\n"), std::string::npos);
    EXPECT_NE(text.find("vornrta_filesystem_space_used_percent{mountpoint=\"/\"} 61.2\n"),
              std::string::npos);
    // Every family's TYPE line appears once, before its samples.
    for (std::size_t at = text.find("# TYPE "); at != std::string::npos;
         at = text.find("# TYPE ", at + 1)) {
        std::string name = text.substr(at + 7, text.find(' ', at + 7) - at - 7);
        EXPECT_EQ(text.find("# TYPE " + name + " "), at) << name;
    }

    Metric odd = metric("Process~^1~^->a\"b\\c  (5)->% CPU Utilization::65631::x::1,%,1");
    Sample quoted;
    quoted.readings.push_back({std::make_shared<Metric>(odd), true, 1.0, "1.00"});
    EXPECT_NE(openmetrics_text(&quoted, true).find("name=\"a\\\"b\\\\c\""), std::string::npos);

    // A series sent twice in one packet is exposed once, with the later value.
    Sample twice;
    auto cpu = std::make_shared<Metric>(metric("Cpu~^1~^->Average Utilization::5::Overall::1,%,1"));
    twice.readings.push_back({cpu, true, 1.0, "1.00"});
    twice.readings.push_back({cpu, true, 2.0, "2.00"});
    std::string once = openmetrics_text(&twice, true);
    EXPECT_NE(once.find("vornrta_cpu_average_utilization_percent 2\n"), std::string::npos) << once;
    EXPECT_EQ(once.find("vornrta_cpu_average_utilization_percent 1\n"), std::string::npos) << once;

    std::string empty = openmetrics_text(nullptr, false);
    EXPECT_NE(empty.find("vornmon_agent_up 0\n"), std::string::npos);
    EXPECT_EQ(empty.find("vornrta_"), std::string::npos);
}

// The exposition must pass the Prometheus project's own checker. scripts/test installs it
// and sets VORN_REQUIRE_PROMTOOL=1, so there a missing checker is a failure, not a skip.
TEST(Exposition, PassesPromtool) {
    bool have = std::system("command -v promtool >/dev/null 2>&1") == 0;
    if (!have) {
        const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
        ASSERT_FALSE(required && std::string(required) == "1")
            << "promtool is required but missing";
        GTEST_SKIP() << "promtool not installed";
    }
    Session session;
    Sample s = fixture_sample(session);
    std::string text = openmetrics_text(&s, true);
    char path[] = "/tmp/vornmon-om-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    std::string cmd = std::string("promtool check metrics < ") + path + " > " + path + ".out 2>&1";
    int rc = std::system(cmd.c_str());
    std::string report = vornmon_test::read_file(std::string(path) + ".out");
    unlink(path);
    unlink((std::string(path) + ".out").c_str());
    EXPECT_EQ(rc, 0) << report << "\n" << text;
}

TEST(ScrapeServer, AnswersScrapesAndRefusesTheRest) {
    ScrapeServer server;
    std::string err;
    ASSERT_TRUE(server.listen({"127.0.0.1", 0}, err)) << err;
    ASSERT_GT(server.port(), 0);
    auto ask = [&](const std::string& request) {
        Socket s;
        std::string e;
        EXPECT_TRUE(connect_to({"127.0.0.1", server.port()}, 2000, s, e)) << e;
        EXPECT_TRUE(send_all(s, request, 2000, e));
        std::string reply;
        for (int i = 0; i < 200; ++i) {
            server.serve([] { return std::string("x 1\n# EOF\n"); });
            if (read_some(s, reply, 10, e) == ReadResult::kEof) break;
        }
        return reply;
    };
    std::string ok = ask("GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(ok.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << ok;
    EXPECT_NE(
        ok.find("Content-Type: application/openmetrics-text; version=1.0.0; charset=utf-8\r\n"),
        std::string::npos);
    EXPECT_NE(ok.find("Content-Length: 10\r\n"), std::string::npos);
    EXPECT_EQ(ok.substr(ok.size() - 10), "x 1\n# EOF\n");
    EXPECT_EQ(ask("GET /other HTTP/1.1\r\n\r\n").rfind("HTTP/1.1 404", 0), 0u);
    EXPECT_EQ(ask("POST /metrics HTTP/1.1\r\n\r\n").rfind("HTTP/1.1 405", 0), 0u);
    EXPECT_EQ(ask("garbage\r\n\r\n").rfind("HTTP/1.1 400", 0), 0u);
    std::string head = ask("HEAD /metrics HTTP/1.1\r\n\r\n");
    EXPECT_EQ(head.find("x 1"), std::string::npos);
    EXPECT_EQ(server.clients(), 0u);
}
