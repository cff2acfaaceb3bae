// The data connection and the packets sent on it: who is being served, where the stream
// of packets stands, and how often it ticks. Plain integers in the agent's own terms, kept
// as relaxed atomics so that the unlocked sharing between the request threads and the
// collection thread is free of data races.
//
// Writers are named beside each flag: "handlers" are the request threads (data start-up
// and monitor shutdown), "tick" the collection thread, "send" the packet writer when a
// write to the console fails, "pass" the snapshot pass.
#pragma once

#include <atomic>
#include <mutex>

using AtomicFlag = std::atomic<int>;

// Whether a console is being served.
extern AtomicFlag start_rtdc;     // 1 while a console wants data packets. Written by handlers
                                  // and send; read by the pass and the packet writers.
extern AtomicFlag exit_recieved;  // console said "EXIT" or a data write failed. Written by
                                  // handlers, send and the server; read by the tick.
extern AtomicFlag ctrl_sock;      // descriptor of the data connection, 0 when none. Written only
                                  // through the data-connection helpers; read by the pass.
extern AtomicFlag IPStatus;       // 1 while a data connection is being served. Written by
                                  // handlers and the server; read by handlers.

// The collection thread's life and pace.
extern AtomicFlag collect_started;  // 1 once a collection thread has completed a tick.
                                    // Written by the tick, handlers and send.
extern AtomicFlag scan_intvl;       // seconds between ticks, printed in packets. Written by
                                    // start-up, handlers and the tick; read by all.
extern AtomicFlag dump_intvl;       // kept equal to scan_intvl; same writers.
extern AtomicFlag rtdc_counter;     // tick countdowns: written by the tick and handlers
extern AtomicFlag scan_counter;
extern AtomicFlag dump_counter;
extern AtomicFlag continue_flag;     // written by the tick and handlers
extern AtomicFlag hdr_written;       // written by the tick and handlers
extern std::atomic<long> timestamp;  // time of the last header pass; written by the tick
extern std::atomic<unsigned long long> TotalCpuTime;  // reset by the tick, summed by the
                                                      // process class

// Where the stream of packets stands.
extern AtomicFlag FirstPass;             // 1 until a header packet has been built. Written by the
                                         // pass, handlers and the tick.
extern AtomicFlag counter_added;         // 0 until the first header pass registered the counters
                                         // in the metric tree. Written only by the pass; read by
                                         // the packet output of the collectors.
extern AtomicFlag FirstBuffer;           // written by handlers and the tick; read by send
extern AtomicFlag FirstPacket;           // written by handlers
extern AtomicFlag PacketNumber;          // written by handlers and send
extern AtomicFlag send_process_headers;  // written by handlers

// Serialises a collection tick with the header pass a request thread starts for a new
// console, so a second console arriving mid-tick cannot race the line arrays.
extern std::recursive_mutex snapshot_mutex;
