// Temporary trees and small file helpers for the control tests.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "control/rta_cmdline.h"

namespace control_test {

/// A fresh directory under the system temp dir, removed with everything in it.
class TempDir {
public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "vornctl.XXXXXX").string();
        if (mkdtemp(tmpl.data())) path_ = tmpl;
        // Readable by everyone: some tests look into it after dropping to another account.
        chmod(path_.c_str(), 0755);
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

inline void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

inline std::string read_file(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

/// Adds a process entry "<root>/<pid>/stat" whose short name is comm.
inline void add_proc(const std::string& root, int pid, const std::string& comm) {
    write_file(root + "/" + std::to_string(pid) + "/stat",
               std::to_string(pid) + " (" + comm + ") S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 1\n");
}

/// A settings record with the built-in defaults, as main sets it up.
inline RtaCmdline default_record() {
    RtaCmdline r{};
    rta_init_command_line(&r);
    return r;
}

/// One capability line of /proc/self/status ("CapPrm", "CapEff", "CapBnd") as a mask.
inline uint64_t cap_mask(const char* which) {
    std::ifstream f("/proc/self/status");
    std::string line;
    std::string key = std::string(which) + ":";
    while (std::getline(f, line)) {
        if (line.compare(0, key.size(), key) == 0)
            return std::strtoull(line.c_str() + key.size(), nullptr, 16);
    }
    return 0;
}

inline std::string source_path(const std::string& rel) { return std::string(VORN_SOURCE_DIR) + "/" + rel; }

}  // namespace control_test
