// Helpers shared by the console tests: fixture files, hand-made packets and golden texts.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

#include "console/vm_model.h"

namespace vornmon_test {
using namespace vornmon;

inline const std::string kFixtures = std::string(VORN_SOURCE_DIR) + "/tests/fixtures/packets/";

inline std::string fixture(const std::string& name) {
    std::ostringstream s;
    s << std::ifstream(kFixtures + name, std::ios::binary).rdbuf();
    return s.str();
}

/// Compares `text` with a fixture file; VORN_UPDATE_GOLDEN=1 rewrites the file first.
inline void expect_golden(const std::string& text, const std::string& name) {
    if (const char* u = std::getenv("VORN_UPDATE_GOLDEN"); u && std::string(u) == "1")
        std::ofstream(kFixtures + name, std::ios::binary) << text;
    EXPECT_EQ(text, fixture(name)) << "golden file " << name;
}

/// True when `part` is in `text`; a failure shows both.
inline ::testing::AssertionResult has(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no '" << part << "' in:\n" << text;
}

/// A packet body in the agent's layout; empty sections in the agent's " </TAG>" form.
inline std::string body(long number, const std::vector<std::string>& headers,
                        const std::string& data) {
    std::string b = "<START>\n<PACKET>\n" + std::to_string(number) +
                    "\n</PACKET>\n<TIME>\nUTC 10:15:02 22-Nov-2025\n</TIME>\n<INTERVAL>\n2\n"
                    "</INTERVAL>\n<HEADER>\n";
    for (const std::string& h : headers) b += h + "\n";
    b += headers.empty() ? " </HEADER>\n" : "</HEADER>\n";
    return b + "<DATA>\n" + data + (data.empty() ? " </DATA>\n" : "</DATA>\n") + "</START>\n";
}

inline std::string frame(const std::string& body) {
    std::string size = std::to_string(body.size());
    return " \nBUFFERSIZE=" + std::string(6 - std::min<std::size_t>(size.size(), 6), '0') + size +
           "\n" + body;
}

/// Frames and decodes every packet of `stream` through `s`, calling `each` per packet;
/// false with the first error, or when bytes are left over.
inline bool decode(Session& s, const std::string& stream, Sample& out, std::string& err,
                   const std::function<void(const Packet&)>& each = {}) {
    Framer f;
    f.feed(stream);
    Packet p;
    Framer::Result r;
    while ((r = next_packet(f, p, err)) == Framer::Result::kPacket) {
        if (!s.accept(p, out, err)) return false;
        if (each) each(p);
    }
    return r == Framer::Result::kNeedMore && f.pending() == 0;
}

}  // namespace vornmon_test
