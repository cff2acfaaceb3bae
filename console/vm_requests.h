// The one-shot requests of the console: their texts, and strict parsers of the agent's
// replies (<DESC> leaf list, <GETALERTS>, <EVENT_GET_ALERTS>, <ALERT_INTERVAL>), and the
// alert-rule lines that <EXPDEF> carries.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vornmon {

/// One leaf of the agent's metric tree: "path::text::attr,unit,alertable".
struct Leaf {
    std::string path;
    std::string text;
    long attr = 0;
    std::string unit;
    long alertable = 0;
};
bool parse_leaf_line(std::string_view line, Leaf& out, std::string& err);
/// True once `reply` holds a whole <DESC> reply.
bool desc_reply_complete(std::string_view reply);
bool parse_desc_reply(std::string_view reply, std::vector<Leaf>& out, std::string& err);

/// One raised alert: "name::path::cond::limit::ave::min::max::raised::descript".
struct Alert {
    std::string name;
    std::string path;
    std::string condition;
    double limit = 0, ave = 0, min = 0, max = 0;
    std::string raised;
    std::string description;
};
bool parse_alert_line(std::string_view line, Alert& out, std::string& err);
/// The line parse_alert_line reads back as `alert`.
std::string alert_line(const Alert& alert);
bool alerts_reply_complete(std::string_view reply);
/// `no_rules` is set when the agent asked for rules (<GETEXP>) before the alerts.
bool parse_alerts_reply(std::string_view reply, std::vector<Alert>& out, bool& no_rules,
                        std::string& err);

bool events_reply_complete(std::string_view reply);
bool parse_events_reply(std::string_view reply, std::vector<std::string>& out, std::string& err);

/// The one-line reply to <ALERT_INTERVAL>: true when the agent holds rules (<OK_EXP>).
bool alert_interval_reply_complete(std::string_view reply);
bool parse_alert_interval_reply(std::string_view reply, bool& has_rules, std::string& err);

/// An alert rule line "name:path:condition:limit:hours:minutes[:description]". The agent
/// splits at every run of ':' so no field may hold one, and none but the last may be empty.
struct Rule {
    std::string name, path, condition, description;
    double limit = 0;
    long hours = 0, minutes = 0;
    std::string line;  // the line as it will be sent
};
bool parse_rule_line(std::string_view line, Rule& out, std::string& err);
/// Reads a rules file: blank lines and lines starting with '#' are skipped. Errors name
/// the line number.
bool parse_rules_text(std::string_view text, std::vector<Rule>& out, std::string& err);

/// The paths a rule may name: every leaf and every level above one, written the way the
/// agent resolves them ("-" and ">" both split levels).
std::set<std::string> rule_paths(const std::vector<Leaf>& leaves);
/// The agent's form of a path: levels split at every run of '-' and '>' and joined by "->".
std::string normalise_path(std::string_view path);
/// Checks that a rule's path resolves on the agent; "*" levels need the levels before them.
bool rule_resolves(const Rule& rule, const std::set<std::string>& paths, std::string& err);

std::string expdef_request(const std::vector<Rule>& rules);
std::string event_request(const std::vector<std::string>& lines);

}  // namespace vornmon
