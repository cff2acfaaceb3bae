// Events relayed for consoles and the event definition file.
#pragma once

#include <cstdio>

inline constexpr int kMaxEvents = 512;
extern char eventlist[kMaxEvents][512];  // guarded by event_mutex
extern int no_events;
extern int max_events;

int handle_event_request(FILE* stream, int fd, const char* client);
int handle_event_def_request(FILE* stream, int fd, const char* line, const char* client);
int rtal_event_getalert_action(int socket, const char* owner);
void rtal_event_action(FILE* stream, const char* owner);
