// Runs class collectors the way the snapshot pass does, on fixture trees and a hand-driven
// clock, and reads back the lines they produced.
#pragma once

#include <iterator>
#include <map>
#include <sstream>
#include <vector>

#include "packet/rtdc_state.h"
#include "alerts/rtal_tree.h"
#include "collectors/rtdc_disk.h"
#include "collectors/rtdc_fsstat.h"
#include "collectors/rtdc_metric.h"
#include "collectors/rtdc_net.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"
#include "platform/clock.h"
#include "support/fixture_roots.h"

namespace vorntest {

inline double fake_now = 0;

/// The lines the collectors wrote; one data entry per class instance.
struct Lines {
    std::vector<std::string> headers, data;
    std::string text(const std::string& label = "") const {
        std::string out = label.empty() ? "" : "# " + label + "\n";
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

/// Compares `actual` with the file tests/fixtures/linux/golden/<name>.
inline void expect_golden(const std::string& name, const std::string& actual) {
    std::string path = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/golden/" + name;
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), actual) << "golden " << name;
}

/// Clean agent state around each test: no lines, ids from 1, a metric tree with only its
/// root, fresh class records, the clock under the test's control.
class CollectorTest : public RootsTest {
  protected:
    void SetUp() override {
        rtal_create_root("testhost");
        reset();
        start_rtdc = 1;
        platform::set_clock_for_tests([] { return fake_now; });
    }
    void TearDown() override {
        reset();
        platform::set_clock_for_tests(nullptr);
        RootsTest::TearDown();
    }
    static void reset() {
        take_lines();
        // The tree goes first: it points into the class records.
        while (Metric_Tree && Metric_Tree->child) RemoveNode(Metric_Tree->child);
        rtdc_disk_reset_for_tests();
        rtdc_fs_reset_for_tests();
        rtdc_metric_reset_for_tests();
        rtdc_net_reset_for_tests();
        platform::set_fs_usage_for_tests(nullptr);
        Offset = start_rtdc = counter_added = 0;
        fake_now = 0;
    }
    /// One class call as the snapshot pass makes it, on fixture `name` if one is given.
    static int run(ClassCollector collector, int header_flag, int verbose = 0,
                   const char* name = nullptr) {
        if (name) use_fixture(name);
        return collector(rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                         &n_rtdc_data_buffers, header_flag, verbose);
    }
    /// A call that must succeed; a header pass's lines name the values of later ones.
    Lines pass(ClassCollector collector, int header_flag, int verbose = 0,
               const char* name = nullptr) {
        EXPECT_EQ(run(collector, header_flag, verbose, name), 1);
        Lines lines = take_lines();
        if (header_flag) headers = lines.headers;
        return lines;
    }
    /// Counter path ("Disk~^1~^->vda->Total Operations") to its value text in `lines`.
    std::map<std::string, std::string> values(const Lines& lines) const {
        std::map<int, std::string> by_id;
        for (const std::string& d : lines.data) {
            std::istringstream in(d);
            for (std::string line; std::getline(in, line);)
                by_id[atoi(line.c_str())] = line.substr(line.find('=') + 1);
        }
        std::map<std::string, std::string> out;
        for (const std::string& h : headers)
            if (size_t sep = h.find("::"); sep != std::string::npos)
                if (auto id = by_id.find(atoi(&h[sep + 2])); id != by_id.end())
                    out[h.substr(0, sep)] = id->second;
        return out;
    }
    static treeNode* find(const std::string& path) {
        treeNode* node = nullptr;
        return SearchDescription1(path.c_str(), Metric_Tree, &node, 0), node;
    }
    /// The record a tree leaf reads; null unless the leaf is there with one instance.
    static void* leaf_base(const std::string& path) {
        treeNode* leaf = find(path);
        if (!leaf || GetListCount(leaf->data->instances) != 1) return nullptr;
        MetricInstance* instance = nullptr;
        GetFirstItem(leaf->data->instances, reinterpret_cast<void**>(&instance));
        return instance->base;
    }
    std::vector<std::string> headers;
};

}  // namespace vorntest
