// The figures of one agent written for Prometheus: names chosen for Prometheus (never the
// agent's descriptions), base units, counters accumulated here from the agent's
// per-interval values so that rate() works, gauges for levels, processes summed per name.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "console/vm_model.h"

namespace vornmon {

struct Family {
    const char* name;  // counters without their "_total" sample suffix
    bool counter;
    const char* unit;  // OpenMetrics unit, a suffix of the name; "" for none
    const char* help;
};

/// One exported value: its family, its labels (without the agent's), its value.
struct Series {
    const Family* family;
    std::string labels;  // `k="v",...`, escaped
    double value;
};

struct ExposeOptions {
    bool per_pid = false;          // process series per pid instead of per name
    bool all_filesystems = false;  // keep pseudo file systems (no blocks, /proc, /sys, ...)
};

/// A label value as the text exposition escapes it: backslash, double quote and line end.
std::string label_value(std::string_view v);
/// A HELP text as the text exposition escapes it: backslash and line end.
std::string help_text(std::string_view v);

/// The pseudo file systems left out by default.
bool is_pseudo_filesystem(const std::string& mountpoint, double total_blocks);

/// Accumulates one agent's measurements into series. Counter totals start at 0 when the
/// accumulator is made: a hub restart is a counter reset.
class Accumulator {
  public:
    explicit Accumulator(ExposeOptions options) : options_(options) {}
    /// Adds a measurement covering `seconds`; `attributes` are the values of the header
    /// lines in force (the memory size). Returns every series of the agent.
    std::vector<Series> add(const Sample& sample, double seconds,
                            const std::map<std::string, std::string>& attributes);

  private:
    struct Round;
    double& total(const Family* family, const std::string& labels);
    bool labels_for(const Metric& m, const Family* family, const char* label, Round& round,
                    std::string& labels);
    void add_reading(const Reading& r, double seconds, Round& round);
    void add_filesystems(const Round& round, std::vector<Series>& out) const;
    void sweep(double seconds);

    ExposeOptions options_;
    long round_ = 0;
    struct Total {
        const Family* family = nullptr;
        std::string labels;
        double value = 0;
        long seen = 0;
    };
    std::map<std::string, Total> totals_;  // family name + labels, in exposition order
};

/// How attribute values are keyed: the class, "->", the counter's levels without their
/// decorative blanks ("Memory->System Memory (MB)").
std::string metric_key(const std::string& klass, const std::string& counter);

/// A label value escaped for the exposition.
std::string label_value(std::string_view v);
/// A HELP text as the text exposition escapes it: backslash and line end.
std::string help_text(std::string_view v);

/// The families in the order they are written.
const std::vector<const Family*>& families();

/// One agent's part of a scrape.
struct AgentSeries {
    std::string instance, host;
    bool up = false;
    double packets = 0;
    std::shared_ptr<const std::vector<Series>> series;
    std::vector<Series> alerts;
};

extern const Family kAgentUp, kPacketsReceived, kAlertsFiring, kAlertsReceived;

/// The exposition of every agent: OpenMetrics (with "# EOF") or, for scrapers that do not
/// ask for it, the older Prometheus text format.
std::string exposition_text(const std::vector<AgentSeries>& agents, bool openmetrics);

}  // namespace vornmon
