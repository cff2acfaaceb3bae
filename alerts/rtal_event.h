// Events relayed for consoles and the event definition file.
#pragma once

#include <cstdio>

#include "agent/rtdc_list.h"

inline constexpr int kMaxEvents = 512;
extern char eventlist[kMaxEvents][512];  // guarded by event_mutex
extern int no_events;                    // filled slots, guarded by event_mutex
extern int max_events;

extern List* Evntdef_list;      // event rule owners; guarded by expdef_mutex
extern List* Event_Alert_list;  // declared for event alerts; nothing fills it

/// <EVENT>: stores every further line of the request (at most 511 characters a slot) until
/// end of stream or the store is full. Returns 0: the connection is closed afterwards.
int handle_event_request(FILE* stream, int fd, const char* client);
/// <EVENT_DEF>: writes `line` and every further line to <settings>/eventdef_<node>.dat.
/// 1 when the file could be opened, else 0.
int handle_event_def_request(FILE* stream, int fd, const char* line, const char* client);
/// <EVENT_GET_ALERTS>: every stored event once, between the two tag lines; 1, or -1 when a
/// write failed (the events then stay stored).
int rtal_event_getalert_action(int socket, const char* owner);
/// Rule lines in the <EXPDEF> grammar ending at "</EVENT>"; no request reaches it.
void rtal_event_action(FILE* stream, const char* owner);
