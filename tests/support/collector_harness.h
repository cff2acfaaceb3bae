// Runs class collectors the way the snapshot pass does, on fixture trees and a hand-driven
// clock, and reads back the lines they produced.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "alerts/rtal_tree.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"
#include "platform/clock.h"
#include "support/fixture_roots.h"

namespace vorntest {

inline double fake_now = 0;
inline double fake_clock() {
    return fake_now;
}

/// Every header and data line the collectors wrote, counted as the packet counts them.
struct Lines {
    std::vector<std::string> headers;  // one entry each
    std::vector<std::string> data;     // one entry per class instance

    std::string text() const {
        std::string out;
        for (const auto& h : headers) out += h;
        for (const auto& d : data) out += "[" + d + "]\n";
        return out;
    }
};

inline Lines take_lines() {
    Lines lines;
    for (int i = 0; i < n_rtdc_data_headers; ++i)
        lines.headers.emplace_back(rtdc_data_headers[i] ? rtdc_data_headers[i] : "");
    for (int i = 0; i < n_rtdc_data_buffers; ++i)
        lines.data.emplace_back(rtdc_data_buffers[i] ? rtdc_data_buffers[i] : "");
    rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
    rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
    return lines;
}

/// Counter path ("Disk~^1~^->vda->Total Operations") to its id, from header lines.
inline std::map<std::string, int> ids_by_path(const std::vector<std::string>& headers) {
    std::map<std::string, int> ids;
    for (const std::string& h : headers) {
        size_t sep = h.find("::");
        if (sep == std::string::npos) continue;
        ids[h.substr(0, sep)] = atoi(h.c_str() + sep + 2);
    }
    return ids;
}

/// Counter path to its value text in the data lines.
inline std::map<std::string, std::string> values_by_path(const std::vector<std::string>& headers,
                                                         const std::vector<std::string>& data) {
    std::map<int, std::string> by_id;
    for (const std::string& d : data) {
        std::istringstream in(d);
        for (std::string line; std::getline(in, line);) {
            size_t eq = line.find('=');
            if (eq != std::string::npos) by_id[atoi(line.c_str())] = line.substr(eq + 1);
        }
    }
    std::map<std::string, std::string> out;
    for (const auto& [path, id] : ids_by_path(headers))
        if (by_id.count(id)) out[path] = by_id[id];
    return out;
}

inline std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

/// Compares `actual` with a golden file under tests/fixtures/linux/golden/; with
/// VORN_UPDATE_GOLDEN=1 in the environment the file is rewritten instead.
inline void expect_golden(const std::string& name, const std::string& actual) {
    std::string path = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/golden/" + name;
    if (const char* update = getenv("VORN_UPDATE_GOLDEN"); update && *update == '1') {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << actual;
        return;
    }
    EXPECT_EQ(read_text(path), actual)
        << "golden file " << name << " (VORN_UPDATE_GOLDEN=1 rewrites it)";
}

/// Clean agent state around each collector test: empty line arrays, ids from 1, a metric
/// tree with only its root, the clock under the test's control, real roots afterwards.
class CollectorTest : public RootsTest {
  protected:
    void SetUp() override {
        rtal_create_root("testhost");
        clear_tree();
        take_lines();
        Offset = 0;
        start_rtdc = 1;
        counter_added = 0;
        fake_now = 0;
        platform::set_clock_for_tests(fake_clock);
    }
    void TearDown() override {
        take_lines();
        clear_tree();
        platform::set_clock_for_tests(nullptr);
        start_rtdc = 0;
        counter_added = 0;
        RootsTest::TearDown();
    }
    static void clear_tree() {
        while (Metric_Tree && Metric_Tree->child) RemoveNode(Metric_Tree->child);
    }
    /// One class call as the snapshot pass makes it.
    static int run(ClassCollector collector, int header_flag, int verbose = 0) {
        return collector(rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                         &n_rtdc_data_buffers, header_flag, verbose);
    }
    static treeNode* find(const std::string& path) {
        treeNode* node = nullptr;
        SearchDescription1(path.c_str(), Metric_Tree, &node, 0);
        return node;
    }
};

}  // namespace vorntest
