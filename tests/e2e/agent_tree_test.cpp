// The whole agent on a captured host: PROC_DIR~ and SYS_DIR~ point it at the trees under
// tests/fixtures/linux/agent-tree, and what a console receives is compared with golden
// packets. Regenerate them after an intended change with
//   VORN_UPDATE_GOLDEN=1 build/test_e2e --gtest_filter='CapturedHost.*'
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "agent_harness.h"

namespace {
using namespace e2e;

const std::string kTree = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/agent-tree";

// A packet with what differs from run to run taken out: the time it was built, and the
// order of lines within a section, which follows the order the fake tree's directory
// lists its processes in.
std::string normalised(const std::string& packet) {
    std::istringstream in(packet.substr(packet.find('\n', 2) + 1));  // after the size line
    std::vector<std::string> out, section;
    bool in_time = false, sorting = false;
    for (std::string line; std::getline(in, line);) {
        if (line == "<HEADER>" || line == "<DATA>") {
            out.push_back(line);
            sorting = true;
            continue;
        }
        if (sorting && (line == "</HEADER>" || line == " </HEADER>" || line == "</DATA>" ||
                        line == " </DATA>")) {
            std::sort(section.begin(), section.end());
            out.insert(out.end(), section.begin(), section.end());
            section.clear();
            sorting = false;
        }
        if (sorting) {
            section.push_back(line);
            continue;
        }
        out.push_back(in_time ? "<time>" : line);
        in_time = line == "<TIME>";
    }
    std::string text;
    for (const auto& l : out) text += l + "\n";
    return text;
}

void expect_golden(const std::string& name, const std::string& actual) {
    const std::string path = kTree + "/golden/" + name;
    if (getenv("VORN_UPDATE_GOLDEN")) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << actual;
        return;
    }
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), actual) << "golden " << path;
}

TEST(CapturedHost, PacketsDescribeTheTreesProcessorsAndProcessesOnly) {
    InstallRoot root;
    std::ofstream(root.settings_file(), std::ios::app)
        << "PROC_DIR~" << kTree << "/proc\nSYS_DIR~" << kTree << "/sys\n";
    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port), "-scan", "1", "-collectprocess"});
    ASSERT_TRUE(agent.wait_listening(port)) << agent.err();

    Client console(port);
    ASSERT_TRUE(console.send("<DATA>\n1\n"));
    const std::string header = console.read_packet(20000);
    ASSERT_FALSE(header.empty());
    // The first data packets carry rates since boot (or since a process started), which
    // depend on when the test runs; once every class has sampled twice nothing has moved in
    // the trees, and every rate is 0.
    for (int skipped = 0; skipped < 3; ++skipped) console.read_packet(5000);
    const std::string data = console.read_packet(5000);
    ASSERT_FALSE(data.empty());
    EXPECT_EQ(agent.stop(), 0);

    // Three processors and three processes, whatever this host has.
    for (const char* present : {"Cpu~^1~^-> 2->", "->systemd  (1)->", "->my prog) (x  (42)->", "  (777)->"})
        EXPECT_NE(header.find(present), std::string::npos) << present;
    EXPECT_EQ(header.find("Cpu~^1~^-> 3->"), std::string::npos);
    EXPECT_EQ(header.find("FileSystem"), std::string::npos);  // the tree's one mount is remote
    expect_golden("header-packet.txt", normalised(header));
    expect_golden("data-packet.txt", normalised(data));
}

}  // namespace
