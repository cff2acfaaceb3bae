#include "console/vm_wire.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vornmon {
namespace {

constexpr std::string_view kMarkedSep = "~^1~^->";
constexpr std::string_view kPlainSep = "->";
constexpr std::string_view kPrefixWord = "BUFFERSIZE=";
constexpr std::size_t kMaxPrefixDigits = 10;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view trim_left(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    return s;
}

bool only_blanks(std::string_view s) {
    return trim_left(s).empty();
}

// Splits "name  (pid)->counter"; the pid group is searched from the right because a
// process may call itself anything, "  (" included, while counter names are fixed.
bool split_process_name(std::string_view name, HeaderLine& out) {
    std::size_t pos = name.size();
    while (pos > 0) {
        pos = name.rfind("  (", pos - 1);
        if (pos == std::string_view::npos) return false;
        std::size_t digits = pos + 3;
        std::size_t end = digits;
        while (end < name.size() && is_digit(name[end])) ++end;
        if (end > digits && name.substr(end, 3) == ")->" && end + 3 < name.size()) {
            long pid = 0;
            if (!parse_long(name.substr(digits, end - digits), pid)) return false;
            out.is_process = true;
            out.process_name = std::string(name.substr(0, pos));
            out.pid = pid;
            out.counter = std::string(name.substr(end + 3));
            return true;
        }
        if (pos == 0) return false;
    }
    return false;
}

// The path before the id: "<prefix><separator><name>", processes "<name>  (<pid>)-><counter>".
bool split_path(std::string_view path, std::string_view line, HeaderLine& out, std::string& err) {
    std::size_t sep = path.find(kMarkedSep);
    std::size_t plain = path.find(kPlainSep);
    if (sep != std::string_view::npos && (plain == std::string_view::npos || sep < plain)) {
        out.marked = true;
        out.prefix = std::string(path.substr(0, sep));
        out.name = std::string(path.substr(sep + kMarkedSep.size()));
    } else if (plain != std::string_view::npos) {
        out.prefix = std::string(path.substr(0, plain));
        out.name = std::string(path.substr(plain + kPlainSep.size()));
    } else {
        err = "header line without a class separator " + quote_for_error(line);
        return false;
    }
    if (out.prefix.empty() || out.name.empty()) {
        err = "header line with an empty class or counter name " + quote_for_error(line);
        return false;
    }
    if (out.marked != (out.marker != 0)) {
        err = "separator does not match marker " + std::to_string(out.marker) + " in header line " +
              quote_for_error(line);
        return false;
    }
    if (out.prefix == "Process") {
        if (!split_process_name(out.name, out)) {
            err = "process header line without '  (<pid>)->' " + quote_for_error(line);
            return false;
        }
    } else {
        out.counter = out.name;
    }
    return true;
}

}  // namespace

bool parse_long(std::string_view text, long& out) {
    if (text.empty() || text.size() > 20) return false;
    std::size_t i = text[0] == '-' ? 1 : 0;
    if (i == text.size()) return false;
    for (std::size_t k = i; k < text.size(); ++k)
        if (!is_digit(text[k])) return false;
    std::string copy(text);
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(copy.c_str(), &end, 10);
    if (errno == ERANGE || end != copy.c_str() + copy.size()) return false;
    out = v;
    return true;
}

bool parse_number(std::string_view text, double& out) {
    if (text == "nan" || text == "-nan") {
        out = std::nan("");
        return true;
    }
    if (text == "inf" || text == "-inf") {
        out = text[0] == '-' ? -INFINITY : INFINITY;
        return true;
    }
    if (text.empty() || text.size() > 64) return false;
    std::size_t i = text[0] == '-' ? 1 : 0;
    std::size_t digits = 0, dots = 0;
    for (std::size_t k = i; k < text.size(); ++k) {
        if (is_digit(text[k])) {
            ++digits;
        } else if (text[k] == '.') {
            if (++dots > 1) return false;
        } else {
            return false;
        }
    }
    if (digits == 0) return false;
    std::string copy(text);
    out = std::strtod(copy.c_str(), nullptr);
    return true;
}

std::string quote_for_error(std::string_view text, std::size_t limit) {
    std::string out = "'";
    for (std::size_t i = 0; i < text.size() && i < limit; ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c < 0x20 || c == 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    if (text.size() > limit) out += "...";
    out += "'";
    return out;
}

bool parse_header_line(std::string_view line, HeaderLine& out, std::string& err) {
    out = HeaderLine{};
    if (!line.empty() && line.back() == '\r') {
        err = "carriage return at the end of header line " + quote_for_error(line);
        return false;
    }
    // The id is the first "::<integer>::" group; names before it may hold single colons.
    std::size_t id_start = std::string_view::npos, id_end = 0;
    for (std::size_t p = line.find("::"); p != std::string_view::npos; p = line.find("::", p + 1)) {
        std::size_t q = line.find("::", p + 2);
        if (q == std::string_view::npos) break;
        long id = 0;
        if (parse_long(line.substr(p + 2, q - p - 2), id)) {
            id_start = p;
            id_end = q;
            out.id = id;
            break;
        }
    }
    if (id_start == std::string_view::npos) {
        err = "header line without '::<id>::' " + quote_for_error(line);
        return false;
    }
    std::string_view path = line.substr(0, id_start);
    std::string_view rest = line.substr(id_end + 2);

    // Description runs to the "::" that starts "<marker>,".
    std::size_t tail = std::string_view::npos;
    for (std::size_t p = rest.find("::"); p != std::string_view::npos; p = rest.find("::", p + 1)) {
        std::size_t k = p + 2;
        if (k < rest.size() && rest[k] == '-') ++k;
        std::size_t d = k;
        while (k < rest.size() && is_digit(rest[k])) ++k;
        if (k > d && k < rest.size() && rest[k] == ',') {
            tail = p;
            break;
        }
    }
    if (tail == std::string_view::npos) {
        err = "header line without '::<marker>,<units>,<is_counter>' " + quote_for_error(line);
        return false;
    }
    out.description = std::string(rest.substr(0, tail));
    std::string_view fields = rest.substr(tail + 2);

    std::size_t c1 = fields.find(',');
    std::size_t c2 = c1 == std::string_view::npos ? c1 : fields.find(',', c1 + 1);
    if (c2 == std::string_view::npos) {
        err = "header line without units and is_counter fields " + quote_for_error(line);
        return false;
    }
    long marker = 0;
    if (!parse_long(fields.substr(0, c1), marker)) {
        err = "bad marker in header line " + quote_for_error(line);
        return false;
    }
    out.marker = static_cast<int>(marker);
    out.units = std::string(fields.substr(c1 + 1, c2 - c1 - 1));
    std::size_t c3 = fields.find(',', c2 + 1);
    std::string_view flag =
        fields.substr(c2 + 1, c3 == std::string_view::npos ? std::string_view::npos : c3 - c2 - 1);
    if (flag != "0" && flag != "1") {
        err = "is_counter must be 0 or 1 in header line " + quote_for_error(line);
        return false;
    }
    out.is_counter = flag[0] - '0';
    if (c3 != std::string_view::npos) out.value = std::string(fields.substr(c3 + 1));
    if (out.is_counter == 1 && out.value) {
        err = "counter header line carries a value " + quote_for_error(line);
        return false;
    }
    if (out.is_counter == 0 && !out.value) {
        err = "attribute header line without its value " + quote_for_error(line);
        return false;
    }

    return split_path(path, line, out, err);
}

bool parse_data_line(std::string_view line, DataLine& out, std::string& err) {
    std::size_t eq = line.find('=');
    if (eq == std::string_view::npos || !parse_long(line.substr(0, eq), out.id)) {
        err = "data line is not '<id>=<value>': " + quote_for_error(line);
        return false;
    }
    if (!line.empty() && line.back() == '\r') {
        err = "carriage return at the end of data line " + quote_for_error(line);
        return false;
    }
    out.value = std::string(line.substr(eq + 1));
    return true;
}

namespace {

// The header section after "<HEADER>": an empty one is sent as " </HEADER>", so closing
// tags may carry leading blanks.
bool read_header_section(const std::vector<std::string_view>& lines, std::size_t& at, Packet& out,
                         std::string& err) {
    for (;;) {
        if (at >= lines.size()) {
            err = "missing </HEADER>";
            return false;
        }
        std::string_view line = lines[at++];
        if (trim_left(line) == "</HEADER>") return true;
        if (only_blanks(line)) continue;
        if (line == "<DATA>" || line == "</START>") {
            err = "missing </HEADER> before " + std::string(line);
            return false;
        }
        HeaderLine h;
        if (!parse_header_line(line, h, err)) return false;
        out.headers.push_back(std::move(h));
    }
}

bool read_data_section(const std::vector<std::string_view>& lines, std::size_t& at, Packet& out,
                       std::string& err) {
    for (;;) {
        if (at >= lines.size()) {
            err = "missing </DATA>";
            return false;
        }
        std::string_view line = lines[at++];
        if (trim_left(line) == "</DATA>") return true;
        if (only_blanks(line)) continue;
        if (line == "</START>") {
            err = "missing </DATA> before </START>";
            return false;
        }
        DataLine d;
        if (!parse_data_line(line, d, err)) return false;
        out.data.push_back(std::move(d));
    }
}

}  // namespace

bool parse_packet_body(std::string_view body, Packet& out, std::string& err) {
    out.number = 0;
    out.time.clear();
    out.interval = 0;
    out.headers.clear();
    out.data.clear();
    if (body.empty() || body.back() != '\n') {
        err = "packet does not end with a line feed";
        return false;
    }
    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start < body.size();) {
        std::size_t nl = body.find('\n', start);
        lines.push_back(body.substr(start, nl - start));
        start = nl + 1;
    }
    std::size_t at = 0;
    auto where = [&]() {
        return at < lines.size()
                   ? "line " + std::to_string(at + 1) + " " + quote_for_error(lines[at])
                   : std::string("end of packet");
    };
    auto expect = [&](std::string_view tag) {
        if (at < lines.size() && lines[at] == tag) {
            ++at;
            return true;
        }
        err = "expected " + std::string(tag) + " at " + where();
        return false;
    };
    auto value_line = [&](const char* what, std::string_view& v) {
        if (at >= lines.size()) {
            err = std::string("missing ") + what;
            return false;
        }
        v = lines[at++];
        return true;
    };

    std::string_view v;
    if (!expect("<START>") || !expect("<PACKET>") || !value_line("packet number", v)) return false;
    if (!parse_long(v, out.number) || out.number < 0) {
        err = "bad packet number " + quote_for_error(v);
        return false;
    }
    if (!expect("</PACKET>") || !expect("<TIME>") || !value_line("time", v)) return false;
    if (v.empty() || v.front() == '<') {
        err = "missing time text at line " + std::to_string(at);
        return false;
    }
    out.time = std::string(v);
    if (!expect("</TIME>") || !expect("<INTERVAL>") || !value_line("interval", v)) return false;
    long interval = 0;
    if (!parse_long(v, interval) || interval < -1000000 || interval > 1000000) {
        err = "bad interval " + quote_for_error(v);
        return false;
    }
    out.interval = static_cast<int>(interval);
    if (!expect("</INTERVAL>") || !expect("<HEADER>")) return false;
    if (!read_header_section(lines, at, out, err) || !expect("<DATA>") ||
        !read_data_section(lines, at, out, err))
        return false;
    if (!expect("</START>")) return false;
    if (at != lines.size()) {
        err = "text after </START> at " + where();
        return false;
    }
    return true;
}

Framer::Result Framer::next(std::string& body, std::string& raw, std::string& err) {
    if (!failed_.empty()) {
        err = failed_;
        return Result::kError;
    }
    auto fail = [&](std::string message) {
        failed_ = std::move(message);
        err = failed_;
        return Result::kError;
    };
    std::size_t pos = 0;
    if (buffer_.empty()) return Result::kNeedMore;
    // The agent puts " \n" before the prefix of every packet; a later form leaves it out.
    if (buffer_[0] == ' ') {
        if (buffer_.size() < 2) return Result::kNeedMore;
        if (buffer_[1] != '\n')
            return fail("expected length prefix, got " + quote_for_error(buffer_));
        pos = 2;
    }
    std::string_view rest(buffer_.data() + pos, buffer_.size() - pos);
    std::size_t cmp = std::min(rest.size(), kPrefixWord.size());
    if (rest.substr(0, cmp) != kPrefixWord.substr(0, cmp))
        return fail("expected length prefix 'BUFFERSIZE=', got " + quote_for_error(rest));
    if (rest.size() < kPrefixWord.size()) return Result::kNeedMore;
    std::size_t d = kPrefixWord.size();
    std::size_t e = d;
    while (e < rest.size() && is_digit(rest[e]) && e - d <= kMaxPrefixDigits) ++e;
    if (e - d > kMaxPrefixDigits) return fail("length prefix too long: " + quote_for_error(rest));
    if (e == rest.size()) return Result::kNeedMore;
    if (rest[e] != '\n' || e == d)
        return fail("malformed length prefix " + quote_for_error(rest.substr(0, e + 1)));
    std::string digits(rest.substr(d, e - d));
    unsigned long long size = std::strtoull(digits.c_str(), nullptr, 10);
    if (size > kMaxBody)
        return fail("length prefix " + digits + " is larger than any packet (limit " +
                    std::to_string(kMaxBody) + " bytes)");
    std::size_t body_start = pos + e + 1;
    std::size_t total = body_start + size;
    if (buffer_.size() < total) {
        // A prefix that is too large would only show at the next packet; check early
        // whether a complete packet already ended before the promised length.
        // Resume the search where the last call stopped: a big packet arrives in many reads.
        std::string_view got(buffer_.data() + body_start, buffer_.size() - body_start);
        std::size_t from = scanned_ > 8 ? scanned_ - 8 : 0;
        std::size_t end = got.find("</START>\n", from);
        scanned_ = got.size();
        if (end != std::string_view::npos && got.size() > end + 9 &&
            got.find("BUFFERSIZE=", end) != std::string_view::npos)
            return fail("length prefix " + digits + " does not match the packet: it ends after " +
                        std::to_string(end + 9) + " bytes");
        return Result::kNeedMore;
    }
    std::string_view b(buffer_.data() + body_start, size);
    constexpr std::string_view kEnd = "</START>\n";
    if (b.size() < kEnd.size() || b.substr(b.size() - kEnd.size()) != kEnd) {
        std::size_t end = b.find(kEnd);
        if (end != std::string_view::npos)
            return fail("length prefix " + digits + " does not match the packet: it ends after " +
                        std::to_string(end + kEnd.size()) + " bytes");
        std::string_view after(buffer_.data() + body_start, buffer_.size() - body_start);
        end = after.find(kEnd);
        if (end != std::string_view::npos)
            return fail("length prefix " + digits + " does not match the packet: it ends after " +
                        std::to_string(end + kEnd.size()) + " bytes");
        return fail("length prefix " + digits +
                    " does not match the packet: no </START> at its end");
    }
    body.assign(b);
    raw.assign(buffer_.data(), total);
    buffer_.erase(0, total);
    scanned_ = 0;
    return Result::kPacket;
}

Framer::Result next_packet(Framer& framer, Packet& out, std::string& err) {
    std::string body, raw;
    Framer::Result r = framer.next(body, raw, err);
    if (r != Framer::Result::kPacket) return r;
    bool ok = parse_packet_body(body, out, err);
    out.raw = std::move(raw);  // kept for a refused packet too, so it can be shown
    return ok ? r : Framer::Result::kError;
}

}  // namespace vornmon
