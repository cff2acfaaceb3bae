// Storage behind the two line arrays. A scan makes tens of thousands of short lines that all
// die together when the tick frees them, so the strings of rtdc_data_headers and
// rtdc_data_buffers are carved, each to its exact size, out of blocks that are kept from one
// scan to the next instead of being malloc'd and freed one by one. The length of every
// stored line is remembered so the packet does not measure it again.
//
// Any other array (and any string a caller put into an entry itself) is plain malloc'd
// memory; rtdc_free_lines tells the two apart entry by entry.
#pragma once

#include <cstddef>

namespace rtdc_lines {

/// Room to format a line of at most `max` bytes (NUL included) for `lines`, or null when
/// that array has no store (or memory ran out): the caller then formats on its own stack.
char* reserve(char** lines, int count, size_t max);

/// Appends `text` (`len` bytes plus its NUL) as the next entry. When `text` is the room just
/// reserved it is kept in place; otherwise it is copied. False when the array is full or
/// memory ran out; the line is then dropped.
bool store(char** lines, int* count, int* total_len, const char* text, size_t len);

/// Length of entry i: remembered when this store made it, else measured.
size_t length(char* const* lines, int i);

/// Releases entry strings and makes the array's store reusable.
void release(char** lines, int count);

}  // namespace rtdc_lines
