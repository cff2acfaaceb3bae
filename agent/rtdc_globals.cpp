#include "agent/rtdc_globals.h"

#include "control/rta_cmdline.h"

RtaCmdline rta_cmdline;

AtomicFlag start_rtdc{0};
AtomicFlag start_rtal{0};
AtomicFlag collect_started{0};
AtomicFlag exit_recieved{0};
AtomicFlag scan_intvl{2};
AtomicFlag dump_intvl{2};
AtomicFlag rtdc_counter{2};
AtomicFlag scan_counter{0};
AtomicFlag dump_counter{0};
AtomicFlag rtal_intvl{120};
AtomicFlag rtal_counter{60};
AtomicFlag continue_flag{1};
AtomicFlag hdr_written{0};
AtomicFlag FirstPass{1};
AtomicFlag counter_added{0};
AtomicFlag verbose_flag{0};
AtomicFlag no_alerts{0};
AtomicFlag ctrl_sock{0};
AtomicFlag data_sock{-1};
AtomicFlag IPStatus{0};
AtomicFlag CpuCount{0};
AtomicFlag FirstBuffer{1};
AtomicFlag FirstPacket{1};
AtomicFlag PacketNumber{1};
AtomicFlag send_process_headers{0};

std::atomic<long> timestamp{0};
std::atomic<unsigned long long> TotalCpuTime{0};

std::mutex tree_mutex;
std::mutex expdef_mutex;
std::mutex alert_mutex;
std::mutex logfile_mutex;
std::mutex event_mutex;
std::recursive_mutex snapshot_mutex;
