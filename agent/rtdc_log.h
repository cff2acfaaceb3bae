// The agent's daily log: one append-only file per calendar day in the log directory.
#pragma once

#include <atomic>
#include <ctime>
#include <mutex>

// The verbose level of the command line; written once at start-up, read by every side
// that logs its steps.
extern std::atomic<int> verbose_flag;
// Serialises writes to the log stream; always the last lock taken.
extern std::mutex logfile_mutex;

extern char logfilec[256];  // path of the current log file
extern int logfile_yday;    // day of the year logfilec was computed for; -1 at start

/// Computes "<logdir>/rta_<node>_<%Y%b%d>.log" when the day changed since the last call and
/// closes the open stream so the next write opens the new day's file. 1 when a new name was
/// computed, else 0.
int get_log_file_name_unix(const char* node_name, char* path_out);
/// The same with the other platform's name form; kept, no caller here.
int get_log_file_name_vms(const char* node_name, char* path_out);

/// One timestamped entry "<zone> HH:MM:SS DD-Mon-YYYY : text"; the caller supplies the line
/// end. Serialised by logfile_mutex. Entries are dropped once the file failed to open.
void RTDCAppendLog(const char* text);
void RTDCWriteLog(const char* text);
/// printf-style timestamped entry (formats into a bounded buffer, then RTDCAppendLog).
void rtdc_logf(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// printf-style entry without timestamp and without the lock; start banner only.
void RTDCAppendLogNoTs(const char* format, ...) __attribute__((format(printf, 1, 2)));
int RTDCCloseLog();
/// A day's log file holds at most this many bytes; then a notice an hour, nothing more.
inline constexpr long kDefaultLogLimit = 100L * 1024 * 1024;
void rtdc_set_log_limit(long bytes);
/// "%Z %T %d-%b-%Y" of the local time into out (at least 80 bytes). Returns 1.
int TimeString(time_t when, char* out);

/// Test hook: forget the open stream and the open-failure flag.
void rtdc_log_reset_for_tests();
