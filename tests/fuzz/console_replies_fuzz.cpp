// The console's other parsers of what an agent or a file sends: the one-shot request
// replies and a rules file.
#include <string>
#include <vector>

#include "console/vm_requests.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string err;
    std::vector<vornmon::Leaf> leaves;
    if (vornmon::desc_reply_complete(text)) vornmon::parse_desc_reply(text, leaves, err);
    std::vector<vornmon::Alert> alerts;
    bool no_rules = false;
    if (vornmon::alerts_reply_complete(text))
        vornmon::parse_alerts_reply(text, alerts, no_rules, err);
    std::vector<std::string> events;
    if (vornmon::events_reply_complete(text)) vornmon::parse_events_reply(text, events, err);
    bool has_rules = false;
    if (vornmon::alert_interval_reply_complete(text))
        vornmon::parse_alert_interval_reply(text, has_rules, err);

    // A rules file checked against the leaves the same input described, as the console
    // checks rules before it sends them.
    std::vector<vornmon::Rule> rules;
    if (vornmon::parse_rules_text(text, rules, err)) {
        const std::set<std::string> paths = vornmon::rule_paths(leaves);
        for (const vornmon::Rule& rule : rules) vornmon::rule_resolves(rule, paths, err);
        vornmon::expdef_request(rules);
    }
    return 0;
}
