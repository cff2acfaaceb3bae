// A real Prometheus server scrapes a hub that watches two live agents, and the agents'
// processor, memory, disk and process figures are read back through its query API.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <regex>

#include "hub_support.h"

namespace {

using std::to_string;

std::string url_encode(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '_' || c == '.' || c == '-') {
            out += static_cast<char>(c);
        } else {
            char hex[4];
            std::snprintf(hex, sizeof hex, "%%%02X", c);
            out += hex;
        }
    }
    return out;
}

TEST(HubPrometheus, QueriesReadBackBothAgents) {
    if (std::system("command -v prometheus >/dev/null 2>&1") != 0) {
        const char* required = std::getenv("VORN_REQUIRE_PROMTOOL");
        ASSERT_FALSE(required && std::string(required) == "1") << "prometheus required but missing";
        GTEST_SKIP() << "prometheus is not installed";
    }
    e2e::InstallRoot root_a, root_b;
    int port_a = e2e::free_port(), port_b = e2e::free_port(), http = e2e::free_port(),
        prom = e2e::free_port();
    std::vector<std::unique_ptr<e2e::Agent>> agents;
    for (auto [root, port] : {std::pair{&root_a, port_a}, {&root_b, port_b}}) {
        agents.push_back(std::make_unique<e2e::Agent>(
            *root, std::vector<std::string>{"-nofork", "-port", to_string(port), "-scan", "1",
                                            "-collectprocess"}));
        ASSERT_TRUE(agents.back()->wait_listening(port)) << agents.back()->err();
    }
    e2e::Child hub({e2e::vornmon_binary(), "hub", "--listen", "127.0.0.1:" + to_string(http),
                    "--interval", "1", "--agent", "127.0.0.1:" + to_string(port_a), "--agent",
                    "127.0.0.1:" + to_string(port_b)},
                   root_a.path + "/hub.out");
    // honor_labels keeps the hub's instance labels, one per agent.
    std::ofstream(root_a.path + "/prometheus.yml")
        << "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
           "scrape_configs:\n  - job_name: vornmon\n    honor_labels: true\n"
           "    static_configs:\n      - targets: ['127.0.0.1:"
        << http << "']\n";
    std::filesystem::create_directory(root_a.path + "/tsdb");
    e2e::Child prometheus(
        {"/usr/bin/prometheus", "--config.file=" + root_a.path + "/prometheus.yml",
         "--storage.tsdb.path=" + root_a.path + "/tsdb",
         "--web.listen-address=127.0.0.1:" + to_string(prom)},
        root_a.path + "/prometheus.out");

    std::string a = "127.0.0.1:" + to_string(port_a), b = "127.0.0.1:" + to_string(port_b);
    const char* queries[] = {
        "vornrta_cpu_utilization_ratio",
        "sum by (instance) (rate(vornrta_cpu_seconds_total[10s])) / count by (instance) "
        "(vornrta_cpu_seconds_total{mode=\"idle\"})",
        "vornrta_memory_total_bytes",
        "sum by (instance) (vornrta_disk_io_bytes_total)",
        "sum by (instance) (vornrta_processes)",
        "vornmon_agent_up",
    };
    for (const char* query : queries) {
        std::string answer;
        // Values that hold for both agents: a number for each instance.
        std::regex both("\"instance\":\"" + a + "\"[^\\]]*\\]\\}.*\"instance\":\"" + b + "\"|" +
                        "\"instance\":\"" + b + "\"[^\\]]*\\]\\}.*\"instance\":\"" + a + "\"");
        EXPECT_TRUE(e2e::eventually(90,
                                    [&] {
                                        answer = e2e::http_get(
                                            prom, "/api/v1/query?query=" + url_encode(query));
                                        return std::regex_search(answer, both);
                                    }))
            << query << "\n"
            << answer << "\n"
            << prometheus.output().substr(0, 2000) << hub.output();
        std::cout << "query: " << query << "\nanswer: " << answer << "\n";
        if (std::string(query).find("rate(") == std::string::npos) continue;
        // Every processor spends one second per second in some mode.
        std::string ratio;
        EXPECT_TRUE(e2e::eventually(60, [&] {
            ratio = e2e::http_get(prom, "/api/v1/query?query=" + url_encode(query));
            std::regex value("\"value\":\\[[0-9.]+,\"([0-9.e+-]+)\"\\]");
            int near_one = 0;
            for (std::sregex_iterator it(ratio.begin(), ratio.end(), value), end; it != end; ++it)
                near_one += std::abs(std::stod((*it)[1]) - 1) < 0.25;
            return near_one == 2;
        })) << ratio;
        std::cout << "answer once settled: " << ratio << "\n";
        EXPECT_TRUE(answer.find("\"status\":\"success\"") != std::string::npos);
    }
    for (auto& agent : agents) EXPECT_EQ(agent->stop(), 0) << agent->err();
}

}  // namespace
