// Request lines as the whole agent reads them: a NUL byte inside a rule line, a rule line
// longer than the rule reader's 511 characters.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct RequestLines : ::testing::Test {
    InstallRoot root;
    int port = free_port();
    std::unique_ptr<Agent> agent;
    void SetUp() override {
        agent = std::make_unique<Agent>(
            root, std::vector<std::string>{"-nofork", "-port", std::to_string(port), "-scan", "1"});
        ASSERT_TRUE(agent->wait_listening(port)) << agent->err();
    }
    void TearDown() override { EXPECT_EQ(agent->stop(), 0); }
};

TEST_F(RequestLines, ANulByteDoesNotSwallowTheEndTag) {
    auto start = Clock::now();
    Client console(port);
    ASSERT_TRUE(console.send(std::string("<EXPDEF>\nR\0X:Cpu->Average Utilization:>=:0:0:0\n", 47) +
                             "</EXPDEF>\n"));
    bool eof = false;
    console.read_to_end(10000, &eof);
    EXPECT_TRUE(eof);
    EXPECT_LT(Clock::now() - start, 5s) << "the request ended at its end tag";
}

// The first 511 characters are one rule, which binds and fires with its description cut to
// its field; the rest of the line is read as a line of its own.
TEST_F(RequestLines, ALongRuleLineIsARuleOfItsFirst511Characters) {
    request(port, "<ALERT_INTERVAL>\n1\n</ALERT_INTERVAL>\n");
    request(port, "<DESC>\n", 20000);  // starts alerting
    const std::string head = "long:Cpu->Average Utilization:>=:0:0:0:";
    request(port, "<EXPDEF>\n" + head + std::string(700, 'd') + "\n</EXPDEF>\n");
    std::this_thread::sleep_for(3s);
    std::string alerts = request(port, "<GETALERTS>\n");
    EXPECT_NE(alerts.find("\nlong::Cpu->Average Utilization::>=::"), std::string::npos) << alerts;
    EXPECT_NE(alerts.find("::" + std::string(255, 'd') + "\n"), std::string::npos) << alerts;
    EXPECT_EQ(alerts.find(std::string(256, 'd')), std::string::npos);
}

}  // namespace
