// Packet framing and sending on the data connection.
#pragma once

int rtdc_packetize_data(char** headers, int header_count, char** buffers, int buffer_count,
                        char* out, int length_hint);
/// Writes the packet. A failed small write ends the calling (collection) thread after
/// clearing the data-connection flags; see the implementation for the large-write rules.
int rtdc_send_packet(int fd, const char* text, int trace);

/// The buffer a pass builds its packet in: at least length_hint + 8192 bytes, starting empty.
/// It is kept from one pass to the next (passes are serialised by snapshot_mutex), so a scan
/// does not map and fault in megabytes afresh. Null when memory ran out.
char* rtdc_packet_buffer(int length_hint);
