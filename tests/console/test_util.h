// Helpers shared by the console tests: fixture files and hand-made packets.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vornmon_test {

inline std::string fixture_path(const std::string& name) {
    return std::string(VORN_SOURCE_DIR) + "/tests/fixtures/packets/" + name;
}

inline std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

inline std::string fixture(const std::string& name) {
    return read_file(fixture_path(name));
}

/// A packet body in the agent's layout; empty sections in the agent's " </TAG>" form.
inline std::string packet_body(long number, const std::vector<std::string>& headers,
                               const std::string& data, int interval = 2,
                               const std::string& time = "UTC 10:15:02 22-Nov-2025") {
    std::string b = "<START>\n<PACKET>\n" + std::to_string(number) + "\n</PACKET>\n<TIME>\n" +
                    time + "\n</TIME>\n<INTERVAL>\n" + std::to_string(interval) +
                    "\n</INTERVAL>\n<HEADER>\n";
    for (const std::string& h : headers) b += h + "\n";
    b += headers.empty() ? " </HEADER>\n" : "</HEADER>\n";
    b += "<DATA>\n" + data + (data.empty() ? " </DATA>\n" : "</DATA>\n");
    b += "</START>\n";
    return b;
}

inline std::string frame(const std::string& body) {
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, " \nBUFFERSIZE=%06zu\n", body.size());
    return prefix + body;
}

}  // namespace vornmon_test
