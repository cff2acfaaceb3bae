// What the header lines of a data connection define: one Metric per counter id, with its
// class, instance and counter name worked out from the path, and the decoding of data
// packets into readings against those definitions.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "console/vm_wire.h"

namespace vornmon {

struct Metric {
    long id = 0;
    std::string klass;     // class prefix as sent
    std::string path;      // "<class>-><name>"; processes: "Process-><name>-><counter>"
    std::string instance;  // processor number, disk, mount point or pid; empty for host-wide
    std::string counter;   // the counter below the instance, blanks kept
    std::string description;
    std::string units;
    int marker = 0;
    bool is_counter = false;
    std::optional<std::string> header_value;  // attributes: the value in the header line
    bool is_process = false;
    long pid = 0;
    std::string process_name;  // empty when the id was decoded without a header line
    bool from_header = true;
};

/// Counter id layout of process rows: 65536 + pid * kProcessFields + row + 1.
inline constexpr long kProcessIdBase = 65536;
inline constexpr long kProcessFields = 18;
/// The process rows in wire order (the id layout depends on it).
struct ProcessRow {
    const char* name;
    const char* units;
    bool is_counter;
};
extern const ProcessRow kProcessRows[kProcessFields - 1];

struct Reading {
    std::shared_ptr<const Metric> metric;
    bool numeric = false;
    double number = 0;
    std::string text;  // the value exactly as sent
};

struct Sample {
    long packet = 0;
    std::string time;
    int interval = 0;
    std::size_t header_lines = 0;
    std::vector<Reading> readings;
};

/// Works out class, instance and counter of a header line.
Metric metric_from_header(const HeaderLine& h);
/// Decodes a process counter id that has no header line; false when it is not one.
bool metric_from_process_id(long id, Metric& out);

/// The definitions of one data connection and the decoding of its packets.
class Session {
  public:
    /// Applies the packet's header lines and decodes its data lines. On failure the
    /// session is unchanged and `err` says what was wrong.
    bool accept(const Packet& packet, Sample& out, std::string& err);
    /// Forgets every definition; used when a new data connection starts.
    void reset() { metrics_.clear(); }
    std::size_t size() const { return metrics_.size(); }
    std::shared_ptr<const Metric> find(long id) const;
    const std::map<long, std::shared_ptr<const Metric>>& metrics() const { return metrics_; }

  private:
    std::map<long, std::shared_ptr<const Metric>> metrics_;
};

}  // namespace vornmon
