#include "agent/rtdc_lineread.h"

#include <cstring>

bool rtdc_read_line(FILE* stream, char* buf, size_t cap, size_t* length) {
    if (length) *length = 0;
    if (!stream || !buf || cap == 0) return false;
    size_t n = 0;
    flockfile(stream);
    while (n + 1 < cap) {
        int c = getc_unlocked(stream);
        if (c == EOF) break;
        buf[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    funlockfile(stream);
    buf[n] = '\0';
    if (length) *length = n;
    return n > 0;
}

bool rtdc_read_text_line(FILE* stream, char* buf, size_t cap, size_t* length) {
    size_t n = 0;
    bool got = rtdc_read_line(stream, buf, cap, &n);
    size_t text = strlen(buf);
    if (text < n && buf[n - 1] == '\n') {
        buf[text++] = '\n';
        buf[text] = '\0';
    }
    if (length) *length = text;
    return got;
}
