#include "packet/rtdc_process_headers.h"

#include <charconv>
#include <string_view>

#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"

template <class Each>
void ProcessHeaderLines::format(const Announced& process, Each&& each) {
    // Process ids derive from the pid, so one shared table serves every process.
    rtdc_ProcessFillIds(process.table, process.pid);
    char pid_text[24];
    auto r = std::to_chars(pid_text, pid_text + sizeof pid_text, process.pid);
    const std::string_view pid(pid_text, static_cast<size_t>(r.ptr - pid_text));
    const std::string_view name = process.name ? process.name : "";
    char line[kProcessHeaderLine];
    for (const CounterDef* row = process.table; row->id != 0; ++row)
        each(std::string_view(line,
                              rtdc_process_header_line(line, *row, process.record, name, pid)));
}

bool ProcessHeaderLines::add(long pid, const char* name, CounterDef* table, const void* record,
                             int room) {
    int rows = 0;
    while (table[rows].id != 0) ++rows;
    if (entries_ + rows > room) return false;
    const Announced process{pid, name, table, record};
    // Measured now, as the packet's length is written before its lines.
    format(process, [this](std::string_view line) { length_ += line.size(); });
    processes_.push_back(process);
    entries_ += rows;
    return true;
}

void ProcessHeaderLines::write(PacketSink& sink) const {
    for (const Announced& process : processes_)
        format(process, [&sink](std::string_view line) { sink.put(line); });
}

void ProcessHeaderLines::clear() {
    std::vector<Announced>().swap(processes_);
    entries_ = 0;
    length_ = 0;
}

ProcessHeaderLines& rtdc_pass_process_headers() {
    static ProcessHeaderLines lines;
    return lines;
}
