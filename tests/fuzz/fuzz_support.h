// What the fuzz targets share: a private scratch directory for the files a target writes
// from its input, a log that goes nowhere, and the input cut into pieces.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "agent/rtdc_log.h"

namespace fuzz {

/// A directory of this process's own, made on first use and removed when the process exits
/// normally (a crash leaves it behind for the reproducer).
inline const std::string& scratch() {
    static const std::string dir = [] {
        // Targets rewrite their files on every input: a memory-backed directory keeps a
        // run at thousands of inputs a second where a busy disk gives a few hundred.
        const char* tmp = getenv("TMPDIR");
        std::string base = tmp && *tmp ? tmp : "/tmp";
        if (access("/dev/shm", W_OK | X_OK) == 0) base = "/dev/shm";
        std::string tmpl = base + "/vornfuzz.XXXXXX";
        if (!mkdtemp(tmpl.data())) {
            perror("fuzz: mkdtemp");
            abort();
        }
        static std::string removed_at_exit;
        removed_at_exit = tmpl;
        atexit([] {
            std::error_code ec;
            std::filesystem::remove_all(removed_at_exit, ec);
        });
        return tmpl;
    }();
    return dir;
}

/// Replaces the file's content in place, so a reader that keeps the file open sees the new
/// bytes at offset 0, as it does with a kernel file.
inline void write_file(const std::string& path, std::string_view content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    FILE* f = fopen(path.c_str(), "w");
    if (!f) {
        perror(path.c_str());
        abort();
    }
    if (!content.empty()) fwrite(content.data(), 1, content.size(), f);
    fclose(f);
}

/// The agent logs every request line; a fuzzing run would grow the log without end.
inline void quiet_log() {
    snprintf(logfilec, sizeof logfilec, "/dev/null");
    rtdc_log_reset_for_tests();
}

/// Usage texts and warnings printed by the command-line side are not what is tested.
inline void quiet_stdout() {
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
}

/// The input cut at each NUL byte: how one input carries several files or arguments.
inline std::vector<std::string_view> split(const uint8_t* data, size_t size, size_t max_parts) {
    std::vector<std::string_view> parts;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (parts.size() + 1 < max_parts) {
        size_t nul = rest.find('\0');
        if (nul == std::string_view::npos) break;
        parts.push_back(rest.substr(0, nul));
        rest.remove_prefix(nul + 1);
    }
    parts.push_back(rest);
    return parts;
}

}  // namespace fuzz
