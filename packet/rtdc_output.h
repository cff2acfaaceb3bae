// The collectors' output seam as the agent runs it: header and data lines into the line
// arrays of the pass while a console is served, counters into the metric tree until the
// first header pass has registered them.
#pragma once

#include "collectors/rtdc_output.h"
#include "packet/rtdc_process_headers.h"

class PacketOutput final : public ClassOutput {
  public:
    /// Process header lines go to the header pass's own list (see rtdc_process_headers.h);
    /// every other line to the arrays given.
    PacketOutput(char** headers, int* nheaders, char** buffers, int* nbuffers,
                 ProcessHeaderLines& process_headers = rtdc_pass_process_headers())
        : headers_(headers),
          nheaders_(nheaders),
          buffers_(buffers),
          nbuffers_(nbuffers),
          process_headers_(process_headers) {}

    void announce(const char* class_name, CounterDef* table, void* record, HeaderLines lines,
                  TreeCounters tree) override;
    void report(const void* record, const CounterDef* table) override;
    void report_or_register(const char* class_name, CounterDef* table, void* record) override;
    bool withdraw(const char* class_name, const char* instance) override;
    bool announce_process(const char* name, long pid, CounterDef* table,
                          const void* record) override;
    bool register_process(const char* name, long pid, const CounterDef* table,
                          void* record) override;
    void report_process(long pid, CounterDef* table, const void* record) override;
    void withdraw_process(const char* name, long pid) override;

  private:
    char** headers_;
    int* nheaders_;
    char** buffers_;
    int* nbuffers_;
    ProcessHeaderLines& process_headers_;
};
