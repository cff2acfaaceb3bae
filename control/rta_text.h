// Small text helpers shared by the control files: fixed-width copies and today's date as
// it appears in log file names.
#pragma once

#include <cstddef>
#include <cstring>

namespace rta {

/// Width of every path field of the settings record.
inline constexpr size_t kPathWidth = 512;

/// Copies src into a field of cap bytes, truncating, always NUL-terminated. src may lie
/// inside dst (a record field re-derived from itself).
inline void copy_text(char* dst, size_t cap, const char* src) {
    if (cap == 0) return;
    if (!src) src = "";
    size_t n = strnlen(src, cap - 1);
    memmove(dst, src, n);
    dst[n] = '\0';
}

template <size_t N>
inline void copy_field(char (&dst)[N], const char* src) {
    copy_text(dst, N, src);
}

/// Removes the last character of text, if there is one (the value of a key~value line
/// is meant to end in the line's newline).
inline void drop_last_char(char* text) {
    size_t n = strlen(text);
    if (n > 0) text[n - 1] = '\0';
}

/// Today's local date as "%Y%b%d" (e.g. 2012Feb23), the date part of log file names.
void today_for_log_name(char* out, size_t cap);

}  // namespace rta
