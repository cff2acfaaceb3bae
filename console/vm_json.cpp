#include "console/vm_json.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vornmon {
namespace {

// Length of the valid UTF-8 sequence at `s`, or 0.
std::size_t utf8_length(std::string_view s) {
    unsigned char c = static_cast<unsigned char>(s[0]);
    std::size_t n = c < 0x80           ? 1
                    : (c >> 5) == 0x6  ? 2
                    : (c >> 4) == 0xe  ? 3
                    : (c >> 3) == 0x1e ? 4
                                       : 0;
    if (n == 0 || n > s.size()) return 0;
    for (std::size_t i = 1; i < n; ++i)
        if ((static_cast<unsigned char>(s[i]) >> 6) != 0x2) return 0;
    if (n == 2 && c < 0xc2) return 0;  // overlong
    return n;
}

void append_metric(std::string& out, bool& first, const Metric& m, std::string_view value,
                   bool numeric, double number) {
    out += first ? "" : ",";
    first = false;
    out += "{\"id\":" + std::to_string(m.id);
    out += ",\"path\":" + json_quote(m.path);
    out += ",\"class\":" + json_quote(m.klass);
    if (!m.instance.empty()) out += ",\"instance\":" + json_quote(m.instance);
    out += ",\"metric\":" + json_quote(m.counter);
    out += ",\"units\":" + json_quote(m.units);
    if (m.is_process) {
        out += ",\"pid\":" + std::to_string(m.pid);
        out +=
            ",\"name\":" + (m.process_name.empty() && !m.from_header ? std::string("null")
                                                                     : json_quote(m.process_name));
    }
    if (m.is_counter) {
        out += ",\"value\":" + (numeric ? json_number(number) : std::string("null"));
    } else {
        // Attributes are texts on the wire (user names, sizes, ids); kept as strings so a
        // path always has one JSON type.
        out += ",\"attribute\":true,\"value\":" + json_quote(value);
    }
    out += "}";
}

}  // namespace

std::string json_quote(std::string_view text) {
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x20 || c == 0x7f) {
            char esc[8];
            const char* named = c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\r' ? "\\r" : nullptr;
            if (!named) std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += named ? named : esc;
            ++i;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
        } else {
            std::size_t n = utf8_length(text.substr(i));
            if (n == 0) {
                out += "\\ufffd";
                ++i;
            } else {
                out += text.substr(i, n);
                i += n;
            }
        }
    }
    out += '"';
    return out;
}

std::string shortest_number(double value) {
    char buf[64];
    // Whole numbers print without an exponent (90, not 9e+01): the agent's figures are
    // counts and sizes far below where that loses precision. Otherwise the shortest text
    // that reads back the same: 12.5, not 12.500000000000000.
    bool whole = value == std::floor(value) && std::fabs(value) < 1e15;
    auto result = whole ? std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed)
                        : std::to_chars(buf, buf + sizeof buf, value);
    return std::string(buf, result.ptr);
}

std::string json_number(double value) {
    if (!std::isfinite(value)) return "null";
    return shortest_number(value);
}

std::string sample_json(const Sample& sample, const Packet& packet, const Session& session) {
    std::string out = "{\"packet\":" + std::to_string(sample.packet);
    out += ",\"time\":" + json_quote(sample.time);
    out += ",\"interval\":" + std::to_string(sample.interval);
    out += ",\"header_lines\":" + std::to_string(sample.header_lines);
    out += ",\"metrics\":[";
    bool first = true;
    for (const HeaderLine& h : packet.headers) {
        if (!h.value) continue;
        auto m = session.find(h.id);
        if (m) append_metric(out, first, *m, *h.value, false, 0);
    }
    for (const Reading& r : sample.readings)
        append_metric(out, first, *r.metric, r.text, r.numeric, r.number);
    out += "]}";
    return out;
}

std::string leaf_json(const Leaf& leaf) {
    return "{\"path\":" + json_quote(leaf.path) + ",\"description\":" + json_quote(leaf.text) +
           ",\"attr\":" + std::to_string(leaf.attr) + ",\"units\":" + json_quote(leaf.unit) +
           ",\"alertable\":" + (leaf.alertable ? "true" : "false") + "}";
}

std::string alert_json(const Alert& a) {
    return "{\"name\":" + json_quote(a.name) + ",\"path\":" + json_quote(a.path) +
           ",\"condition\":" + json_quote(a.condition) + ",\"limit\":" + json_number(a.limit) +
           ",\"average\":" + json_number(a.ave) + ",\"min\":" + json_number(a.min) +
           ",\"max\":" + json_number(a.max) + ",\"raised\":" + json_quote(a.raised) +
           ",\"description\":" + json_quote(a.description) + "}";
}

}  // namespace vornmon
