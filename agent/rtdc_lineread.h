// The one line reader of the request server. A console's request is read line by line into
// fixed buffers (255 characters for request lines, 511 for rule and event lines), the way
// the consoles were written against: a line is everything up to its newline whatever bytes
// it holds, and a line longer than the buffer is cut there, its rest read as the following
// line or lines.
#pragma once

#include <cstddef>
#include <cstdio>

/// Reads one line of at most cap - 1 bytes into buf, newline included when it fits, NUL
/// bytes included as they came. buf is NUL-terminated after the bytes read; *length (when
/// given) is their count. False at end of stream, or on a read error, with nothing read; a
/// stream that ends inside a line gives that line first.
bool rtdc_read_line(FILE* stream, char* buf, size_t cap, size_t* length = nullptr);

/// The same, for parsers: a line that holds a NUL byte is cut to the text before it, keeping
/// the line's own newline, so every parser, log entry and stored event sees one whole line.
/// *length is the text's length.
bool rtdc_read_text_line(FILE* stream, char* buf, size_t cap, size_t* length = nullptr);

template <size_t N>
bool rtdc_read_line(FILE* stream, char (&buf)[N], size_t* length = nullptr) {
    return rtdc_read_line(stream, buf, N, length);
}

template <size_t N>
bool rtdc_read_text_line(FILE* stream, char (&buf)[N], size_t* length = nullptr) {
    return rtdc_read_text_line(stream, buf, N, length);
}
