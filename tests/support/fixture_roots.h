// Points the platform readers at a captured tree for the length of one test.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/roots.h"

namespace vorntest {

inline std::string fixture_dir(const std::string& name) {
    return std::string(VORN_SOURCE_DIR) + "/tests/fixtures/linux/" + name;
}

/// Roots of fixture tree `name` (its proc/ and proc/self/mounts).
inline platform::Roots fixture_roots(const std::string& name) {
    platform::Roots roots;
    roots.proc = fixture_dir(name) + "/proc";
    roots.sys = fixture_dir(name) + "/sys";
    roots.mounts = roots.proc + "/self/mounts";
    return roots;
}

inline void use_fixture(const std::string& name) {
    platform::set_roots(fixture_roots(name));
}

/// A scratch directory removed at the end of the test.
class TempTree {
  public:
    TempTree() {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/vorntest.XXXXXX";
        char* made = mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        root_ = pattern;
    }
    ~TempTree() { std::filesystem::remove_all(root_); }
    const std::string& root() const { return root_; }
    void write(const std::string& relative, const std::string& text) const {
        std::filesystem::path path = std::filesystem::path(root_) / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream out(path, std::ios::trunc);
        out << text;
    }
    /// Roots whose proc tree is this directory's proc/.
    platform::Roots roots() const {
        platform::Roots roots;
        roots.proc = root_ + "/proc";
        roots.sys = root_ + "/sys";
        roots.mounts = root_ + "/proc/self/mounts";
        return roots;
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
