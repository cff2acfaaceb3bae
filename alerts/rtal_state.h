// Alert checking's switches and the locks of the alerting side. The integers are relaxed
// atomics shared without a lock, as the collection thread and the request threads expect.
#pragma once

#include <atomic>
#include <mutex>

extern std::atomic<int> start_rtal;    // 1 while alert checking runs. Written by start-up
                                       // (settings), the alert-interval and description
                                       // handlers; read by the tick.
extern std::atomic<int> rtal_intvl;    // seconds between alert checks. Written by the
                                       // alert-interval handler; read by the tick.
extern std::atomic<int> rtal_counter;  // seconds left until the next check. Written by the
                                       // tick and handlers.
extern std::atomic<int> no_alerts;     // the "no alerts" start-up option; written at start-up

// The locks of the metric tree, the rule definitions, the alert list and the event store.
// Lock order: tree_mutex before expdef_mutex before alert_mutex; the log's lock is always
// taken last. std::mutex is constant-initialised, so the locks exist before any code runs
// and none depends on another file's start-up order.
extern std::mutex tree_mutex;
extern std::mutex expdef_mutex;
extern std::mutex alert_mutex;
extern std::mutex event_mutex;
