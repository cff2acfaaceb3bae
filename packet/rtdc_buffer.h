// Header and data line buffers and counter ids.
#pragma once

#include <cstddef>
#include <string_view>

#include "collectors/rtdc_tables.h"

inline constexpr int kMaxLines = 0x10000;

// Each entry is one NUL-terminated string of exactly its length + 1 bytes; unused entries are
// null. The array owns its strings: release them with rtdc_free_lines (a string a caller puts
// into an entry itself must be malloc'd, and is then freed with free()).
extern char* rtdc_data_headers[kMaxLines];
extern char* rtdc_data_buffers[kMaxLines];
extern int n_rtdc_data_headers, n_rtdc_data_buffers;
extern int n_rtdc_header_len, n_rtdc_data_len;  // sum of (length + 1) of the entries in use
extern int Offset;                              // last counter id handed out

int rtdc_genids();
void rtdc_FillIds(CounterDef* table);
long rtdc_ProcessGenids(long pid, int index);
void rtdc_ProcessFillIds(CounterDef* table, long pid);
int rtdc_buffer_headers(char** headers, int* count, const void* data_record, CounterDef* table,
                        const char* class_prefix);

inline constexpr size_t kProcessHeaderLine = 2048;
/// The header line of one row of a process's table, into `out` (kProcessHeaderLine bytes)
/// NUL-terminated, with the row's id as it stands; returns its length. A row that makes no
/// line gives an empty one: consoles count process header entries, one per row.
size_t rtdc_process_header_line(char* out, const CounterDef& row, const void* record,
                                std::string_view name, std::string_view pid);
int rtdc_buffer_data(char** buffers, int* count, const void* data_record, const CounterDef* table);
void* rtdc_alloc(size_t size);
int rtdc_alloc64(size_t size, void** out_pointer);

/// Frees every string of a line array, nulls the entries and zeroes count and length.
void rtdc_free_lines(char** lines, int* count, int* total_len);
