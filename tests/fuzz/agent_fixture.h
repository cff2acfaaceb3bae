// An agent made ready for requests without a server: settings record, log, a metric tree
// with a class and two processes built by the real registration code, and rule, alert and
// event stores that are emptied between inputs so a long run does not grow.
#pragma once

#include <cstddef>
#include <cstdio>
#include <mutex>
#include <utility>

#include "agent/rtdc_globals.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_expdef.h"
#include "collectors/rtdc_tables.h"
#include "control/rta_cmdline.h"
#include "fuzz_support.h"

namespace fuzz {

struct NetRecord {
    double busy, idle;
    int64_t sent;
    int32_t conns;
};

inline CounterDef counter_row(const char* name, int type, int offset, const char* units) {
    CounterDef row{1, offset, {}, type, {}, 0, {}, 1};
    snprintf(row.name, sizeof row.name, "%s", name);
    snprintf(row.description, sizeof row.description, "%s share", name);
    snprintf(row.units, sizeof row.units, "%s", units);
    return row;
}

inline void start_agent() {
    rta_init_command_line(&rta_cmdline);
    snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "fuzzhost");
    snprintf(rta_cmdline.settings_dir, sizeof rta_cmdline.settings_dir, "%s", scratch().c_str());
    snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", scratch().c_str());
    rta_cmdline.alerts = 1;
    quiet_log();
    if (rtal_create_root("fuzzhost") != 1) abort();

    static NetRecord record{12.5, 87.5, 4000, 7};
    static CounterDef net[] = {
        counter_row("Load->Busy", 4, offsetof(NetRecord, busy), "%"),
        counter_row("Load->Idle", 4, offsetof(NetRecord, idle), "%"),
        counter_row("Sent", 6, offsetof(NetRecord, sent), "/Sec"),
        counter_row("Connections", 1, offsetof(NetRecord, conns), "#"),
        CounterDef{},
    };
    AddCounter("Net", net, &record, Metric_Tree);
    static double cpu_share[2] = {3.0, 40.0};
    static CounterDef proc[] = {counter_row("% CPU", 4, 0, "%"), CounterDef{}};
    AddProcessCounter("bash", proc, &cpu_share[0], Metric_Tree, 100);
    AddProcessCounter("sshd", proc, &cpu_share[1], Metric_Tree, 200);
    rtal_intvl = 30;
}

/// Frees every rule, alert and stored event: what the agent would keep between consoles
/// is not what one input should leave for the next.
inline void clear_stores() {
    std::lock_guard<std::mutex> rules(expdef_mutex), alerts(alert_mutex);
    DestroyList(Expdef_list);  // a rule's metric is the tree's; only the rule is freed
    Expdef_list = nullptr;
    DestroyList(Evntdef_list);
    Evntdef_list = nullptr;
    for (ListItem* it = Alert_list ? Alert_list->first : nullptr; it; it = it->next)
        rtal_free_alert(static_cast<ExceptionObject*>(std::exchange(it->data, nullptr)));
    DestroyList(Alert_list);
    Alert_list = nullptr;
    std::lock_guard<std::mutex> events(event_mutex);
    no_events = 0;
}

/// The input as a read stream, as a request handler gets it.
class InputStream {
  public:
    InputStream(const uint8_t* data, size_t size)
        : copy_(reinterpret_cast<const char*>(data), size),
          file_(size ? fmemopen(copy_.data(), copy_.size(), "r") : fopen("/dev/null", "r")) {}
    ~InputStream() {
        if (file_) fclose(file_);
    }
    FILE* get() const { return file_; }

  private:
    std::string copy_;
    FILE* file_;
};

}  // namespace fuzz
