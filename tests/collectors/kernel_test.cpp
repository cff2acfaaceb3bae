// Kernel memory reader on a stand-in device file; symbol lookup on captured symbol tables.
#include <cstring>

#include "collectors/rtdc_kernel.h"
#include "support/fixture_roots.h"

using namespace vorntest;

namespace {

TEST(KernelReader, MissingDeviceReadsNothingThenAStandInReadsInHostOrder) {
    const std::string saved = KernelDev;
    TempTree tree;
    snprintf(KernelDev, sizeof KernelDev, "%s/kmem", tree.root().c_str());
    char buffer[8];
    EXPECT_EQ(OpenKernel(), 0);  // many hosts have no such device: every read gives nothing
    EXPECT_EQ(GetKData(0, buffer, 4), 0);
    EXPECT_STREQ(GetKString(0), "");
    int32_t number = -123456;
    tree.write("kmem", std::string("first\0\0\0", 8) + std::string((char*)&number, 4) + "tail");
    ASSERT_EQ(OpenKernel(), 1);
    EXPECT_STREQ(GetKString(0), "first");
    EXPECT_EQ(GetKInt(8), number);
    // A kernel address is beyond an ordinary file's reach: the seek fails, nothing is read.
    EXPECT_EQ(GetKData(0xffffffff81000000ull, buffer, 4), 0);
    EXPECT_EQ(GetKData(12, buffer, 8), 4);  // past the end: a short read, reported as such
    EXPECT_EQ(GetKAddr(12), 0u);            // and nothing from a scalar reader
    CloseKernel();
    snprintf(KernelDev, sizeof KernelDev, "%s", saved.c_str());
}

TEST(KernelSymbols, FoundByNameInTheTableOfTheRoots) {
    const std::tuple<const char*, int, uint64_t, uint64_t> rows[] = {
        {"kallsyms", 1, 0xffffffff82a0c2c0ull, 0xffffffffc0a01230ull},
        {"mounts-1", -1, 0, 0},         // no symbol table
        {"kallsyms-hidden", 3, 0, 0}};  // unprivileged: every address reads as zero
    for (auto [fixture, missing, jiffies, module_symbol] : rows) {
        SCOPED_TRACE(fixture);
        use_fixture(fixture);
        KernelSymbol list[] = {{"jiffies", 7}, {"ext4_sync_fs", 7}, {"no_such", 7}, {nullptr, 0}};
        EXPECT_EQ(kernlist(list), missing);
        EXPECT_EQ(list[0].n_value, jiffies);
        EXPECT_EQ(list[1].n_value, module_symbol);
        EXPECT_EQ(list[2].n_value, 0u);
    }
    platform::set_roots(platform::Roots{});
}

}  // namespace
