// Kept-open kernel text files and the small hand parsers the Linux readers share.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform::procfs {

/// A system-wide /proc file that is opened once and re-read from offset 0 at every scan
/// into a buffer that grows to fit it. The kernel regenerates the text on each read from
/// offset 0, so one descriptor serves the whole run; it is reopened when the roots change
/// (tests switching fixture trees) or when a read fails.
class ProcFile {
  public:
    /// `relative` is below the proc root, e.g. "diskstats" or "net/snmp".
    explicit ProcFile(std::string relative) : relative_(std::move(relative)) {}
    ~ProcFile();
    ProcFile(const ProcFile&) = delete;
    ProcFile& operator=(const ProcFile&) = delete;

    /// Reads the whole file. True with `text` viewing the kept buffer (valid until the next
    /// read); false with errno-style code in error() and the full path in path().
    bool read(std::string_view& text);
    int error() const { return error_; }
    const std::string& path() const { return path_; }

  private:
    bool open_current();
    void close_fd();

    std::string relative_;
    std::string path_;
    int fd_ = -1;
    unsigned generation_ = 0;
    int error_ = 0;
    std::vector<char> buffer_;
};

/// Largest file we agree to buffer; anything bigger is not a counter file.
inline constexpr size_t kMaxProcFile = 64u << 20;

/// Next line without its '\n'; consumes it from `text`.
inline std::string_view next_line(std::string_view& text) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/// Next blank-separated token of a line; empty at the end.
inline std::string_view next_token(std::string_view& line) {
    size_t i = 0;
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    size_t j = i;
    while (j < line.size() && line[j] != ' ' && line[j] != '\t') ++j;
    std::string_view token = line.substr(i, j - i);
    line.remove_prefix(j);
    return token;
}

/// Unsigned decimal; false on anything but 1-20 digits or on overflow.
inline bool parse_u64(std::string_view token, uint64_t& value) {
    if (token.empty() || token.size() > 20) return false;
    uint64_t v = 0;
    for (char c : token) {
        if (c < '0' || c > '9') return false;
        uint64_t digit = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - digit) / 10) return false;
        v = v * 10 + digit;
    }
    value = v;
    return true;
}

/// Signed decimal (some protocol fields such as Tcp MaxConn print -1).
inline bool parse_i64(std::string_view token, int64_t& value) {
    bool negative = !token.empty() && token[0] == '-';
    if (negative) token.remove_prefix(1);
    uint64_t magnitude;
    if (!parse_u64(token, magnitude) || magnitude > static_cast<uint64_t>(INT64_MAX)) return false;
    value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
    return true;
}

/// Copies `text` into a fixed-width field, cut to fit and always NUL-terminated.
inline void copy_field(char* field, size_t width, std::string_view text) {
    if (width == 0) return;
    size_t n = text.size() < width - 1 ? text.size() : width - 1;
    text.copy(field, n);
    field[n] = '\0';
}

/// A name that a local user, an administrator or the kernel chose (a process, an account,
/// a mount point, a disk) as it may stand in a packet or a log line: every control
/// character becomes '?'. Anyone can rename a process, and a newline in a name would end
/// the line it stands in and start one of the name's own.
inline char printable_name_char(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f ? '?' : c;
}

/// copy_field for names: cut to fit, always NUL-terminated, control characters replaced.
inline void copy_name(char* field, size_t width, std::string_view text) {
    copy_field(field, width, text);
    for (char* p = field; *p; ++p) *p = printable_name_char(*p);
}

/// The same for names kept as strings.
inline std::string clean_name(std::string_view text) {
    std::string name(text);
    for (char& c : name) c = printable_name_char(c);
    return name;
}

}  // namespace platform::procfs
