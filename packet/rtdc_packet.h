// Packet framing and sending on the data connection.
#pragma once

int rtdc_packetize_data(char** headers, int header_count, char** buffers, int buffer_count,
                        char* out, int length_hint);
/// Writes the packet. A failed small write ends the calling (collection) thread after
/// clearing the data-connection flags; see the implementation for the large-write rules.
int rtdc_send_packet(int fd, const char* text, int trace);
