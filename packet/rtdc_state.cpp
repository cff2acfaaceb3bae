#include "packet/rtdc_state.h"

AtomicFlag start_rtdc{0};
AtomicFlag exit_recieved{0};
AtomicFlag ctrl_sock{0};
AtomicFlag IPStatus{0};

AtomicFlag collect_started{0};
AtomicFlag scan_intvl{2};
AtomicFlag dump_intvl{2};
AtomicFlag rtdc_counter{2};
AtomicFlag scan_counter{0};
AtomicFlag dump_counter{0};
AtomicFlag continue_flag{1};
AtomicFlag hdr_written{0};
std::atomic<long> timestamp{0};
std::atomic<unsigned long long> TotalCpuTime{0};

AtomicFlag FirstPass{1};
AtomicFlag counter_added{0};
AtomicFlag FirstBuffer{1};
AtomicFlag FirstPacket{1};
AtomicFlag PacketNumber{1};
AtomicFlag send_process_headers{0};

std::recursive_mutex snapshot_mutex;
