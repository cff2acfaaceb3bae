#include "agent/rtdc_log.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "agent/rtdc_clock.h"
#include "control/rta_cmdline.h"

std::atomic<int> verbose_flag{0};
std::mutex logfile_mutex;

char logfilec[256];
int logfile_yday = -1;

namespace {
FILE* log_stream = nullptr;
// Bytes in the open day's file. Past the limit only a notice an hour is written, so whatever
// consoles send, the log cannot fill the disk it shares with the agent's other files.
long log_bytes = 0;
long log_limit = kDefaultLogLimit;
time_t last_full_notice = 0;
// Once the log could not be opened the agent says so once and then stays silent: a full
// or read-only log directory must not turn into a flood on standard error.
bool log_open_failed = false;

// Caller holds logfile_mutex (or runs before any other thread exists).
bool ensure_log_open() {
    if (log_stream) return true;
    if (log_open_failed) return false;
    log_stream = fopen(logfilec, "a");
    if (!log_stream) {
        fprintf(stderr, "\nvornrta, Unable to open log file %s, %s \n", logfilec, strerror(errno));
        log_open_failed = true;
        return false;
    }
    // An agent restarted during the day goes on counting from what the file already holds.
    struct stat st;
    log_bytes = fstat(fileno(log_stream), &st) == 0 ? static_cast<long>(st.st_size) : 0;
    last_full_notice = 0;
    return true;
}

// Caller holds logfile_mutex and has an open stream. True when an entry of `length` bytes
// still fits the day's file; once it does not, the notice is written at most once an hour.
bool room_for(size_t length, time_t now) {
    if (log_bytes + static_cast<long>(length) <= log_limit) return true;
    if (last_full_notice != 0 && now - last_full_notice < 3600) return false;
    last_full_notice = now;
    char stamp[80];
    TimeString(now, stamp);
    int n = fprintf(log_stream,
                    "%s : VORNRTA-W-LOGFULL:  the log file reached its limit of %ld bytes; only"
                    " this notice is written, once an hour, until the next day's file\n",
                    stamp, log_limit);
    if (n > 0) log_bytes += n;
    fflush(log_stream);
    return false;
}

// Request threads recompute the name at the start of every connection, so the computation
// and the switch to the new day's file happen under logfile_mutex.
int make_log_name(const char* node_name, char* path_out, bool vms_form, bool close_old) {
    time_t now = rtdc_now();
    struct tm tmv;
    localtime_r(&now, &tmv);
    std::lock_guard<std::mutex> lock(logfile_mutex);
    if (tmv.tm_yday == logfile_yday) return 0;
    char date[64];
    strftime(date, sizeof date, "%Y%b%d", &tmv);
    if (vms_form)
        snprintf(path_out, sizeof logfilec, "%sVORN$REALTIME_%s_%s.LOG", rta_cmdline.log_dir,
                 node_name, date);
    else
        snprintf(path_out, sizeof logfilec, "%s/rta_%s_%s.log", rta_cmdline.log_dir, node_name,
                 date);
    logfile_yday = tmv.tm_yday;
    if (close_old && log_stream) {
        fclose(log_stream);
        log_stream = nullptr;
    }
    return 1;
}
}  // namespace

int get_log_file_name_unix(const char* node_name, char* path_out) {
    return make_log_name(node_name, path_out, false, true);
}

int get_log_file_name_vms(const char* node_name, char* path_out) {
    return make_log_name(node_name, path_out, true, false);
}

int TimeString(time_t when, char* out) {
    struct tm tmv;
    localtime_r(&when, &tmv);
    char buf[80];
    if (strftime(buf, sizeof buf, "%Z %T %d-%b-%Y", &tmv) == 0) buf[0] = '\0';
    memcpy(out, buf, strlen(buf) + 1);
    return 1;
}

void RTDCAppendLog(const char* text) {
    std::lock_guard<std::mutex> lock(logfile_mutex);
    time_t now = rtdc_now();
    if (!ensure_log_open()) return;
    char stamp[80];
    TimeString(now, stamp);
    const size_t length = strlen(stamp) + 3 + strlen(text);
    if (!room_for(length, now)) return;
    log_bytes += static_cast<long>(length);
    fputs(stamp, log_stream);
    fputs(" : ", log_stream);
    fputs(text, log_stream);
    fflush(log_stream);
}

void RTDCWriteLog(const char* text) { RTDCAppendLog(text); }

void rtdc_logf(const char* format, ...) {
    char buf[4096];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    RTDCAppendLog(buf);
}

void RTDCAppendLogNoTs(const char* format, ...) {
    if (!ensure_log_open()) return;
    va_list ap;
    va_start(ap, format);
    int n = vfprintf(log_stream, format, ap);
    va_end(ap);
    if (n > 0) log_bytes += n;
    fflush(log_stream);
}

void rtdc_set_log_limit(long bytes) {
    std::lock_guard<std::mutex> lock(logfile_mutex);
    log_limit = bytes;
}

int RTDCCloseLog() {
    std::lock_guard<std::mutex> lock(logfile_mutex);
    if (log_stream) fclose(log_stream);
    log_stream = nullptr;
    return 1;
}

void rtdc_log_reset_for_tests() {
    RTDCCloseLog();
    std::lock_guard<std::mutex> lock(logfile_mutex);
    log_open_failed = false;
    log_limit = kDefaultLogLimit;
    logfile_yday = -1;
}
