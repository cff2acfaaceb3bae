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

/// Stores the value of a key~value line without its last character (meant to be the
/// line's newline), then fitted to the field.
inline void copy_value(char* dst, size_t cap, const char* value) {
    if (cap == 0) return;
    size_t n = strlen(value);
    if (n > 0) --n;
    if (n > cap - 1) n = cap - 1;
    memmove(dst, value, n);
    dst[n] = '\0';
}

/// Today's local date as "%Y%b%d" (e.g. 2012Feb23), the date part of log file names.
void today_for_log_name(char* out, size_t cap);

}  // namespace rta
