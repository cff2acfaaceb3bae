// Packet framing and sending on the data connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class ProcessHeaderLines;

/// Where a packet's text goes, piece by piece.
class PacketSink {
  public:
    virtual void put(std::string_view text) = 0;

  protected:
    ~PacketSink() = default;
};

/// The lines one packet carries. The header section holds the header lines of the array,
/// then the process header lines of the pass (the process class is the last of a pass);
/// the data section holds the data lines.
struct PacketLines {
    char** headers = nullptr;
    int header_count = 0;
    const ProcessHeaderLines* process_headers = nullptr;
    char** buffers = nullptr;
    int buffer_count = 0;
};

/// One packet framed around its lines: a length prefix, then a tagged body holding the
/// packet number, time and scan interval of the moment it is framed, and the sections. The
/// lines are not copied: they are read again when the packet is written, so they must stay
/// as they are until then.
class PacketFrame {
  public:
    explicit PacketFrame(const PacketLines& lines);
    /// Bytes of the whole packet, prefix included.
    size_t size() const { return prefix_.size() + body_; }
    /// Puts the packet's text to the sink and uses up its packet number.
    void write(PacketSink& sink) const;

  private:
    PacketLines lines_;
    std::string prefix_;  // the length prefix and the fixed head of the body
    size_t body_ = 0;     // bytes of the body after that head
    int number_ = 0;
};

/// The packet of the lines as one text into `out`, which holds length_hint + 8192 bytes;
/// 0 (and `out` left empty) when it would not fit.
int rtdc_packetize_data(char** headers, int header_count, char** buffers, int buffer_count,
                        char* out, int length_hint);
/// Frames the lines and sends the packet on the data connection, as rtdc_send_packet sends
/// a text.
int rtdc_send_lines(int fd, const PacketLines& lines);
/// Uses up a packet number for a pass whose packet nobody receives, so that the numbers a
/// console sees still count the passes.
void rtdc_skip_packet();

/// Writes the packet. A failed small write ends the calling (collection) thread after
/// clearing the data-connection flags; see the implementation for the large-write rules.
int rtdc_send_packet(int fd, const char* text, int trace);
