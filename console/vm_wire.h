// The agent's data stream as the console sees it: length-prefixed text packets, each with a
// packet number, a time, the scan interval, a header section that defines counter ids and
// a data section of "id=value" lines. Everything here is strict: a packet that does not
// follow the format is refused with a message that says where it went wrong, so a broken
// agent is noticed instead of being half displayed.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vornmon {

/// One header line: "<prefix><sep><name>::<id>::<description>::<marker>,<units>,<is_counter>
/// [,<value>]" where <sep> is "~^1~^->" (marker set) or "->".
struct HeaderLine {
    std::string prefix;   // class prefix as sent ("Cpu", "Disk", "Process", ...)
    std::string name;     // counter name below the prefix, blanks kept
    bool marked = false;  // the separator was "~^1~^->"
    long id = 0;
    std::string description;
    int marker = 0;
    std::string units;  // kept exactly, blanks included
    int is_counter = 0;
    std::optional<std::string> value;  // attributes (is_counter 0) carry their value

    // Process lines: "Process~^1~^->bash  (123)->% CPU Utilization".
    bool is_process = false;
    std::string process_name;
    long pid = 0;
    std::string counter;  // name below the instance ("% CPU Utilization")
};

/// One data line: "<id>=<value>".
struct DataLine {
    long id = 0;
    std::string value;
};

struct Packet {
    long number = 0;
    std::string time;
    int interval = 0;
    std::vector<HeaderLine> headers;
    std::vector<DataLine> data;
    std::string raw;  // the packet exactly as received, length prefix included
};

bool parse_header_line(std::string_view line, HeaderLine& out, std::string& err);
bool parse_data_line(std::string_view line, DataLine& out, std::string& err);
/// Parses a body (everything after the length prefix). `raw` is left untouched.
bool parse_packet_body(std::string_view body, Packet& out, std::string& err);

/// Strict decimal number as the agent prints them ("%d", "%ld", "%.2lf"), plus the
/// non-finite forms printf gives for doubles. No blanks, no trailing text.
bool parse_number(std::string_view text, double& out);
/// Strict integer (optional '-', digits only).
bool parse_long(std::string_view text, long& out);

/// Splits the byte stream of a data connection into packets. Bytes go in as they arrive;
/// complete packets come out. After an error the framer stays failed.
class Framer {
  public:
    enum class Result { kNeedMore, kPacket, kError };

    /// Largest body accepted; a bigger prefix is taken as garbage, not as a packet.
    static constexpr std::size_t kMaxBody = 64u << 20;

    void feed(const char* data, std::size_t size) { buffer_.append(data, size); }
    void feed(std::string_view data) { buffer_.append(data); }
    /// Takes the next complete packet: its body in `body`, prefix plus body in `raw`.
    Result next(std::string& body, std::string& raw, std::string& err);
    /// Bytes received but not yet part of a complete packet.
    std::size_t pending() const { return buffer_.size(); }
    void reset() {
        buffer_.clear();
        failed_.clear();
        scanned_ = 0;
    }

  private:
    std::string buffer_;
    std::string failed_;
    std::size_t scanned_ = 0;  // body bytes already searched for an early end
};

/// Frames and parses in one step: the common path for every subcommand. A packet that is
/// framed but refused still has its bytes in `out.raw`.
Framer::Result next_packet(Framer& framer, Packet& out, std::string& err);

/// Shortens text for an error message and makes control characters visible.
std::string quote_for_error(std::string_view text, std::size_t limit = 60);

}  // namespace vornmon
