#include "console/vm_json.h"
#include "console/vm_requests.h"
#include "test_util.h"

using namespace vornmon_test;

// Leaf paths may hold "::" and blanks; alert fields are taken from both ends of the line,
// and a description keeps its own line end, so an alert may be followed by a blank line.
// Events keep their blanks; one stored without a line end runs into the closing tag.
TEST(Replies, DecodeToTheirJson) {
    std::string desc = fixture("desc.reply"), alerts = fixture("alerts.reply"), err, out;
    std::string events = fixture("events.reply");
    EXPECT_TRUE(desc_reply_complete(desc) && alerts_reply_complete(alerts) &&
                events_reply_complete(events));
    EXPECT_FALSE(desc_reply_complete(desc.substr(0, desc.size() - 3)));
    std::vector<Leaf> leaves;
    std::vector<Alert> raised;
    std::vector<std::string> relayed;
    bool no_rules = false, held = false;
    ASSERT_TRUE(parse_desc_reply(desc, leaves, err)) << err;
    ASSERT_TRUE(parse_alerts_reply(alerts, raised, no_rules, err)) << err;
    ASSERT_TRUE(parse_events_reply(events, relayed, err)) << err;
    EXPECT_TRUE(no_rules) << "<GETEXP> says the agent holds no rules";
    for (const Leaf& l : leaves) out += leaf_json(l) + "\n";
    for (const Alert& a : raised) out += alert_json(a) + "\n";
    for (const std::string& e : relayed) out += json_quote(e) + "\n";
    expect_golden(out, "replies.jsonl");

    EXPECT_TRUE(parse_desc_reply("<HEADER>\n</HEADER>\n", leaves, err) && leaves.empty());
    EXPECT_TRUE(parse_alerts_reply("<ALERTS>\n</ALERTS>\n", raised, no_rules, err));
    EXPECT_TRUE(raised.empty() && !no_rules);
    std::string tag = "EVENT_ALERTS_GENERATED>\n";
    EXPECT_TRUE(parse_events_reply("<" + tag + "</" + tag, relayed, err) && relayed.empty());
    EXPECT_TRUE(parse_alert_interval_reply("<OK_EXP>\n", held, err) && held &&
                parse_alert_interval_reply("<GETEXP>\n", held, err) && !held);
    EXPECT_FALSE(parse_alert_interval_reply("<ALERTS>\n", held, err));
    for (const char* bad : {"<ALERTS>\n</HEADER>\n", "<HEADER>\nno fields here\n</HEADER>\n",
                            "<HEADER>\nA::b::x,%,1\n</HEADER>\n"})
        EXPECT_FALSE(parse_desc_reply(bad, leaves, err)) << bad;
    for (const char* bad : {"<ALERTS>\n", "<ALERTS>\nx::p::=>::1::2::3::4::t::d\n</ALERTS>\n",
                            "<ALERTS>\nx::p::>::1::two::3::4::t::d\n</ALERTS>\n"})
        EXPECT_FALSE(parse_alerts_reply(bad, raised, no_rules, err)) << bad;
    EXPECT_FALSE(parse_events_reply("<" + tag + "x\n", relayed, err));
}

TEST(Rules, LinesFollowTheAgentsSplitting) {
    Rule r;
    std::string err;
    ASSERT_TRUE(parse_rule_line("CPU high:Process->sendmail->*:>:80.5:0:5:too much CPU", r, err));
    EXPECT_EQ(r.name + "|" + r.path + "|" + r.condition + "|" + r.description,
              "CPU high|Process->sendmail->*|>|too much CPU");
    EXPECT_EQ(std::vector<double>({r.limit, double(r.hours), double(r.minutes)}),
              std::vector<double>({80.5, 0, 5}));
    // Runs of ':' are one separator on the agent, so "::" is accepted as well.
    ASSERT_TRUE(parse_rule_line("n::Cpu->Average Utilization::>=::1::2::0", r, err)) << err;
    EXPECT_EQ(r.hours, 2);
    EXPECT_EQ(r.description, "");
    std::pair<std::string, const char*> bad[] = {
        {"n:Cpu->Average Utilization:>:80:0", "field(s)"},
        {"n:Cpu->Average Utilization:=>:80:0:5", "unknown condition"},
        {"n:Cpu->Average Utilization:>:eighty:0:5", "limit"},
        {"n:Cpu->Average Utilization:>:80:-1:5", "hours"},
        {"n:Cpu->Average Utilization:>:80:0:5m", "minutes"},
        {"n:Cpu->Average Utilization:>:80:0:5:at 12:00", "cannot hold ':'"},
        // An empty middle field shifts the rest: hours would become minutes.
        {"n:Cpu->Average Utilization:>:80::5:desc", "minutes"},
        {"n:" + std::string(600, 'x') + ":>:1:0:1", ""},
    };
    for (const auto& [line, message] : bad) {
        EXPECT_FALSE(parse_rule_line(line, r, err)) << line;
        EXPECT_TRUE(has(err, message)) << line;
    }
}

TEST(Rules, FilesSkipCommentsAndNameTheBadLine) {
    std::vector<Rule> rules;
    std::string err;
    ASSERT_TRUE(
        parse_rules_text("# limits\n\nbusy:Cpu->Average Utilization:>:90:0:1\r\n"
                         "  # indented\nfull:FileSystem->/->% Space Used:>:95:1:0:full\n",
                         rules, err))
        << err;
    EXPECT_EQ(expdef_request(rules),
              "<EXPDEF>\nbusy:Cpu->Average Utilization:>:90:0:1\n"
              "full:FileSystem->/->% Space Used:>:95:1:0:full\n</EXPDEF>\n");
    EXPECT_FALSE(parse_rules_text("ok:Cpu->Average Utilization:>:1:0:1\nbroken\n", rules, err));
    EXPECT_EQ(err.find("line 2:"), 0u) << err;
    EXPECT_FALSE(parse_rules_text("x:</EXPDEF>:>:1:0:1\n", rules, err));
}

TEST(Rules, PathsAreCheckedTheWayTheAgentResolvesThem) {
    std::set<std::string> paths = rule_paths({{"Cpu-> Mode Averages->Idle", "", 1, "%", 1},
                                              {"Disk->dm->0->Total Operations", "", 1, "/Sec", 1},
                                              {"Process->sshd->% CPU Utilization", "", 1, "%", 1}});
    std::string err;
    // '-' splits levels on the agent too, an intermediate level resolves, and '*' stands
    // only for a whole level.
    for (const char* path : {"Cpu-> Mode Averages->Idle", "Cpu-> Mode Averages", "*",
                             "Disk->dm-0->Total Operations", "Process->*", "Process->sshd->*"})
        EXPECT_TRUE(rule_resolves({"n", path, ">", "", 1, 0, 1, ""}, paths, err)) << path;
    for (const char* path : {"Cpu->Mode Averages->Idle", "Process->httpd->*", "Process->ssh*"})
        EXPECT_FALSE(rule_resolves({"n", path, ">", "", 1, 0, 1, ""}, paths, err)) << path;
    EXPECT_EQ(normalise_path("a-->b->-c"), "a->b->c");
}
