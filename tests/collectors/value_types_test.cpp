// Every row of every table has a value type that says what it needs: a counter row a data
// line, an attribute row a header value (or a data line the console reads it from).
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "collectors/rtdc_tables.h"
#include "collectors/rtdc_value_types.h"

namespace {

TEST(ValueTypes, EveryTableRowIsWrittenSomewhere) {
    const std::pair<const char*, const CounterDef*> tables[] = {
        {"ConfigClass", ConfigClass},   {"CPUCounters", CPUCounters},
        {"DiskCounters", DiskCounters}, {"MetricCounters", MetricCounters},
        {"NetCounters", NetCounters},   {"ProcessCounters", ProcessCounters},
        {"FsCounters", FsCounters},     {"MachineCounters", MachineCounters}};
    for (auto [name, table] : tables) {
        for (const CounterDef* row = table; row->id != 0; ++row) {
            SCOPED_TRACE(std::string(name) + " " + row->name);
            const ValueType& type = value_type(row->type);
            if (row->is_counter == 1) {
                EXPECT_TRUE(type.in_data_lines);
            } else {
                EXPECT_TRUE(type.in_data_lines || type.header.shown != Shown::none);
            }
        }
    }
}

TEST(ValueTypes, CodesOutsideTheTableAreRefusedEverywhere) {
    for (int32_t code : {-1, 0, 5, 19, 21, 1 << 30}) {
        SCOPED_TRACE(code);
        const ValueType& type = value_type(code);
        EXPECT_FALSE(type.in_data_lines || type.header_only || type.alerts_know);
        EXPECT_EQ(type.header.shown, Shown::none);
    }
    // Numbers read as stored: sign-extended, zero-extended, widened.
    const struct {
        int16_t s = -2;
        uint16_t u = 65534;
        float f = 2.5f;
    } record;
    EXPECT_EQ(stored_number(Storage::int16, &record, 0), -2.0);
    EXPECT_EQ(stored_number(Storage::uint16, &record, 2), 65534.0);
    EXPECT_EQ(stored_number(Storage::float32, &record, 4), 2.5);
    EXPECT_EQ(stored_integer(Storage::int16, &record, 0), -2);
    EXPECT_EQ(stored_number(Storage::text, &record, 0), 0.0);
}

}  // namespace
