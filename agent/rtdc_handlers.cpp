// One handler per request tag. Each reads the rest of its request from the connection's
// stream, acts, and answers only through the alerting side's replies: failures are logged,
// never sent to the console.
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "agent/rtdc_connection.h"
#include "agent/rtdc_globals.h"
#include "agent/rtdc_lineread.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_expdef.h"
#include "packet/rtdc_buffer.h"
#include "platform/process.h"

char Served_client_addr[16];

namespace {
constexpr const char* kTag = "VORNRTA-I-TAG:";

// Reads one line of at most 255 characters and returns its integer value; a missing or
// non-numeric line gives 0, as atoi does.
int read_int_line(FILE* stream) {
    char line[256];
    if (!rtdc_read_text_line(stream, line)) return 0;
    return atoi(line);
}

// <DATA> requests received so far; see handle_data_request.
std::atomic<unsigned long> data_requests{0};

void set_scan_interval(int seconds) {
    dump_intvl = seconds;
    scan_intvl = seconds;
    rtdc_counter = seconds;
}
}  // namespace

int set_data_startup_flags(int fd) {
    char peer[16];
    rtdc_peer_address(peer, sizeof peer);
    snprintf(Served_client_addr, sizeof Served_client_addr, "%s", peer);
    IPStatus = 1;
    rtdc_adopt_data_connection(fd);
    FirstPass = 1;
    FirstBuffer = 1;
    Offset = 0;
    PacketNumber = 1;
    FirstPacket = 1;
    exit_recieved = 0;
    return 1;
}

int handle_data_request(FILE* stream, int fd, const char* client) {
    set_scan_interval(read_int_line(stream));
    if (verbose_flag) rtdc_logf("%-20s <DATA> tag from %s, rate: %d\n", kTag, client, scan_intvl.load());
    // Every <DATA> request takes the data connection over; the redirect answer is kept for
    // a console that would have to be sent elsewhere, but no state leads to it.
    IPStatus = 0;
    if (IPStatus == 1) {
        handle_redirect_request(fd);
        sleep(2);
        rtdc_close_request(stream, fd);
        return 0;
    }
    // A takeover storm queues its requests on the tick lock. Each would run a whole header
    // pass only to be taken over by the next, and a stale one could take the stream from the
    // newest console: only the latest request waiting is served, the others end as a console
    // that is taken over does.
    const unsigned long arrival = ++data_requests;
    std::lock_guard<std::recursive_mutex> tick(snapshot_mutex);
    if (arrival != data_requests) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
        return 0;
    }
    set_data_startup_flags(fd);
    start_rtdc = 1;
    if (collect_started == 1) {
        setup_snapshot(1);
        return 0;
    }
    return handle_rtmonitor_startup(fd) ? 1 : 0;
}

int handle_interval_request(FILE* stream, int fd, const char* client) {
    (void)client;
    rtdc_logf("%-20s <INTERVAL> tag \n", kTag);
    set_scan_interval(read_int_line(stream));
    if (verbose_flag) rtdc_logf("%-20s <INTERVAL> %d\n", kTag, scan_intvl.load());
    rtdc_close_request(stream, fd);
    return 1;
}

int handle_alert_interval_request(FILE* stream, int fd, const char* client) {
    (void)client;
    rtdc_logf("%-20s <ALERT_INTERVAL> tag\n", kTag);
    char line[256];
    while (rtdc_read_text_line(stream, line)) {
        if (strstr(line, "</ALERT_INTERVAL>")) break;
        // The range check applies to the value held before this line, so an out-of-range
        // value sent last stays in force until the next request.
        if (rtal_intvl < 1 || rtal_intvl > 20000) rtal_intvl = 120;
        rtal_intvl = atoi(line);
        if (verbose_flag) rtdc_logf("%-20s <ALERT_INTERVAL> now %d\n", "VORNRTA-I-INTVL:", rtal_intvl.load());
    }
    rtal_expdef_check_defs(fd, 1);
    rtdc_linger(2);
    rtdc_close_request(stream, fd);
    return 1;
}

int handle_expdef_request(FILE* stream, int fd, const char* client) {
    if (verbose_flag) rtdc_logf("%-20s <EXPDEF> tag \n", kTag);
    start_rtal = 1;
    if (collect_started == 0) handle_rtmonitor_startup(fd);
    rtal_expdef_action(stream, client);
    log_expdef_list(1);
    start_rtal = 1;
    return 0;
}

int handle_desc_request(FILE* stream, int fd, const char* client) {
    (void)client;
    rtdc_logf("%-20s <DESC> tag \n", kTag);
    start_rtal = 1;
    rtal_counter = rtal_intvl.load();
    if (collect_started == 0) handle_rtmonitor_startup(fd);
    rtal_desc_action(fd);
    rtdc_linger(5);
    rtdc_close_request(stream, fd);
    return 1;
}

int handle_getalerts_request(FILE* stream, int fd, const char* client) {
    (void)stream;
    if (verbose_flag) rtdc_logf("%-20s <GETALERTS> tag \n", kTag);
    rtal_expdef_check_defs(fd, 0);
    log_expdef_list(verbose_flag);
    log_alert_list(verbose_flag);
    if (verbose_flag) RTDCAppendLog("Call rtal_getalert_action() \n");
    rtal_getalert_action(fd, client);
    if (verbose_flag) rtdc_logf("%-20s <GETALERTS> DONE \n", kTag);
    return 1;
}

int handle_event_getalerts_request(FILE* stream, int fd, const char* client) {
    (void)stream;
    if (verbose_flag) {
        rtdc_logf("%-20s <EVENT_GET_ALERTS> tag \n", kTag);
        RTDCAppendLog("Call rtal_getalert_action() \n");
    }
    rtal_event_getalert_action(fd, client);
    if (verbose_flag) rtdc_logf("%-20s <GETALERTS> DONE \n", kTag);
    return 1;
}

namespace {
// One collection thread at a time: a request arriving before the first tick completed
// must not start a second one.
std::atomic<bool> collector_alive{false};
}  // namespace

void rtdc_collector_ended() { collector_alive = false; }

int handle_rtmonitor_startup(int fd) {
    std::lock_guard<std::recursive_mutex> tick(snapshot_mutex);
    setup_snapshot(1);
    if (collector_alive.exchange(true)) return 1;
    pthread_attr_t tattr;
    pthread_attr_init(&tattr);
    pthread_attr_setdetachstate(&tattr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    int rc = pthread_create(&tid, &tattr, CollectAndTransmit,
                            reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    pthread_attr_destroy(&tattr);
    if (rc != 0) {
        collector_alive = false;
        rtdc_logf("CollectAndTransmit thread failed: %s\n", strerror(rc));
        return 0;
    }
    if (verbose_flag)
        rtdc_logf("%-20s Created CollectandTransmit thread... (thread: %ld)\n", "VORNRTA-I-THREAD:",
                  static_cast<long>(tid));
    return 1;
}

int handle_rtmonitor_shutdown() {
    RTDCAppendLog("RTS opted to stop getting data from RTC\n");
    start_rtdc = 0;
    FirstPass = 1;
    FirstBuffer = 1;
    IPStatus = 0;
    hdr_written = 0;
    continue_flag = 1;
    // After a console leaves, the printed interval and the alert countdown step become the
    // alert interval.
    scan_intvl = rtal_intvl.load();
    rtdc_release_data_connection(ctrl_sock);
    exit_recieved = 0;
    RTDCAppendLog("RTDC stop complete, waiting for connection...\n");
    return 1;
}

int handle_redirect_request(int fd) {
    char text[41];
    snprintf(text, sizeof text, "REDIRECT=%s\n", Served_client_addr);
    rtdc_logf("Redirect to %s\n", Served_client_addr);
    size_t len = strlen(text);
    if (write(fd, text, len) != static_cast<ssize_t>(len)) {
        rtdc_logf("VORNRTA-E-WRITE: REDIRECT request write failed: %s\n", strerror(errno));
        return 0;
    }
    return 1;
}

int get_process_count() {
    int count = platform::count_proc_entries();
    if (count < 0) {
        fprintf(stderr, "vornrta: unable to open /proc\n");
        return 0;
    }
    return count;
}

int numOfProcesses() { return get_process_count(); }

void PipeError(int sig) {
    (void)sig;
    if (verbose_flag) RTDCAppendLog("SIGPIPE: exception handler...\n");
    IPStatus = 0;
    collect_started = 0;
    if (rta_cmdline.class_process || rta_cmdline.collect_default) send_process_headers = 1;
    pthread_exit(nullptr);
}
