// Header and data lines. Every counter a class reports becomes a header line (what it is)
// and, every scan, a data line (its value). Lines are kept as exact-size heap strings in the
// two line arrays until the packet is built and the tick frees them.
//
// The lines are printf formats in the wire protocol's terms; they are assembled here by hand
// into bounded buffers because a scan of a large host formats tens of thousands of them.
#include "packet/rtdc_buffer.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "packet/rtdc_state.h"
#include "agent/rtdc_log.h"
#include "collectors/rtdc_value_types.h"
#include "packet/rtdc_lines.h"

char* rtdc_data_headers[kMaxLines];
char* rtdc_data_buffers[kMaxLines];
int n_rtdc_data_headers = 0, n_rtdc_data_buffers = 0;
int n_rtdc_header_len = 0, n_rtdc_data_len = 0;

namespace {

constexpr size_t kHeaderLine = 256;          // one header line
constexpr size_t kDataString = 2048;         // all data lines of one class instance

// "%.2f" of v into [out, limit), returning the end. printf rounds the exact binary value to
// nearest, ties to even. Below 2^52 the value is m * 2^-s with an integer m of 53 bits, so
// v * 100 = (m * 100) / 2^s is rounded here in integer arithmetic, exactly, without a
// general conversion; larger values, infinities and NaN take the library's path.
char* fixed2(double v, char* out, char* limit) {
    constexpr double kExactLimit = 4503599627370496.0;  // 2^52
    if (std::isfinite(v) && std::fabs(v) < kExactLimit && limit - out >= 32) {
        uint64_t bits;
        memcpy(&bits, &v, sizeof bits);
        const int biased = static_cast<int>((bits >> 52) & 0x7FF);
        const uint64_t fraction = bits & ((uint64_t{1} << 52) - 1);
        const uint64_t m = biased ? fraction | (uint64_t{1} << 52) : fraction;
        const int shift = biased ? 1075 - biased : 1074;  // v = m / 2^shift, shift >= 1 here
        const unsigned __int128 scaled = static_cast<unsigned __int128>(m) * 100;  // < 2^60
        uint64_t cents = 0;  // the whole of v * 100, rounded
        if (shift < 128) {
            const auto q = static_cast<uint64_t>(scaled >> shift);
            const unsigned __int128 rest = scaled - (static_cast<unsigned __int128>(q) << shift);
            const unsigned __int128 half = static_cast<unsigned __int128>(1) << (shift - 1);
            cents = q;
            if (rest > half || (rest == half && (q & 1))) ++cents;
        }  // else v * 100 < 2^-68: rounds to 0
        char* p = out;
        if (bits >> 63) *p++ = '-';
        p = std::to_chars(p, limit, cents / 100).ptr;
        const auto c = static_cast<unsigned>(cents % 100);
        p[0] = '.';
        p[1] = static_cast<char>('0' + c / 10);
        p[2] = static_cast<char>('0' + c % 10);
        return p + 3;
    }
    auto r = std::to_chars(out, limit, v, std::chars_format::fixed, 2);
    if (r.ec == std::errc()) return r.ptr;
    int n = snprintf(out, static_cast<size_t>(limit - out), "%.2f", v);
    return out + (n > 0 && n < limit - out ? n : 0);
}

// Appends into a fixed buffer the way successive snprintf calls would: what does not fit is
// cut, and the text stays NUL-terminated.
class LineBuilder {
  public:
    LineBuilder(char* buffer, size_t capacity)
        : begin_(buffer), p_(buffer), end_(buffer + capacity - 1) {
        *p_ = '\0';
    }

    void put(const char* text, size_t n) {
        size_t room = static_cast<size_t>(end_ - p_);
        if (n > room) n = room;  // cut, as snprintf would
        memcpy(p_, text, n);
        p_ += n;
    }
    void put(std::string_view s) { put(s.data(), s.size()); }
    void put(char c) {
        if (p_ < end_) *p_++ = c;
    }
    // A fixed-width text field: stops at its NUL or at the field's end.
    void put_field(const char* field, size_t width) { put(field, strnlen(field, width)); }
    void put_int(long long v) {
        if (v >= 0 && v < 10) {  // markers, flags and small ids
            put(static_cast<char>('0' + v));
            return;
        }
        char tmp[24];
        auto r = std::to_chars(tmp, tmp + sizeof tmp, v);
        put(tmp, static_cast<size_t>(r.ptr - tmp));
    }
    void put_hex8(uint32_t v) {  // "%08X"
        static constexpr char digits[] = "0123456789ABCDEF";
        char tmp[8];
        for (int i = 7; i >= 0; --i, v >>= 4) tmp[i] = digits[v & 0xF];
        put(tmp, 8);
    }
    void put_fixed2(double v) {  // "%.2f", rounded exactly as printf rounds
        if (end_ - p_ >= 400) {  // room for any value: write in place
            p_ = fixed2(v, p_, end_);
            return;
        }
        char tmp[400];
        char* end = fixed2(v, tmp, tmp + sizeof tmp);
        put(tmp, static_cast<size_t>(end - tmp));
    }
    void put_g(double v) {  // "%g"
        char tmp[64];
        int n = snprintf(tmp, sizeof tmp, "%g", v);
        if (n > 0) put(tmp, static_cast<size_t>(n) < sizeof tmp ? n : sizeof tmp - 1);
    }

    size_t size() const { return static_cast<size_t>(p_ - begin_); }
    const char* finish() {
        *p_ = '\0';
        return begin_;
    }

  private:
    char* begin_;
    char* p_;
    char* end_;
};

// Rows are 416 bytes apart and a walk reads fields on several cache lines of each row; a
// table copy of a large host is rarely in cache. Asking for the lines of the first rows at
// once lets the memory system fetch them in parallel instead of one miss after another.
// Prefetching past the end of a table is harmless: a prefetch never faults.
constexpr int kPrefetchRows = 8;

// The address of a field of row i, computed as a number: the rows past a table's end are
// only ever prefetched, never read.
const void* field_address(const CounterDef* table, int i, size_t field_offset) {
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(table) +
                                         static_cast<uintptr_t>(i) * sizeof(CounterDef) +
                                         field_offset);
}

void prefetch_for_data(const CounterDef* table) {
    for (int i = 0; i < kPrefetchRows; ++i) {
        __builtin_prefetch(field_address(table, i, offsetof(CounterDef, id)));
        __builtin_prefetch(field_address(table, i, offsetof(CounterDef, type)));
    }
}

void prefetch_for_headers(const CounterDef* table) {
    for (int i = 0; i < kPrefetchRows; ++i) {
        __builtin_prefetch(field_address(table, i, offsetof(CounterDef, id)), 1);
        __builtin_prefetch(field_address(table, i, offsetof(CounterDef, type)));
        __builtin_prefetch(field_address(table, i, offsetof(CounterDef, marker)));
    }
}

const char* text_at(const void* record, int32_t offset) {
    return static_cast<const char*>(record) + offset;
}

// "::%d::%s::%d,%s,%d": id, description, marker, units, is_counter.
void put_row_fields(LineBuilder& line, const CounterDef& row) {
    line.put("::");
    line.put_int(row.id);
    line.put("::");
    line.put_field(row.description, sizeof row.description);
    line.put("::");
    line.put_int(row.marker);
    line.put(',');
    line.put_field(row.units, sizeof row.units);
    line.put(',');
    line.put_int(row.is_counter);
}

std::string_view separator_for(const CounterDef& row) {
    return row.marker ? std::string_view("~^1~^->") : std::string_view("->");
}

// One value in the form its type gives.
void put_value(LineBuilder& line, ValueForm form, const void* record, int32_t offset) {
    switch (form.shown) {
        case Shown::integer:
            line.put_int(stored_integer(form.storage, record, offset));
            break;
        case Shown::text: {
            const char* text = text_at(record, offset);
            line.put(text, strnlen(text, kDataString));  // never beyond what one line can hold
            break;
        }
        case Shown::fixed2:
            line.put_fixed2(stored_number(form.storage, record, offset));
            break;
        case Shown::hex8:
            line.put_hex8(static_cast<uint32_t>(stored_integer(form.storage, record, offset)));
            break;
        case Shown::general:
            line.put_g(stored_number(form.storage, record, offset));
            break;
        case Shown::none:
            break;
    }
}

// The ",value" suffix of an attribute row in a header line; false when the type carries no
// header value there.
bool put_header_value(LineBuilder& line, ValueForm form, const CounterDef& row,
                      const void* record) {
    if (form.shown == Shown::none) return false;
    line.put(',');
    put_value(line, form, record, row.offset);
    return true;
}

}  // namespace

int rtdc_buffer_headers(char** headers, int* count, const void* data_record, CounterDef* table,
                        const char* class_prefix) {
    if (table) prefetch_for_headers(table);
    rtdc_FillIds(table);
    int added = 0;
    const std::string_view prefix = class_prefix ? class_prefix : "";
    for (const CounterDef* row = table; row && row->id != 0; ++row) {
        if (row->is_counter != 0 && row->is_counter != 1) continue;
        char local[kHeaderLine];
        char* room = rtdc_lines::reserve(headers, *count, kHeaderLine);
        LineBuilder line(room ? room : local, kHeaderLine);
        line.put(prefix);
        line.put(separator_for(*row));
        line.put_field(row->name, sizeof row->name);
        put_row_fields(line, *row);
        // An attribute row whose type has no header value gives no line at all.
        if (row->is_counter == 0 &&
            !put_header_value(line, value_type(row->type).header, *row, data_record))
            continue;
        line.put('\n');
        const char* text = line.finish();
        if (rtdc_lines::store(headers, count, &n_rtdc_header_len, text, line.size())) ++added;
    }
    return added;
}

size_t rtdc_process_header_line(char* out, const CounterDef& row, const void* record,
                                std::string_view name, std::string_view pid) {
    LineBuilder line(out, kProcessHeaderLine);
    if (row.is_counter == 0 || row.is_counter == 1) {
        line.put("Process");
        line.put(separator_for(row));
        line.put(name);
        line.put("  (");
        line.put(pid);
        line.put(")->");
        line.put_field(row.name, sizeof row.name);
        put_row_fields(line, row);
        const bool made = row.is_counter == 1 ||
                          put_header_value(line, value_type(row.type).process_header, row, record);
        line.put('\n');
        // Consoles count process header entries, so a row that makes no line still takes
        // one entry: an empty string.
        if (!made) line = LineBuilder(out, kProcessHeaderLine);
    }
    line.finish();
    return line.size();
}

int rtdc_buffer_data(char** buffers, int* count, const void* data_record, const CounterDef* table) {
    if (table) prefetch_for_data(table);
    char local[kDataString];
    char* room = rtdc_lines::reserve(buffers, *count, kDataString);
    LineBuilder line(room ? room : local, kDataString);
    int index = 0;
    for (const CounterDef* row = table; row && row->id != 0; ++row, ++index) {
        const ValueType& type = value_type(row->type);
        if (!type.in_data_lines) {
            if (!type.header_only)
                rtdc_logf("Unknown type in meta data %d, m[%d].id = %d\n", row->type, index,
                          row->id);
            continue;
        }
        line.put_int(row->id);
        line.put('=');
        put_value(line, type.data, data_record, row->offset);
        line.put('\n');
    }
    const char* text = line.finish();
    if (!rtdc_lines::store(buffers, count, &n_rtdc_data_len, text, line.size())) return 0;
    return static_cast<int>(line.size() + 1);
}

void rtdc_free_lines(char** lines, int* count, int* total_len) {
    int n = *count;
    if (n > kMaxLines) n = kMaxLines;
    rtdc_lines::release(lines, n < 0 ? 0 : n);
    *count = 0;
    *total_len = 0;
}
