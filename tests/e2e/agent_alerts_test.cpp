// Alert rules and events from the console's side: rules bound to a real processor leaf fire
// once, alerts go only to the console that owns the rule, events are relayed once.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "agent_harness.h"

namespace {
using namespace e2e;

struct Alerting : ::testing::Test {
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

TEST_F(Alerting, RuleOnProcessorLeafFiresOnceForItsOwnerOnly) {
    EXPECT_EQ(request(port, "<ALERT_INTERVAL>\n1\n</ALERT_INTERVAL>\n"), "<GETEXP>\n")
        << "no rules yet: the console is asked for them";

    std::string desc = request(port, "<DESC>\n", 20000);
    ASSERT_EQ(desc.rfind("<HEADER>\n", 0), 0u) << desc.substr(0, 200);
    EXPECT_NE(desc.find("\nCpu->Average Utilization::Overall CPU Utilzation::1,%,1\n"),
              std::string::npos);
    EXPECT_EQ(desc.substr(desc.size() - 10), "</HEADER>\n");

    request(port, "<EXPDEF>\ncpuhigh:Cpu->Average Utilization:>=:0:0:0:always fires\n</EXPDEF>\n");
    EXPECT_EQ(request(port, "<ALERT_INTERVAL>\n1\n</ALERT_INTERVAL>\n"), "<OK_EXP>\n");
    std::this_thread::sleep_for(std::chrono::seconds(3));

    // A console on another address owns no rule and sees no alert.
    EXPECT_EQ(request(port, "<GETALERTS>\n", 15000, "127.0.0.2"), "<ALERTS>\n</ALERTS>\n");

    std::string alerts = request(port, "<GETALERTS>\n");
    std::regex one(
        "<ALERTS>\ncpuhigh::Cpu->Average Utilization::>=::0\\.000000::\\d+\\.\\d{6}::\\d+\\.\\d{6}::"
        "\\d+\\.\\d{6}::\\d\\d-[A-Za-z]{3}-\\d{4} \\d\\d:\\d\\d::always fires\n\n</ALERTS>\n");
    // The description keeps the newline of the rule line, and the line adds its own.
    EXPECT_TRUE(std::regex_match(alerts, one)) << alerts;
    EXPECT_EQ(request(port, "<GETALERTS>\n"), "<ALERTS>\n</ALERTS>\n") << "each alert is delivered once";
    EXPECT_NE(root.log_text().find("VORN-I-ALRTSENT: Alert SENT\n"), std::string::npos);
}

TEST_F(Alerting, EventsRoundTripOnce) {
    request_to_eof(port, "<EVENT>\nbackup finished\ndisk replaced\n");
    EXPECT_EQ(request(port, "<EVENT_GET_ALERTS>\n"),
              "<EVENT_ALERTS_GENERATED>\nbackup finished\ndisk replaced\n</EVENT_ALERTS_GENERATED>\n");
    EXPECT_EQ(request(port, "<EVENT_GET_ALERTS>\n"),
              "<EVENT_ALERTS_GENERATED>\n</EVENT_ALERTS_GENERATED>\n");
}

TEST(AlertingOff, AlertTagsAreLoggedButNotAnswered) {
    InstallRoot root;
    int port = free_port();
    Agent agent(root, {"-nofork", "-port", std::to_string(port), "-noalert"});
    ASSERT_TRUE(agent.wait_listening(port));
    EXPECT_EQ(request(port, "<ALERT_INTERVAL>\n5\n</ALERT_INTERVAL>\n"), "");
    EXPECT_EQ(request(port, "<GETALERTS>\n"), "");
    EXPECT_TRUE(wait_for_log(root, "VORNRTA-I-REQDET: request:  127.0.0.1,  <GETALERTS>\n", 3000));
    EXPECT_EQ(agent.stop(), 0);
}

}  // namespace
