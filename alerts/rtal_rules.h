// The rule-line reader shared by <EXPDEF> and the kept <EVENT> rule parser. Internal to
// alerts/.
#pragma once

#include <cstdio>

#include "alerts/rtal_expdef.h"

namespace rtal {

/// What differs between the two readers: their log texts, their end tag and whether a "*"
/// path binds rules or is only resolved.
struct RuleReader {
    const char* parse_list;   // "... parse new list\n"
    const char* read_prefix;  // "... read: ", logged before each line read
    const char* end_tag;
    const char* field_msgs[7];  // logged before each of the seven fields
    const char* finished;       // logged at end of stream
    bool bind_star;
};

/// Reads rule lines from `stream` until the end tag or end of stream, binding each to the
/// metric tree and appending it to Expdef_list under expdef_mutex. `owner` is the console's
/// whole address text. Stops at the first path that does not resolve, and when the console
/// holds as many rules as it may.
void read_rules(FILE* stream, const char* owner, const RuleReader& reader);

/// Removes and frees every rule of `owner` in `list`. Caller holds expdef_mutex.
void remove_owner_rules(List* list, const char* owner);

/// True when a rule or alert belongs to the console whose address text is `owner`.
bool owner_matches(const ExceptionObject& item, const char* owner);

}  // namespace rtal
