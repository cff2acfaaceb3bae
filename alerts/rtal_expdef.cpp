// Exception definitions: the console's alert rules, read from an <EXPDEF> request, bound to
// nodes of the metric tree and kept per console in Expdef_list.
#include "alerts/rtal_expdef.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "agent/rtdc_lineread.h"
#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_io.h"
#include "alerts/rtal_rules.h"

List* Expdef_list = nullptr;

namespace rtal {
namespace {

const RuleReader kExpdefReader = {
    "VORNRTA-I-EXPDEF:    parse new list\n",
    "VORNRTA-I-EXPDEF:    read: ",
    "</EXPDEF>",
    {"parse expdef : exp_name\n", "parse expdef : name\n", "parse expdef : condition\n",
     "parse expdef : limit\n", "parse expdef : duration hrs\n", "parse expdef : duration mins\n",
     "parse expdef : descript\n"},
    "VORNRTA-I-EXPDEF:   Finished Processing <EXPDEF>\n",
    true,
};

// A duration field as an int: like atoi, but a number too large for an int is clamped
// instead of being undefined.
int32_t duration_field(const char* text) {
    long v = strtol(text, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

int32_t duration_seconds(int32_t hours, int32_t minutes) {
    int64_t total = int64_t{hours} * 3600 + int64_t{minutes} * 60;
    if (total > INT32_MAX) return INT32_MAX;
    if (total < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(total);
}

// Limits and durations that are not numbers count as 0, as they always have; say so in the
// log, since a rule with limit 0 usually fires at once.
void warn_if_not_number(const char* field, const char* text, const char* exp_name) {
    char* end = nullptr;
    strtod(text, &end);
    if (end != text) return;
    rtdc_logf("VORNRTA-W-EXPDEF:    rule '%s': %s is not a number, taken as 0\n", exp_name, field);
}

// Splits one rule line into its fields. Every ':' separates and runs of ':' count as one, so
// no field but the last can be empty. False (and a log line) when a field is missing.
bool parse_rule_line(char* line, const char* owner, const RuleReader& reader, ExpdefFields& f) {
    memset(&f, 0, sizeof f);
    char* save = nullptr;
    char* tok[7] = {};
    for (int i = 0; i < 7; i++) {
        if (verbose()) RTDCAppendLog(reader.field_msgs[i]);
        tok[i] = strtok_r(i == 0 ? line : nullptr, ":", &save);
        if (!tok[i] && i < 6) {
            rtdc_logf("VORNRTA-W-EXPDEF:    rule line with %d of 6 fields ignored\n", i);
            return false;
        }
    }
    if (verbose()) RTDCAppendLog("parse expdef : doneparse\n");
    copy_field(f.exp_name, tok[0]);
    copy_field(f.name, tok[1]);
    copy_field(f.condition, tok[2]);
    copy_field(f.limit, tok[3]);
    copy_field(f.hours, tok[4]);
    copy_field(f.minutes, tok[5]);
    copy_field(f.descript, tok[6]);  // optional; keeps the line's own newline
    copy_field(f.owner, owner);
    copy_field(f.console, owner);
    warn_if_not_number("limit", f.limit, f.exp_name);
    warn_if_not_number("duration hours", f.hours, f.exp_name);
    warn_if_not_number("duration minutes", f.minutes, f.exp_name);
    return true;
}

void fill_rule(ExceptionObject* rule, const ExpdefFields& f, const char* name) {
    copy_field(rule->exp_name, f.exp_name);
    copy_field(rule->name, name);
    copy_field(rule->condition, f.condition);
    copy_field(rule->owner, f.owner);
    copy_field(rule->console, f.console);
    copy_field(rule->descript, f.descript);
    rule->hours = duration_field(f.hours);
    rule->minutes = duration_field(f.minutes);
    rule->duration = duration_seconds(rule->hours, rule->minutes);
    rule->limit = atof(f.limit);
    rule->seconds = 0;
    rule->intervals = 0;
    rule->active = 1;
}

// Caller holds tree_mutex. The walk of SearchDescription1: each level's description is the
// full path up to it, tokens split at every '-' and '>'. The empty path is the root.
treeNode* resolve_locked(const char* path) {
    if (!Metric_Tree) return nullptr;
    char work[512];
    if (strlen(path) >= sizeof work) return nullptr;
    snprintf(work, sizeof work, "%s", path);
    char prefix[128] = "";
    treeNode* current = Metric_Tree;
    char* save = nullptr;
    for (char* tok = strtok_r(work, "->", &save); tok; tok = strtok_r(nullptr, "->", &save)) {
        char candidate[128];
        snprintf(candidate, sizeof candidate, "%s%s", prefix, tok);
        treeNode* found = nullptr;
        if (!SearchChildren(candidate, current->child, &found) || !found) return nullptr;
        current = found;
        snprintf(prefix, sizeof prefix, "%s->", candidate);
    }
    return current;
}

// Resolves a path for binding and returns with tree_mutex held on success. SearchDescription1
// decides; the node it hands back may be removed as soon as it has dropped tree_mutex, so the
// path is walked again under our own hold before anything is read through it.
treeNode* resolve_and_pin(const char* path, std::unique_lock<std::mutex>& tree_lock) {
    if (path[0] != '\0') {
        treeNode* node = nullptr;
        if (!SearchDescription1(path, Metric_Tree, &node, 0) || !node) return nullptr;
    }
    tree_lock = std::unique_lock<std::mutex>(tree_mutex);
    treeNode* node = resolve_locked(path);
    if (!node || !node->data) {
        tree_lock.unlock();
        return nullptr;
    }
    return node;
}

// The rules each console holds, and whether its over-the-cap refusal has been logged since
// its last <EXPDEF>, which starts its count afresh. Guarded by expdef_mutex.
struct HeldRules {
    size_t count = 0;
    bool refusal_logged = false;
};
std::unordered_map<std::string, HeldRules> rules_held;

enum class Append { Added, Refused, Failed };

// Caller holds expdef_mutex. True, after one log line per request, when the console holds
// as many rules as it may.
bool full_locked(const char* console) {
    if (!Expdef_list || !Expdef_list->first) rules_held.clear();
    HeldRules& held = rules_held[console];
    if (held.count < kMaxRulesPerConsole) return false;
    if (!held.refusal_logged)
        rtdc_logf("VORNRTA-W-EXPDEF:    console%s holds %zu rules, as many as one console may;"
                  " the rest are refused\n",
                  console, held.count);
    held.refusal_logged = true;
    return true;
}

// Caller holds expdef_mutex. A refused rule is not appended; the caller frees it.
Append append_rule(ExceptionObject* rule) {
    if (full_locked(rule->console)) return Append::Refused;
    if (!Expdef_list && !CreateList(&Expdef_list)) return Append::Failed;
    if (AppendToList(&Expdef_list, rule) != 1) return Append::Failed;
    ++rules_held[rule->console].count;
    return Append::Added;
}

// A rule line of a console that is full refuses the rest of its request.
bool console_full(const char* console) {
    std::lock_guard<std::mutex> lock(expdef_mutex);
    return full_locked(console);
}

bool console_refused(const char* console) {
    std::lock_guard<std::mutex> lock(expdef_mutex);
    auto it = rules_held.find(console);
    return it != rules_held.end() && it->second.refusal_logged;
}

// A rule on one named node. False when the request must be abandoned.
bool bind_named_rule(const ExpdefFields& f) {
    auto* rule = static_cast<ExceptionObject*>(calloc(1, sizeof(ExceptionObject)));
    if (!rule) {
        RTDCAppendLog("malloc failed on ExceptionObject\n");
        return false;
    }
    if (verbose()) rtdc_logf("%-20s add  '%s' to expdef list\n", "VORNRTA-I-EXPDEF:", f.name);
    fill_rule(rule, f, f.name);
    std::unique_lock<std::mutex> tree_lock;
    treeNode* node = resolve_and_pin(f.name, tree_lock);
    if (!node) {
        rtdc_logf(" Expdef Action : search for %s failed\n", f.name);
        free(rule);
        return false;
    }
    if (verbose())
        rtdc_logf(" Expdef Action: search for  %s returned  %s \n", f.name,
                  node->data->description);
    rule->metric = node->data;
    copy_field(rule->bound, node->data->description);
    std::lock_guard<std::mutex> lock(expdef_mutex);
    switch (append_rule(rule)) {
        case Append::Added:
            return true;
        case Append::Refused:
            free(rule);
            return false;
        case Append::Failed:
            RTDCAppendLog("VORNRTA-E-MALLOC: AppendToList: failed\n");
            free(rule);
            return true;
    }
    return true;
}

// A "*" path: every leaf below each "*" gets its own rule. False when a prefix does not
// resolve and the request must be abandoned.
bool bind_star_rule(const ExpdefFields& f, bool bind) {
    if (verbose()) rtdc_logf("VORNRTA-I-EXPDEF:   add %s (NOT leaf)\n", f.name);
    char work[sizeof f.name];
    copy_field(work, f.name);
    char path[sizeof f.name] = "";
    bool first = true;
    char* save = nullptr;
    for (char* tok = strtok_r(work, "->", &save); tok; tok = strtok_r(nullptr, "->", &save)) {
        const bool star = strcmp(tok, "*") == 0;
        if (!star) {
            size_t len = strlen(path);
            snprintf(path + len, sizeof path - len, "%s%s", first ? "" : "->", tok);
        }
        first = false;
        if (!star) continue;
        std::unique_lock<std::mutex> tree_lock;
        treeNode* node = resolve_and_pin(path, tree_lock);
        if (!node) {
            rtdc_logf(" Expdef Action : search for %s failed\n", path);
            return false;
        }
        // Holding tree_mutex already, so the unlocked walk; the visitor takes expdef_mutex.
        if (bind) TraverseTree(node->child, Add_leave_nodes_to_list, const_cast<ExpdefFields*>(&f));
        if (bind && console_refused(f.console)) return false;
    }
    return true;
}

}  // namespace

bool owner_matches(const ExceptionObject& item, const char* owner) {
    return strcmp(item.console, owner) == 0;
}

void remove_owner_rules(List* list, const char* owner) {
    if (!list) return;
    ListItem* item = list->first;
    while (item) {
        ListItem* next = item->next;
        auto* rule = static_cast<ExceptionObject*>(item->data);
        if (rule && owner_matches(*rule, owner)) {
            RemoveItem(list, item);
            free(rule);  // a rule's metric belongs to the tree
        }
        item = next;
    }
}

void read_rules(FILE* stream, const char* owner, const RuleReader& reader) {
    if (verbose()) RTDCAppendLog(reader.parse_list);
    // A line longer than 511 characters is read as a rule of its first 511 characters and
    // its rest as the following line or lines.
    char line[512];
    while (rtdc_read_text_line(stream, line)) {
        if (verbose()) rtdc_logf("%s%s\n", reader.read_prefix, line);
        if (strstr(line, reader.end_tag)) return;
        ExpdefFields f;
        if (!parse_rule_line(line, owner, reader, f)) continue;
        if (console_full(owner)) return;
        const bool ok =
            strchr(f.name, '*') ? bind_star_rule(f, reader.bind_star) : bind_named_rule(f);
        if (!ok) return;  // the rest of the request stays unread
    }
    if (verbose()) RTDCAppendLog(reader.finished);
}

}  // namespace rtal

void rtal_expdef_action(FILE* stream, const char* owner) {
    {
        std::lock_guard<std::mutex> lock(expdef_mutex);
        if (!Expdef_list) {
            if (rtal::verbose()) RTDCAppendLog("VORNRTA-I-EXPDEF:    create expdef list...\n");
            if (!CreateList(&Expdef_list)) RTDCAppendLog("VORNRTA-E-MALLOC: CreateList: failed\n");
        } else {
            if (rtal::verbose())
                RTDCAppendLog(
                    "VORNRTA-I-EXPDEF:    remove all entries from existing expdef list\n");
            rtal::remove_owner_rules(Expdef_list, owner);
        }
        rtal::rules_held.erase(owner);
    }
    rtal::read_rules(stream, owner, rtal::kExpdefReader);
}

void rtal_rule_left_locked(const ExceptionObject* rule) {
    auto it = rtal::rules_held.find(rule->console);
    if (it != rtal::rules_held.end() && it->second.count > 0) --it->second.count;
}

void Add_leave_nodes_to_list(treeNode* leaf, void* fields, void* /*unused*/) {
    if (!leaf || !leaf->data || !fields) return;
    const auto& f = *static_cast<const ExpdefFields*>(fields);
    auto* rule = static_cast<ExceptionObject*>(calloc(1, sizeof(ExceptionObject)));
    if (!rule) return;
    rtal::fill_rule(rule, f, leaf->data->description);
    rule->metric = leaf->data;
    rtal::copy_field(rule->bound, leaf->data->description);
    std::lock_guard<std::mutex> lock(expdef_mutex);
    switch (rtal::append_rule(rule)) {
        case rtal::Append::Added:
            break;
        case rtal::Append::Refused:
            free(rule);
            break;
        case rtal::Append::Failed:
            RTDCAppendLog("VORNRTA-E-FAIL:  Add exception definition failed \n");
            free(rule);
            break;
    }
}

int rtal_expdef_check_defs(int socket, int always) {
    bool have;
    {
        std::lock_guard<std::mutex> lock(expdef_mutex);
        have = Expdef_list && Expdef_list->first;
    }
    if (have && !always) return 1;
    const char* tag;
    if (have) {
        rtdc_logf("%-18s send <OK_EXP>\n", "VORNRTA-I-TAG:");
        tag = "<OK_EXP>\n";
    } else {
        rtdc_logf("%-18s send <GETEXP> for expection defs.\n", "VORNRTA-I-TAG:");
        tag = "<GETEXP>\n";
    }
    if (!rtal::write_text(socket, tag)) {
        rtdc_logf("%-18s <GETEXP> tag send failed: %s\n", "VORNRTA-I-TAGFAIL:", strerror(errno));
        return -1;
    }
    return have ? 1 : 0;
}
