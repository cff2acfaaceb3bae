#include "console/vm_requests.h"

#include <cmath>
#include <cstdlib>

#include "console/vm_json.h"
#include "console/vm_wire.h"

namespace vornmon {
namespace {

constexpr std::string_view kAlertsOpen = "<ALERTS>";
constexpr std::string_view kAlertsClose = "</ALERTS>";
constexpr std::string_view kEventsOpen = "<EVENT_ALERTS_GENERATED>";
constexpr std::string_view kEventsClose = "</EVENT_ALERTS_GENERATED>";
// The agent reads rule lines with a 512-byte buffer; a longer line would arrive as two.
constexpr std::size_t kMaxRuleLine = 510;

std::vector<std::string_view> split_lines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        std::size_t nl = text.find('\n');
        if (nl == std::string_view::npos) {
            lines.push_back(text);
            break;
        }
        lines.push_back(text.substr(0, nl));
        text.remove_prefix(nl + 1);
    }
    return lines;
}

bool ends_with_line(std::string_view reply, std::string_view tag) {
    std::string line = std::string(tag) + "\n";
    if (reply.size() < line.size()) return false;
    if (reply.substr(reply.size() - line.size()) != line) return false;
    return reply.size() == line.size() || reply[reply.size() - line.size() - 1] == '\n';
}

// Cuts the last "::"-separated field off `rest`.
bool take_last(std::string_view& rest, std::string_view& field) {
    std::size_t p = rest.rfind("::");
    if (p == std::string_view::npos) return false;
    field = rest.substr(p + 2);
    rest = rest.substr(0, p);
    return true;
}

bool is_condition(std::string_view c) {
    return c == ">" || c == "<" || c == ">=" || c == "<=" || c == "==" || c == "!=";
}

bool parse_limit(std::string_view text, double& out) {
    std::string copy(text);
    if (copy.empty() || copy.size() > 40) return false;
    char* end = nullptr;
    out = std::strtod(copy.c_str(), &end);
    return end == copy.c_str() + copy.size();
}

}  // namespace

bool parse_leaf_line(std::string_view line, Leaf& out, std::string& err) {
    out = Leaf{};
    std::string_view rest = line, tail, text;
    if (!take_last(rest, tail) || !take_last(rest, text) || rest.empty()) {
        err = "leaf line is not 'path::text::attr,unit,alertable': " + quote_for_error(line);
        return false;
    }
    std::size_t c1 = tail.find(',');
    std::size_t c2 = tail.rfind(',');
    if (c1 == std::string_view::npos || c2 == c1 || !parse_long(tail.substr(0, c1), out.attr) ||
        !parse_long(tail.substr(c2 + 1), out.alertable)) {
        err = "leaf line without 'attr,unit,alertable': " + quote_for_error(line);
        return false;
    }
    out.path = std::string(rest);
    out.text = std::string(text);
    out.unit = std::string(tail.substr(c1 + 1, c2 - c1 - 1));
    return true;
}

bool desc_reply_complete(std::string_view reply) {
    return ends_with_line(reply, "</HEADER>");
}

bool parse_desc_reply(std::string_view reply, std::vector<Leaf>& out, std::string& err) {
    out.clear();
    std::vector<std::string_view> lines = split_lines(reply);
    if (lines.empty() || lines.front() != "<HEADER>") {
        err = lines.empty() ? "empty reply to <DESC>"
                            : "reply to <DESC> does not start with <HEADER>: " +
                                  quote_for_error(lines.front());
        return false;
    }
    if (!desc_reply_complete(reply)) {
        err = "reply to <DESC> ends without </HEADER>";
        return false;
    }
    for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
        Leaf leaf;
        if (!parse_leaf_line(lines[i], leaf, err)) return false;
        out.push_back(std::move(leaf));
    }
    return true;
}

std::string alert_line(const Alert& a) {
    auto number = [](double v) { return std::isfinite(v) ? shortest_number(v) : std::string("0"); };
    return a.name + "::" + a.path + "::" + a.condition + "::" + number(a.limit) +
           "::" + number(a.ave) + "::" + number(a.min) + "::" + number(a.max) +
           "::" + a.raised + "::" + a.description;
}

bool parse_alert_line(std::string_view line, Alert& out, std::string& err) {
    out = Alert{};
    std::size_t first = line.find("::");
    if (first == std::string_view::npos) {
        err = "alert line without fields: " + quote_for_error(line);
        return false;
    }
    out.name = std::string(line.substr(0, first));
    std::string_view rest = line.substr(first + 2);
    std::string_view descr, raised, max, min, ave, limit, cond;
    if (!take_last(rest, descr) || !take_last(rest, raised) || !take_last(rest, max) ||
        !take_last(rest, min) || !take_last(rest, ave) || !take_last(rest, limit) ||
        !take_last(rest, cond) || rest.empty()) {
        err = "alert line with missing fields: " + quote_for_error(line);
        return false;
    }
    if (!is_condition(cond)) {
        err = "alert line with unknown condition " + quote_for_error(cond);
        return false;
    }
    if (!parse_number(limit, out.limit) || !parse_number(ave, out.ave) ||
        !parse_number(min, out.min) || !parse_number(max, out.max)) {
        err = "alert line with a bad number: " + quote_for_error(line);
        return false;
    }
    out.path = std::string(rest);
    out.condition = std::string(cond);
    out.raised = std::string(raised);
    out.description = std::string(descr);
    return true;
}

bool alerts_reply_complete(std::string_view reply) {
    return ends_with_line(reply, kAlertsClose);
}

bool parse_alerts_reply(std::string_view reply, std::vector<Alert>& out, bool& no_rules,
                        std::string& err) {
    out.clear();
    no_rules = false;
    std::vector<std::string_view> lines = split_lines(reply);
    std::size_t at = 0;
    if (at < lines.size() && lines[at] == "<GETEXP>") {
        no_rules = true;
        ++at;
    }
    if (at >= lines.size() || lines[at] != kAlertsOpen) {
        err = at < lines.size()
                  ? "reply to <GETALERTS> without <ALERTS>: " + quote_for_error(lines[at])
                  : "reply to <GETALERTS> without <ALERTS>";
        return false;
    }
    if (!alerts_reply_complete(reply)) {
        err = "reply to <GETALERTS> ends without </ALERTS>";
        return false;
    }
    for (++at; at + 1 < lines.size(); ++at) {
        // A rule description keeps its own line end, so alerts may be followed by a blank line.
        if (lines[at].empty()) continue;
        Alert a;
        if (!parse_alert_line(lines[at], a, err)) return false;
        out.push_back(std::move(a));
    }
    return true;
}

bool events_reply_complete(std::string_view reply) {
    std::string tail = std::string(kEventsClose) + "\n";
    return reply.size() >= tail.size() && reply.substr(reply.size() - tail.size()) == tail;
}

bool parse_events_reply(std::string_view reply, std::vector<std::string>& out, std::string& err) {
    out.clear();
    std::string open = std::string(kEventsOpen) + "\n";
    if (reply.substr(0, open.size()) != open) {
        err = "reply to <EVENT_GET_ALERTS> does not start with " + std::string(kEventsOpen);
        return false;
    }
    if (!events_reply_complete(reply)) {
        err = "reply to <EVENT_GET_ALERTS> ends without " + std::string(kEventsClose);
        return false;
    }
    // Events are relayed verbatim; one stored without a line end runs into the closing tag.
    std::string_view body =
        reply.substr(open.size(), reply.size() - open.size() - kEventsClose.size() - 1);
    for (std::string_view line : split_lines(body)) out.emplace_back(line);
    return true;
}

bool alert_interval_reply_complete(std::string_view reply) {
    return reply.find('\n') != std::string_view::npos;
}

bool parse_alert_interval_reply(std::string_view reply, bool& has_rules, std::string& err) {
    std::string_view line = reply.substr(0, reply.find('\n'));
    if (line == "<OK_EXP>") {
        has_rules = true;
        return true;
    }
    if (line == "<GETEXP>") {
        has_rules = false;
        return true;
    }
    err = "unexpected reply to <ALERT_INTERVAL>: " + quote_for_error(line);
    return false;
}

bool parse_rule_line(std::string_view line, Rule& out, std::string& err) {
    out = Rule{};
    if (line.size() > kMaxRuleLine) {
        err = "rule line longer than " + std::to_string(kMaxRuleLine) + " characters";
        return false;
    }
    if (line.find('\r') != std::string_view::npos || line.find('\t') != std::string_view::npos) {
        err = "rule line holds a carriage return or tab";
        return false;
    }
    std::vector<std::string_view> fields;
    for (std::size_t i = 0; i < line.size();) {
        if (line[i] == ':') {
            ++i;
            continue;
        }
        std::size_t end = line.find(':', i);
        if (end == std::string_view::npos) end = line.size();
        fields.push_back(line.substr(i, end - i));
        i = end;
    }
    if (fields.size() < 6) {
        err = "a rule needs name:path:condition:limit:hours:minutes[:description], got " +
              std::to_string(fields.size()) + " field(s)";
        return false;
    }
    if (fields.size() > 7) {
        err = "the description of a rule cannot hold ':'";
        return false;
    }
    out.name = std::string(fields[0]);
    out.path = std::string(fields[1]);
    out.condition = std::string(fields[2]);
    if (out.name.size() > 127 || out.path.size() > 127) {
        err = "rule name and path are limited to 127 characters";
        return false;
    }
    if (!is_condition(out.condition)) {
        err = "unknown condition " + quote_for_error(out.condition) + " (one of > < >= <= == !=)";
        return false;
    }
    if (!parse_limit(fields[3], out.limit)) {
        err = "limit is not a number: " + quote_for_error(fields[3]);
        return false;
    }
    if (!parse_long(fields[4], out.hours) || out.hours < 0 || out.hours > 100000) {
        err = "hours is not a whole number: " + quote_for_error(fields[4]);
        return false;
    }
    if (!parse_long(fields[5], out.minutes) || out.minutes < 0 || out.minutes > 100000) {
        err = "minutes is not a whole number: " + quote_for_error(fields[5]);
        return false;
    }
    if (fields.size() == 7) out.description = std::string(fields[6]);
    if (out.description.size() > 255) {
        err = "rule description is limited to 255 characters";
        return false;
    }
    out.line = std::string(line);
    return true;
}

bool parse_rules_text(std::string_view text, std::vector<Rule>& out, std::string& err) {
    out.clear();
    std::size_t number = 0;
    for (std::string_view line : split_lines(text)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        std::string_view t = line;
        while (!t.empty() && (t.front() == ' ' || t.front() == '\t')) t.remove_prefix(1);
        if (t.empty() || t.front() == '#') continue;
        if (line.find("</EXPDEF>") != std::string_view::npos) {
            err = "line " + std::to_string(number) + ": '</EXPDEF>' would end the request early";
            return false;
        }
        Rule r;
        if (!parse_rule_line(line, r, err)) {
            err = "line " + std::to_string(number) + ": " + err;
            return false;
        }
        out.push_back(std::move(r));
    }
    return true;
}

std::string normalise_path(std::string_view path) {
    std::string out;
    std::size_t i = 0;
    while (i < path.size()) {
        if (path[i] == '-' || path[i] == '>') {
            ++i;
            continue;
        }
        std::size_t end = path.find_first_of("->", i);
        if (end == std::string_view::npos) end = path.size();
        if (!out.empty()) out += "->";
        out += path.substr(i, end - i);
        i = end;
    }
    return out;
}

std::set<std::string> rule_paths(const std::vector<Leaf>& leaves) {
    std::set<std::string> paths;
    for (const Leaf& leaf : leaves) {
        std::string p = normalise_path(leaf.path);
        for (std::size_t at = p.find("->"); at != std::string::npos; at = p.find("->", at + 2))
            paths.insert(p.substr(0, at));
        paths.insert(p);
    }
    return paths;
}

bool rule_resolves(const Rule& rule, const std::set<std::string>& paths, std::string& err) {
    std::string norm = normalise_path(rule.path);
    if (rule.path.find('*') == std::string::npos) {
        if (paths.count(norm)) return true;
        err = "no metric " + quote_for_error(rule.path, 120) + " on the agent (see 'vornmon desc')";
        return false;
    }
    std::string built;
    bool star = false;
    for (std::size_t i = 0; i <= norm.size();) {
        std::size_t end = norm.find("->", i);
        if (end == std::string::npos) end = norm.size();
        std::string token = norm.substr(i, end - i);
        if (token == "*") {
            star = true;
            if (!built.empty() && !paths.count(built)) {
                err = "no metric " + quote_for_error(built, 120) + " on the agent for " +
                      quote_for_error(rule.path, 120);
                return false;
            }
        } else if (token.find('*') != std::string::npos) {
            err = "'*' must stand for a whole level in " + quote_for_error(rule.path, 120);
            return false;
        } else {
            built += built.empty() ? token : "->" + token;
        }
        i = end + 2;
    }
    if (!star) {
        err = "'*' must stand for a whole level in " + quote_for_error(rule.path, 120);
        return false;
    }
    return true;
}

std::string expdef_request(const std::vector<Rule>& rules) {
    std::string out = "<EXPDEF>\n";
    for (const Rule& r : rules) out += r.line + "\n";
    out += "</EXPDEF>\n";
    return out;
}

std::string event_request(const std::vector<std::string>& lines) {
    std::string out = "<EVENT>\n";
    for (const std::string& l : lines) out += l + "\n";
    return out;
}

}  // namespace vornmon
