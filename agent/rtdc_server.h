// Request server, request handlers and the collection thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "control/rta_cmdline.h"

// Written once at start-up, read by the accept loop and the handlers.
extern std::atomic<int> data_sock;  // the listening socket
extern std::atomic<int> CpuCount;   // processors configured at start-up

extern char client_addr_str[64];
extern char client_addr_str1[64];
extern char Served_client_addr[16];

[[noreturn]] void StartRTAgent(RtaCmdline* settings);
int start_daemon(const char* directory, int nice_value);
[[noreturn]] void Terminate(int signal_number);
int local_sigaction(int sig, void (*handler)(int));
int CreateISrvrSocket(int port);
[[noreturn]] void Fallback();
void* ProcessRequest(void* arg);
/// Serves one accepted request connection until its request is done, its client ends the
/// stream or `deadline` passes, whichever comes first. ProcessRequest's body.
void rtdc_serve_request(int fd, const char* client, std::chrono::steady_clock::time_point deadline);
/// Takes the bind address (ADDRESS~) and the consoles allowed (ALLOW~) from the settings.
/// False, with *error saying what is wrong, when either is not valid.
bool rtdc_setup_access(const RtaCmdline& settings, std::string* error);

int set_data_startup_flags(int fd);
int handle_data_request(FILE* stream, int fd, const char* client);
int handle_interval_request(FILE* stream, int fd, const char* client);
int handle_alert_interval_request(FILE* stream, int fd, const char* client);
int handle_expdef_request(FILE* stream, int fd, const char* client);
int handle_desc_request(FILE* stream, int fd, const char* client);
int handle_getalerts_request(FILE* stream, int fd, const char* client);
int handle_event_getalerts_request(FILE* stream, int fd, const char* client);
int handle_rtmonitor_startup(int fd);
int handle_rtmonitor_shutdown();
int handle_redirect_request(int fd);
int get_process_count();
int numOfProcesses();
void PipeError(int sig);

int setup_snapshot(int send);
void* CollectAndTransmit(void* socket);
void Scanner(int unused);

/// Entry used by the vornrta program.
int rtdc_main(int argc, char** argv);
