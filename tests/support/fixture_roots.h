// Points the platform readers at a captured tree, or a scratch one, for one test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/roots.h"

namespace vorntest {

inline platform::Roots roots_under(const std::string& dir) {
    return {dir + "/proc", dir + "/sys", dir + "/proc/self/mounts", dir + "/proc"};
}

inline void use_fixture(const std::string& name) {
    platform::set_roots(
        roots_under(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/" + name));
}

/// A scratch directory, removed at the end of the test.
class TempTree {
  public:
    TempTree() : root_(std::filesystem::temp_directory_path().string() + "/vorntest.XXXXXX") {
        EXPECT_NE(mkdtemp(root_.data()), nullptr);
    }
    ~TempTree() { std::filesystem::remove_all(root_); }
    const std::string& root() const { return root_; }
    platform::Roots roots() const { return roots_under(root_); }
    void write(const std::string& relative, const std::string& text) const {
        std::filesystem::path path = std::filesystem::path(root_) / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    }

  private:
    std::string root_;
};

/// Restores the real roots after every test of a fixture class.
class RootsTest : public ::testing::Test {
  protected:
    void TearDown() override { platform::set_roots(platform::Roots{}); }
};

}  // namespace vorntest
