// An output seam that only remembers what a class collector told it, so a collector can be
// tested without a console, line arrays or a metric tree.
#pragma once

#include <string>
#include <vector>

#include "collectors/rtdc_output.h"

namespace vorntest {

class CapturedOutput final : public ClassOutput {
  public:
    struct Announcement {
        std::string class_name;
        CounterDef* table;
        void* record;
        HeaderLines lines;
        TreeCounters tree;
        std::string first_row() const { return table && table[0].id ? table[0].name : ""; }
    };
    struct Report {
        std::string registers_as;  // the class name of a report_or_register, the pid of a
                                   // process's report, else empty
        const void* record;
        const CounterDef* table;
        template <typename Record>
        const Record& as() const {
            return *static_cast<const Record*>(record);
        }
    };

    void announce(const char* class_name, CounterDef* table, void* record, HeaderLines lines,
                  TreeCounters tree) override {
        announced.push_back({class_name, table, record, lines, tree});
    }
    void report(const void* record, const CounterDef* table) override {
        reported.push_back({"", record, table});
    }
    void report_or_register(const char* class_name, CounterDef* table, void* record) override {
        reported.push_back({class_name, record, table});
    }
    bool announce_process(const char* name, long pid, CounterDef*, const void*) override {
        processes_announced.push_back(std::string(name) + " " + std::to_string(pid));
        return true;
    }
    bool register_process(const char* name, long pid, const CounterDef*, void*) override {
        processes_registered.push_back(std::string(name) + " " + std::to_string(pid));
        return true;
    }
    void report_process(long pid, CounterDef* table, const void* record) override {
        reported.push_back({std::to_string(pid), record, table});
    }
    void withdraw_process(const char* name, long pid) override {
        withdrawn.push_back(std::string(name) + " " + std::to_string(pid));
    }
    bool withdraw(const char* class_name, const char* instance) override {
        withdrawn.push_back(std::string(class_name) + "->" + instance);
        return true;
    }

    std::vector<Announcement> announced;
    std::vector<Report> reported;
    std::vector<std::string> withdrawn;  // "<class>-><instance>", or "<name> <pid>"
    std::vector<std::string> processes_announced, processes_registered;  // "<name> <pid>"
};

}  // namespace vorntest
