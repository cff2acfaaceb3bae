// The value-type codes of counter rows: how a value is stored in its class record, how a
// data line prints it, what an attribute row adds to its header line, and what an alert
// check reads. One table says it for every code; the line writers and the evaluator only
// follow it.
#pragma once

#include <cstdint>
#include <cstring>

/// The codes consoles know, as they appear in a row's `type`.
enum ValueCode : int32_t {
    kValueInt32 = 1,     // int32, data only
    kValueLong = 2,      // int64, data only
    kValueText = 3,      // text, data only
    kValueReal = 4,      // double, data only
    kValueLongLong = 6,  // int64, data only
    kValueFloat = 7,     // float, data only
    kValueLow32 = 8,     // 64 bits, the low 32 printed in hexadecimal, data only
    kValueShort = 9,     // int16, data only
    kAttrInt32 = 10,     // header attributes, never in data lines
    kAttrText = 11,
    kAttrHex32 = 12,
    kAttrReal = 13,
    kAttrReserved = 14,
    kSharedInt32 = 15,  // attributes in the header and in every data line
    kSharedText = 16,
    kSharedLow32 = 17,
    kSharedReal = 18,
    kProcessLong = 20,  // int64 attribute of process header lines only
};

/// How a value sits in the record.
enum class Storage : uint8_t {
    none,
    int16,
    uint16,
    int32,
    uint32,
    int64,
    uint64,
    float32,
    float64,
    text
};

/// How a value is printed.
enum class Shown : uint8_t {
    none,     // no line (data) or no header value (attribute)
    integer,  // decimal
    text,     // as it stands, up to its NUL
    fixed2,   // "%.2f"
    hex8,     // "%08X" of the low 32 bits
    general,  // "%g"
};

struct ValueForm {
    Storage storage;
    Shown shown;
};

struct ValueType {
    bool in_data_lines;  // false: the data writer logs the code as unknown...
    bool header_only;    // ...unless it is a header-only attribute, skipped quietly
    ValueForm data;
    ValueForm header;          // ",value" of an ordinary attribute header line
    ValueForm process_header;  // the same in a process header line
    bool alerts_know;          // false: the evaluator logs the code as unknown
    Storage alert_read;        // none: a text or attribute, nothing added
};

namespace value_types_detail {
constexpr ValueForm kNone{Storage::none, Shown::none};
constexpr ValueType kUnknown{false, false, kNone, kNone, kNone, false, Storage::none};

constexpr ValueType data(ValueForm form, Storage alert_read = Storage::none,
                         bool alerts_know = true) {
    return {true, false, form, kNone, kNone, alerts_know, alert_read};
}
constexpr ValueType attribute(ValueForm header, bool alerts_know) {
    return {false, true, kNone, header, header, alerts_know, Storage::none};
}
constexpr ValueType shared(ValueForm data, ValueForm header) {
    return {true, false, data, header, header, false, Storage::none};
}

// Indexed by code.
constexpr ValueType kTypes[] = {
    /* 0 */ kUnknown,
    /* 1 */ data({Storage::int32, Shown::integer}, Storage::int32),
    /* 2 */ data({Storage::int64, Shown::integer}, Storage::int64),
    /* 3 */ data({Storage::text, Shown::text}),
    /* 4 */ data({Storage::float64, Shown::fixed2}, Storage::float64),
    /* 5 */ kUnknown,
    /* 6 */ data({Storage::int64, Shown::integer}, Storage::int64),
    /* 7 */ data({Storage::float32, Shown::fixed2}, Storage::float32),
    // The evaluator reads the low half of the 64-bit value as a signed 32-bit integer.
    /* 8 */ data({Storage::uint64, Shown::hex8}, Storage::int32),
    // Printed sign-extended, checked as unsigned: the two sides were always read so.
    /* 9 */ data({Storage::int16, Shown::integer}, Storage::uint16),
    /* 10 */ attribute({Storage::int32, Shown::integer}, true),
    /* 11 */ attribute({Storage::text, Shown::text}, true),
    /* 12 */ attribute({Storage::uint32, Shown::hex8}, true),
    /* 13 */ attribute({Storage::float64, Shown::general}, false),
    /* 14 */ attribute(kNone, false),
    /* 15 */ shared({Storage::int32, Shown::integer}, {Storage::int32, Shown::integer}),
    /* 16 */ shared({Storage::text, Shown::text}, {Storage::text, Shown::text}),
    /* 17 */ shared({Storage::uint64, Shown::hex8}, {Storage::uint32, Shown::hex8}),
    /* 18 */ shared({Storage::float64, Shown::fixed2}, {Storage::float64, Shown::general}),
    /* 19 */ kUnknown,
    /* 20 */ {false, false, kNone, kNone, {Storage::int64, Shown::integer}, false, Storage::none},
};
}  // namespace value_types_detail

/// What a code means; codes no one knows get a type that every writer and reader refuses.
constexpr const ValueType& value_type(int32_t code) {
    using namespace value_types_detail;
    return code >= 0 && code < static_cast<int32_t>(sizeof kTypes / sizeof kTypes[0]) ? kTypes[code]
                                                                                      : kUnknown;
}

/// The value at `offset` in `record` as a number; a text or absent value is 0.
inline double stored_number(Storage storage, const void* record, int64_t offset) {
    const char* p = static_cast<const char*>(record) + offset;
    auto read = [p](auto v) {
        memcpy(&v, p, sizeof v);
        return v;
    };
    switch (storage) {
        case Storage::int16:
            return static_cast<double>(read(int16_t{}));
        case Storage::uint16:
            return static_cast<double>(read(uint16_t{}));
        case Storage::int32:
            return static_cast<double>(read(int32_t{}));
        case Storage::uint32:
            return static_cast<double>(read(uint32_t{}));
        case Storage::int64:
            return static_cast<double>(read(int64_t{}));
        case Storage::uint64:
            return static_cast<double>(read(uint64_t{}));
        case Storage::float32:
            return static_cast<double>(read(float{}));
        case Storage::float64:
            return read(double{});
        default:
            return 0;
    }
}

/// The value as a whole number, for integer and hexadecimal forms: integers sign- or
/// zero-extended, 64-bit values whole.
inline int64_t stored_integer(Storage storage, const void* record, int64_t offset) {
    const char* p = static_cast<const char*>(record) + offset;
    auto read = [p](auto v) {
        memcpy(&v, p, sizeof v);
        return v;
    };
    switch (storage) {
        case Storage::int16:
            return read(int16_t{});
        case Storage::uint16:
            return read(uint16_t{});
        case Storage::int32:
            return read(int32_t{});
        case Storage::uint32:
            return read(uint32_t{});
        case Storage::int64:
            return read(int64_t{});
        case Storage::uint64:
            return static_cast<int64_t>(read(uint64_t{}));
        default:
            return 0;
    }
}
