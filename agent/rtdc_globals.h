// Process-wide flags and intervals shared by the request threads, the collection thread
// and the start-up path. They are plain integers in the agent's own terms; we keep them as
// relaxed atomics so that the unlocked sharing the agent relies on is free of data races.
#pragma once

#include <atomic>
#include <mutex>

using AtomicFlag = std::atomic<int>;

extern AtomicFlag start_rtdc;       // 1 while a console wants data packets
extern AtomicFlag start_rtal;       // 1 while alert checking runs
extern AtomicFlag collect_started;  // 1 once a collection thread has completed a tick
extern AtomicFlag exit_recieved;    // console said "EXIT" or a data write failed
extern AtomicFlag scan_intvl;       // seconds between ticks, printed in packets
extern AtomicFlag dump_intvl;       // kept equal to scan_intvl
extern AtomicFlag rtdc_counter;
extern AtomicFlag scan_counter;
extern AtomicFlag dump_counter;
extern AtomicFlag rtal_intvl;    // seconds between alert checks
extern AtomicFlag rtal_counter;  // seconds left until the next alert check
extern AtomicFlag continue_flag;
extern AtomicFlag hdr_written;
extern AtomicFlag FirstPass;     // 1 until a header packet has been built
extern AtomicFlag counter_added; // 0 until the first header pass registered the tree
extern AtomicFlag verbose_flag;
extern AtomicFlag no_alerts;
extern AtomicFlag ctrl_sock;  // descriptor of the data connection, 0 when none
extern AtomicFlag data_sock;  // listening socket
extern AtomicFlag IPStatus;   // 1 while a data connection is being served
extern AtomicFlag CpuCount;
extern AtomicFlag FirstBuffer;
extern AtomicFlag FirstPacket;
extern AtomicFlag PacketNumber;
extern AtomicFlag send_process_headers;

extern std::atomic<long> timestamp;             // time of the last setup_snapshot
extern std::atomic<unsigned long long> TotalCpuTime;

// The five process-wide mutexes, in creation (and destruction) order. Lock order:
// tree before expdef before alert; logfile always last.
extern std::mutex tree_mutex;
extern std::mutex expdef_mutex;
extern std::mutex alert_mutex;
extern std::mutex logfile_mutex;
extern std::mutex event_mutex;

// Serialises a collection tick with setup_snapshot called from a request thread, so a
// second console arriving mid-tick cannot race the line arrays.
extern std::recursive_mutex snapshot_mutex;

// Text constants the agent prints in its banners, status table and lock file.
inline constexpr const char* kProgramName = "vornrta";
inline constexpr const char* kVersion = "V10.0-001";
inline constexpr const char* kBuildDate = "Feb 23 2012";
inline constexpr const char* kMakerNotice = "(c) Vornrta real-time performance agent";
