#include <gtest/gtest.h>

#include "console/vm_requests.h"

using namespace vornmon;

TEST(DescReply, LeavesKeepTheirPathsWhole) {
    std::string reply =
        "<HEADER>\n"
        "TCP->Packet Rate->Sent::TCP Segments sent::0,/Sec,1\n"
        "Cpu-> Mode Averages->Idle::CPU in Idle mode::1,%,1\n"
        "Process->a::b->Rss (Kb)::Rss::1,Kb,1\n"
        "Memory-> System Memory (MB)::Total Memory::1, ,0\n"
        "</HEADER>\n";
    ASSERT_TRUE(desc_reply_complete(reply));
    ASSERT_FALSE(desc_reply_complete(reply.substr(0, reply.size() - 3)));
    std::vector<Leaf> leaves;
    std::string err;
    ASSERT_TRUE(parse_desc_reply(reply, leaves, err)) << err;
    ASSERT_EQ(leaves.size(), 4u);
    EXPECT_EQ(leaves[0].path, "TCP->Packet Rate->Sent");
    EXPECT_EQ(leaves[0].unit, "/Sec");
    EXPECT_EQ(leaves[1].path, "Cpu-> Mode Averages->Idle");
    EXPECT_EQ(leaves[1].attr, 1);
    EXPECT_EQ(leaves[2].path, "Process->a::b->Rss (Kb)");
    EXPECT_EQ(leaves[3].unit, " ");
    EXPECT_EQ(leaves[3].alertable, 0);

    EXPECT_TRUE(parse_desc_reply("<HEADER>\n</HEADER>\n", leaves, err));
    EXPECT_TRUE(leaves.empty());
    EXPECT_FALSE(parse_desc_reply("<ALERTS>\n</HEADER>\n", leaves, err));
    EXPECT_FALSE(parse_desc_reply("<HEADER>\nno fields here\n</HEADER>\n", leaves, err));
    EXPECT_FALSE(parse_desc_reply("<HEADER>\nA::b::x,%,1\n</HEADER>\n", leaves, err));
}

TEST(AlertsReply, FieldsAreTakenFromBothEnds) {
    // The description keeps its own line end, so alerts may be followed by a blank line.
    std::string reply =
        "<GETEXP>\n"
        "<ALERTS>\n"
        "CPU high::Process->sendmail->% CPU "
        "Utilization::>::80.000000::91.250000::85.000000::97.500000"
        "::05-Mar-2011 14:07::sendmail uses too much CPU\n"
        "\n"
        "quiet::TCP->Packet Rate->Sent::<::1.000000::0.000000::0.000000::0.000000::06-Mar-2011 "
        "00:00::\n"
        "</ALERTS>\n";
    ASSERT_TRUE(alerts_reply_complete(reply));
    std::vector<Alert> alerts;
    bool no_rules = false;
    std::string err;
    ASSERT_TRUE(parse_alerts_reply(reply, alerts, no_rules, err)) << err;
    EXPECT_TRUE(no_rules);
    ASSERT_EQ(alerts.size(), 2u);
    EXPECT_EQ(alerts[0].name, "CPU high");
    EXPECT_EQ(alerts[0].path, "Process->sendmail->% CPU Utilization");
    EXPECT_EQ(alerts[0].condition, ">");
    EXPECT_DOUBLE_EQ(alerts[0].limit, 80);
    EXPECT_DOUBLE_EQ(alerts[0].ave, 91.25);
    EXPECT_DOUBLE_EQ(alerts[0].max, 97.5);
    EXPECT_EQ(alerts[0].raised, "05-Mar-2011 14:07");
    EXPECT_EQ(alerts[0].description, "sendmail uses too much CPU");
    EXPECT_EQ(alerts[1].description, "");

    EXPECT_TRUE(parse_alerts_reply("<ALERTS>\n</ALERTS>\n", alerts, no_rules, err));
    EXPECT_TRUE(alerts.empty());
    EXPECT_FALSE(no_rules);
    EXPECT_FALSE(parse_alerts_reply("<ALERTS>\n", alerts, no_rules, err));
    EXPECT_FALSE(parse_alerts_reply("<ALERTS>\nx::p::=>::1::2::3::4::t::d\n</ALERTS>\n", alerts,
                                    no_rules, err));
    EXPECT_NE(err.find("condition"), std::string::npos);
    EXPECT_FALSE(parse_alerts_reply("<ALERTS>\nx::p::>::1::two::3::4::t::d\n</ALERTS>\n", alerts,
                                    no_rules, err));
}

TEST(EventsReply, EventsAreRelayedVerbatim) {
    std::vector<std::string> events;
    std::string err;
    std::string reply =
        "<EVENT_ALERTS_GENERATED>\ndisk replaced\n  spaced  \n</EVENT_ALERTS_GENERATED>\n";
    ASSERT_TRUE(events_reply_complete(reply));
    ASSERT_TRUE(parse_events_reply(reply, events, err)) << err;
    EXPECT_EQ(events, (std::vector<std::string>{"disk replaced", "  spaced  "}));
    // An event stored without a line end runs into the closing tag.
    ASSERT_TRUE(parse_events_reply("<EVENT_ALERTS_GENERATED>\nlast</EVENT_ALERTS_GENERATED>\n",
                                   events, err));
    EXPECT_EQ(events, (std::vector<std::string>{"last"}));
    ASSERT_TRUE(
        parse_events_reply("<EVENT_ALERTS_GENERATED>\n</EVENT_ALERTS_GENERATED>\n", events, err));
    EXPECT_TRUE(events.empty());
    EXPECT_FALSE(parse_events_reply("<EVENT_ALERTS_GENERATED>\nx\n", events, err));
}

TEST(AlertIntervalReply, SaysWhetherRulesAreHeld) {
    bool has = false;
    std::string err;
    ASSERT_TRUE(parse_alert_interval_reply("<OK_EXP>\n", has, err));
    EXPECT_TRUE(has);
    ASSERT_TRUE(parse_alert_interval_reply("<GETEXP>\n", has, err));
    EXPECT_FALSE(has);
    EXPECT_FALSE(parse_alert_interval_reply("<ALERTS>\n", has, err));
}

TEST(Rules, LinesFollowTheAgentsSplitting) {
    Rule r;
    std::string err;
    ASSERT_TRUE(parse_rule_line("CPU high:Process->sendmail->*:>:80:0:5:sendmail uses too much CPU",
                                r, err))
        << err;
    EXPECT_EQ(r.name, "CPU high");
    EXPECT_EQ(r.path, "Process->sendmail->*");
    EXPECT_EQ(r.condition, ">");
    EXPECT_DOUBLE_EQ(r.limit, 80);
    EXPECT_EQ(r.minutes, 5);
    EXPECT_EQ(r.description, "sendmail uses too much CPU");
    // Runs of ':' are one separator on the agent, so "::" is accepted as well.
    ASSERT_TRUE(parse_rule_line("n::Cpu->Average Utilization::>=::1.5::1::0", r, err)) << err;
    EXPECT_EQ(r.description, "");
    EXPECT_DOUBLE_EQ(r.limit, 1.5);

    struct Bad {
        const char* line;
        const char* message;
    } bad[] = {
        {"n:Cpu->Average Utilization:>:80:0", "field(s)"},
        {"n:Cpu->Average Utilization:=>:80:0:5", "unknown condition"},
        {"n:Cpu->Average Utilization:>:eighty:0:5", "limit"},
        {"n:Cpu->Average Utilization:>:80:-1:5", "hours"},
        {"n:Cpu->Average Utilization:>:80:0:5m", "minutes"},
        {"n:Cpu->Average Utilization:>:80:0:5:at 12:00", "cannot hold ':'"},
        // An empty middle field shifts the rest: hours would become minutes.
        {"n:Cpu->Average Utilization:>:80::5:desc", "minutes"},
    };
    for (const Bad& b : bad) {
        EXPECT_FALSE(parse_rule_line(b.line, r, err)) << b.line;
        EXPECT_NE(err.find(b.message), std::string::npos) << b.line << ": " << err;
    }
    EXPECT_FALSE(parse_rule_line("n:" + std::string(600, 'x') + ":>:1:0:1", r, err));
}

TEST(Rules, FilesSkipCommentsAndNameTheBadLine) {
    std::vector<Rule> rules;
    std::string err;
    ASSERT_TRUE(
        parse_rules_text("# limits\n\nbusy:Cpu->Average Utilization:>:90:0:1\r\n  # indented\n"
                         "full:FileSystem->/->% Space Used:>:95:1:0:root is full\n",
                         rules, err))
        << err;
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0].line, "busy:Cpu->Average Utilization:>:90:0:1");
    EXPECT_EQ(expdef_request(rules),
              "<EXPDEF>\nbusy:Cpu->Average Utilization:>:90:0:1\nfull:FileSystem->/->% Space "
              "Used:>:95:1:0:root is "
              "full\n</EXPDEF>\n");
    EXPECT_FALSE(parse_rules_text("ok:Cpu->Average Utilization:>:1:0:1\nbroken\n", rules, err));
    EXPECT_EQ(err.find("line 2:"), 0u) << err;
    EXPECT_FALSE(parse_rules_text("x:</EXPDEF>:>:1:0:1\n", rules, err));
}

TEST(Rules, PathsAreCheckedTheWayTheAgentResolvesThem) {
    std::vector<Leaf> leaves = {{"Cpu-> Mode Averages->Idle", "", 1, "%", 1},
                                {"Disk->dm->0->Total Operations", "", 1, "/Sec", 1},
                                {"Process->sshd->% CPU Utilization", "", 1, "%", 1}};
    std::set<std::string> paths = rule_paths(leaves);
    auto resolves = [&](const std::string& path) {
        Rule r;
        r.name = "n";
        r.path = path;
        std::string err;
        return rule_resolves(r, paths, err);
    };
    EXPECT_TRUE(resolves("Cpu-> Mode Averages->Idle"));
    EXPECT_TRUE(resolves("Cpu-> Mode Averages"));           // an intermediate level
    EXPECT_TRUE(resolves("Disk->dm-0->Total Operations"));  // '-' splits levels on the agent too
    EXPECT_TRUE(resolves("Process->*"));
    EXPECT_TRUE(resolves("*"));
    EXPECT_TRUE(resolves("Process->sshd->*"));
    EXPECT_FALSE(resolves("Cpu->Mode Averages->Idle"));  // the blank is part of the name
    EXPECT_FALSE(resolves("Process->httpd->*"));
    EXPECT_FALSE(resolves("Process->ssh*"));  // '*' only as a whole level
    EXPECT_EQ(normalise_path("a-->b->-c"), "a->b->c");
}
