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
        std::string registers_as;  // the class name of a report_or_register, else empty
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
    bool withdraw(const char* class_name, const char* instance) override {
        withdrawn.push_back(std::string(class_name) + "->" + instance);
        return true;
    }

    std::vector<Announcement> announced;
    std::vector<Report> reported;
    std::vector<std::string> withdrawn;
};

}  // namespace vorntest
