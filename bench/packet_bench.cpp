// Packet path cost: formatting the header and data lines of a 10,000-instance scan and
// framing them into one packet, compared with a baseline that only concatenates the same
// final bytes. Both run alternately in the same iterations; the "ratio" counter is the
// best time of the packet path over the best time of the baseline.
//
// Two shapes of scan: every instance with its own copy of the table (disks, file systems,
// processors: 10,000 copies of 7 rows of 416 bytes, about 30 MB of rows that the baseline
// never reads), and every instance sharing one table whose ids are renewed per instance
// (the process class's way), which measures formatting and framing alone.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "collectors/rtdc_tables.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_packet.h"

namespace {

constexpr int kInstances = 10000;

struct Scan {
    std::vector<MachineRecord> records;
    std::vector<CounterDef*> tables;
    bool shared;

    explicit Scan(bool shared_table)
        : records(kInstances), tables(kInstances), shared(shared_table) {
        for (int i = 0; i < kInstances; ++i) {
            char instance[24];
            snprintf(instance, sizeof instance, " %d", i);
            tables[i] = shared && i > 0
                            ? tables[0]
                            : rtdc_instance_table(MachineCounters, MAC_FIELDS(), instance);
            MachineRecord& r = records[i];
            r.cpu_id = i;
            r.idle = (i * 37 % 10000) / 100.0;
            r.user = (i * 11 % 5000) / 100.0 + 0.005;
            r.system = (i * 7 % 3000) / 100.0;
            r.wait = (i % 97) / 3.0;
            r.total = std::min(100.0, r.user + r.system);
        }
    }
    ~Scan() {
        for (size_t i = 0; i < (shared ? 1 : tables.size()); ++i) free(tables[i]);
    }
};

// The header and data lines of every instance, with ids and packet number from the start.
void format_lines(Scan& scan) {
    Offset = 0;
    PacketNumber = 1;
    for (int i = 0; i < kInstances; ++i) {
        rtdc_buffer_headers(rtdc_data_headers, &n_rtdc_data_headers, &scan.records[i],
                            scan.tables[i], "Cpu");
        rtdc_buffer_data(rtdc_data_buffers, &n_rtdc_data_buffers, &scan.records[i], scan.tables[i]);
    }
}

void free_lines() {
    rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
    rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
}

// The packet path as a tick runs it: lines of every instance, one packet, lines freed.
size_t packet_path(Scan& scan) {
    format_lines(scan);
    const int hint = n_rtdc_header_len + n_rtdc_data_len;
    char* packet = rtdc_packet_buffer(hint);  // the buffer the snapshot pass uses
    rtdc_packetize_data(rtdc_data_headers, n_rtdc_data_headers, rtdc_data_buffers,
                        n_rtdc_data_buffers, packet, hint);
    size_t len = strlen(packet);
    benchmark::DoNotOptimize(packet);
    free_lines();
    return len;
}

// The same final bytes, cut at the same places, only concatenated.
struct Pieces {
    std::vector<std::string> parts;
    size_t total = 0;

    explicit Pieces(Scan& scan) {
        format_lines(scan);
        const int hint = n_rtdc_header_len + n_rtdc_data_len;
        std::vector<char> packet(static_cast<size_t>(hint) + 8192);
        rtdc_packetize_data(rtdc_data_headers, n_rtdc_data_headers, rtdc_data_buffers,
                            n_rtdc_data_buffers, packet.data(), hint);
        const std::string whole = packet.data();
        // Everything before the first line, each line, everything after the last line.
        size_t first = whole.find(rtdc_data_headers[0]);
        parts.push_back(whole.substr(0, first));
        size_t at = first;
        for (int i = 0; i < n_rtdc_data_headers; ++i) {
            parts.emplace_back(rtdc_data_headers[i]);
            at += parts.back().size();
        }
        size_t data_start = whole.find("<DATA>\n", at) + 7;
        parts.push_back(whole.substr(at, data_start - at));
        at = data_start;
        for (int i = 0; i < n_rtdc_data_buffers; ++i) {
            parts.emplace_back(rtdc_data_buffers[i]);
            at += parts.back().size();
        }
        parts.push_back(whole.substr(at));
        for (const auto& p : parts) total += p.size();
        if (total != whole.size()) fprintf(stderr, "packet_bench: pieces do not add up\n");
        free_lines();
    }
};

// Like the packet buffer, the baseline's output keeps its capacity between runs.
size_t baseline(const Pieces& pieces, std::string& out) {
    out.clear();
    out.reserve(pieces.total + 1);
    for (const auto& p : pieces.parts) out.append(p);
    benchmark::DoNotOptimize(out.data());
    return out.size();
}

void BM_PacketPath(benchmark::State& state) {
    Scan scan(state.range(0) == 1);
    Pieces pieces(scan);
    using clock = std::chrono::steady_clock;
    double best_packet = 1e30, best_base = 1e30, sum_packet = 0, sum_base = 0;
    size_t bytes = 0;
    std::string out;
    for (auto _ : state) {
        auto t0 = clock::now();
        bytes = packet_path(scan);
        auto t1 = clock::now();
        size_t base_bytes = baseline(pieces, out);
        auto t2 = clock::now();
        if (base_bytes != bytes) state.SkipWithError("baseline and packet differ in size");
        double p = std::chrono::duration<double>(t1 - t0).count();
        double b = std::chrono::duration<double>(t2 - t1).count();
        best_packet = std::min(best_packet, p);
        best_base = std::min(best_base, b);
        sum_packet += p;
        sum_base += b;
        state.SetIterationTime(p);
    }
    state.counters["ratio"] = best_packet / best_base;
    state.counters["mean_ratio"] = sum_packet / sum_base;
    state.counters["packet_ms"] = best_packet * 1e3;
    state.counters["baseline_ms"] = best_base * 1e3;
    state.counters["packet_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_PacketPath)
    ->ArgName("shared_table")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
