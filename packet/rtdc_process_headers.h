// The process header lines of a header pass, made when the header packet is written instead
// of being held in the header array: at thousands of processes they are megabytes of text,
// which the pass would otherwise hold whole and then copy again into the packet.
#pragma once

#include <cstddef>
#include <vector>

#include "collectors/rtdc_tables.h"

class PacketSink;

class ProcessHeaderLines {
  public:
    /// Takes a process's lines into the pass: one entry per row of `table`, unless they
    /// would pass `room` entries in all (the process is then left out whole, and false
    /// returned). The table, name and record are read again when the packet is written, so
    /// they must stay as they are until then: the pass holds the snapshot lock throughout.
    bool add(long pid, const char* name, CounterDef* table, const void* record, int room);

    int entries() const { return entries_; }
    /// Bytes of all the lines.
    size_t length() const { return length_; }

    /// Every line, in the order the processes were added.
    void write(PacketSink& sink) const;

    /// Forgets the processes and gives their memory back.
    void clear();

  private:
    struct Announced {
        long pid;
        const char* name;
        CounterDef* table;
        const void* record;
    };
    // Calls `each` with every line of one process, formatted with the ids of its pid.
    template <class Each>
    static void format(const Announced& process, Each&& each);

    std::vector<Announced> processes_;
    int entries_ = 0;
    size_t length_ = 0;
};

/// The process header lines of the header pass in progress.
ProcessHeaderLines& rtdc_pass_process_headers();
