// The console's packet parser: the input is a data connection's byte stream, fed to the
// framer in pieces whose sizes come from the input itself, and each body is parsed; the
// whole input is also parsed as one packet body.
#include <string>

#include "console/vm_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using vornmon::Framer;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    vornmon::Packet whole;
    std::string err;
    vornmon::parse_packet_body(text, whole, err);

    Framer framer;
    // The first byte picks the piece size, so both byte-at-a-time arrival and whole packets
    // are tried.
    const size_t piece = size ? 1 + data[0] % 64 * 97 : 1;
    for (size_t at = 0; at < size; at += piece) {
        framer.feed(text.substr(at, piece));
        for (int packets = 0; packets < 1000; ++packets) {
            vornmon::Packet packet;
            Framer::Result r = vornmon::next_packet(framer, packet, err);
            if (r != Framer::Result::kPacket) break;
        }
    }
    vornmon::quote_for_error(text);
    return 0;
}
