// Kernel memory reader against a stand-in device file, and symbol lookup on a captured
// symbol table.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

#include "collectors/rtdc_kernel.h"
#include "support/fixture_roots.h"

using vorntest::TempTree;

namespace {

class KernelReader : public vorntest::RootsTest {
  protected:
    void SetUp() override { strcpy(saved, KernelDev); }
    void TearDown() override {
        CloseKernel();
        strcpy(KernelDev, saved);
        RootsTest::TearDown();
    }
    // A device image: bytes 0..15 known values, then two strings.
    void make_device(const TempTree& tree) {
        std::string image(64, '\0');
        uint64_t address = 0x1122334455667788ull;
        int32_t number = -123456;
        int16_t small = -2;
        memcpy(&image[0], &address, 8);
        memcpy(&image[8], &number, 4);
        memcpy(&image[12], &small, 2);
        image[14] = static_cast<char>(0xAB);
        memcpy(&image[16], "first", 6);
        memcpy(&image[32], "second", 7);
        tree.write("kmem", image);
        snprintf(KernelDev, sizeof KernelDev, "%s/kmem", tree.root().c_str());
    }
    char saved[sizeof KernelDev];
};

TEST_F(KernelReader, ScalarsAndDataInHostOrder) {
    TempTree tree;
    make_device(tree);
    ASSERT_EQ(OpenKernel(), 1);
    EXPECT_EQ(GetKAddr(0), 0x1122334455667788ull);
    EXPECT_EQ(GetKLong(0), 0x1122334455667788ll);
    EXPECT_EQ(GetKInt(8), -123456);
    EXPECT_EQ(GetKShort(12), -2);
    EXPECT_EQ(GetKByte(14), 0xAB);
    char buffer[6];
    EXPECT_EQ(GetKData(16, buffer, 6), 6);
    EXPECT_STREQ(buffer, "first");
    // Past the end: a short read, reported as such, and 0 from the scalar readers.
    EXPECT_EQ(GetKData(60, buffer, 6), 4);
    EXPECT_EQ(GetKLong(60), 0);
}

TEST_F(KernelReader, SharedStringBufferAndUnreachableAddresses) {
    TempTree tree;
    make_device(tree);
    ASSERT_EQ(OpenKernel(), 1);
    char* first = GetKString(16);
    EXPECT_STREQ(first, "first");
    char* second = GetKString(32);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "second");
    // A kernel address is out of reach of an ordinary file: the seek fails, nothing read.
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(GetKData(0xffffffff81000000ull, buffer, 4), 0);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(Position(0xffffffff81000000ull), 0);
    EXPECT_STREQ(GetKString(0xffffffff81000000ull), "");
}

TEST_F(KernelReader, AbsentDeviceIsTolerated) {
    snprintf(KernelDev, sizeof KernelDev, "/nonexistent/vorn/kmem");
    EXPECT_EQ(OpenKernel(), 0);
    EXPECT_EQ(kmem, -1);
    EXPECT_EQ(GetKInt(0), 0);
    EXPECT_EQ(GetKAddr(8), 0u);
    EXPECT_EQ(GetKData(0, nullptr, 4), -1);
    char buffer[4];
    EXPECT_EQ(GetKData(0, buffer, 4), 0);
    EXPECT_STREQ(GetKString(0), "");
    CloseKernel();  // closing what never opened is harmless
}

TEST_F(KernelReader, SymbolLookup) {
    vorntest::use_fixture("kallsyms");
    KernelSymbol list[] = {
        {"jiffies", 0}, {"ext4_sync_fs", 0}, {"no_such_symbol", 0}, {nullptr, 0}};
    EXPECT_EQ(kernlist(list), 1);
    EXPECT_EQ(list[0].n_value, 0xffffffff82a0c2c0ull);
    EXPECT_EQ(list[1].n_value, 0xffffffffc0a01230ull);  // a module symbol
    EXPECT_EQ(list[2].n_value, 0u);

    vorntest::use_fixture("mounts-1");  // no symbol table
    EXPECT_EQ(kernlist(list), -1);
    EXPECT_EQ(list[0].n_value, 0u);

    // Addresses hidden from unprivileged readers print as zeros: not found.
    TempTree tree;
    tree.write("proc/kallsyms", "0000000000000000 D jiffies\n");
    platform::set_roots(tree.roots());
    KernelSymbol hidden[] = {{"jiffies", 7}, {nullptr, 0}};
    EXPECT_EQ(kernlist(hidden), 1);
    EXPECT_EQ(hidden[0].n_value, 0u);
}

}  // namespace
