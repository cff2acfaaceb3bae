// The collection thread: one tick every scan interval samples every enabled class, sends a
// data packet, runs the alert check every alert interval and frees the lines of the scan.
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "agent/rtdc_clock.h"
#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_expdef.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"

void rtdc_collector_ended();

namespace {

void free_scan_lines() {
    rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
    rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
}

// Marks the collection thread gone however it ends: a failed packet write ends it from
// inside the send, unwinding through here.
struct CollectorLifetime {
    ~CollectorLifetime() { rtdc_collector_ended(); }
};

}  // namespace

int setup_snapshot(int send) {
    std::lock_guard<std::recursive_mutex> tick(snapshot_mutex);
    // Lines left by a header packet that no tick has sent yet are released, not dropped.
    free_scan_lines();
    FirstPass = 1;
    FirstBuffer = 1;
    if (verbose_flag) RTDCAppendLog("CollectAndTransmit \n");
    timestamp = rtdc_now();
    if (verbose_flag)
        rtdc_logf("CollectAndTrans: Call Snapshot (thread: %ld) \n",
                  static_cast<long>(pthread_self()));
    SnapshotHeader(&rta_cmdline, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                   &n_rtdc_data_buffers);
    Snapshot(&rta_cmdline, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
             &n_rtdc_data_buffers, send);
    scan_counter = scan_intvl.load();
    dump_counter = dump_intvl.load();
    return 1;
}

void Scanner(int) {
    std::lock_guard<std::recursive_mutex> tick(snapshot_mutex);
    if (exit_recieved == 1) handle_rtmonitor_shutdown();
    rtdc_counter = scan_intvl.load();
    TotalCpuTime = 0;
    scan_counter = scan_intvl.load();
    Snapshot(&rta_cmdline, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
             &n_rtdc_data_buffers, 1);
    if (verbose_flag > 1)
        printf("scanner , start = %d counter = %d , scan_intvl = %d \n", start_rtal.load(),
               rtal_counter.load(), scan_intvl.load());
    if (start_rtal == 1) {
        rtal_counter -= scan_intvl;
        if (rtal_counter < 1) {
            if (verbose_flag)
                rtdc_logf("%-20s Alert Timer, Checking for Alerts...\n", "VORNRTA-I-CHECK:");
            rtal_checkexp();
            rtal_counter = rtal_intvl.load();
        }
    }
    free_scan_lines();
    continue_flag = 0;
    dump_counter = dump_intvl.load();
    collect_started = 1;
}

void* CollectAndTransmit(void*) {
    CollectorLifetime lifetime;
    hdr_written = 0;
    scan_intvl = rta_cmdline.scan;
    // The thread keeps the interval it started with; <INTERVAL> changes what packets print
    // and the alert countdown step, not this sleep. An interval below one second would spin.
    const int interval = std::max(1, scan_intvl.load());
    for (;;) {
        Scanner(0);
        // The deadline is the current whole second plus the interval, read from the same
        // clock the sleep uses: time() reads a coarser clock that can still show the previous
        // second just after the wake-up, which would cut every other interval short.
        using namespace std::chrono;
        auto deadline = floor<seconds>(system_clock::now()) + seconds(interval);
        std::this_thread::sleep_until(deadline);
    }
    return nullptr;
}
