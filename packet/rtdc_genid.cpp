// Counter ids: what ties a data line to the header line that described it.
#include "collectors/rtdc_tables.h"
#include "packet/rtdc_buffer.h"

int Offset = 0;

namespace {
// Ordinary ids stay below this; process ids start here and are derived from the pid.
constexpr int kIdSpace = 0x10000;
}  // namespace

int rtdc_genids() {
    // Exhaustion is quiet: the rows then carry -1 and the console ignores them.
    if (Offset + 1 >= kIdSpace) return -1;
    return ++Offset;
}

void rtdc_FillIds(CounterDef* table) {
    for (CounterDef* row = table; row && row->id != 0; ++row) row->id = rtdc_genids();
}

long rtdc_ProcessGenids(long pid, int index) {
    return index + pid * PROC_FIELDS() + kIdSpace;
}

void rtdc_ProcessFillIds(CounterDef* table, long pid) {
    // Derived from the pid, so a process keeps its ids across scans and connections.
    for (int i = 0; table && table[i].id != 0; ++i)
        table[i].id = static_cast<int32_t>(rtdc_ProcessGenids(pid, i + 1));
}
