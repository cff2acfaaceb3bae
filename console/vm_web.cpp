#include "console/vm_web.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>

namespace vornmon {
namespace {

constexpr off_t kMaxWebFile = 8 * 1024 * 1024;

// Files the page loads from Debian packages when the page directory has no copy of its own
// (an install copies them in; a build tree uses the system's).
constexpr std::array<std::pair<std::string_view, const char*>, 1> kPackagedFiles = {{
    {"vendor/chart.min.js", "/usr/share/javascript/chart.js/chart.min.js"},
}};

std::string canonical(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? std::string(resolved) : std::string();
}

bool is_directory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool inside(const std::string& path, const std::string& root) {
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
           path[root.size()] == '/';
}

// Reads a regular file of bounded size; the validator is its size and modification time.
bool read_regular(const std::string& path, std::string& body, std::string& etag) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxWebFile;
    if (ok) {
        body.resize(static_cast<std::size_t>(st.st_size));
        std::size_t got = 0;
        while (got < body.size()) {
            ssize_t n = read(fd, body.data() + got, body.size() - got);
            if (n <= 0) break;
            got += static_cast<std::size_t>(n);
        }
        body.resize(got);
        char tag[64];
        std::snprintf(tag, sizeof tag, "\"%zx-%llx\"", got,
                      static_cast<unsigned long long>(st.st_mtim.tv_sec) * 1000000000ULL +
                          static_cast<unsigned long long>(st.st_mtim.tv_nsec));
        etag = tag;
    }
    close(fd);
    return ok;
}

}  // namespace

std::string program_directory() {
    std::string exe = canonical("/proc/self/exe");
    std::size_t slash = exe.rfind('/');
    return slash == std::string::npos ? std::string() : exe.substr(0, slash);
}

WebFiles find_web_files(const std::string& given, const std::string& program_dir) {
    WebFiles w;
    std::vector<std::string> candidates;
    if (!given.empty()) {
        candidates.push_back(given);
    } else if (!program_dir.empty()) {
        candidates.push_back(program_dir + "/../share/vornmon/web");
        candidates.push_back(program_dir + "/../console/web");
    }
    for (const std::string& c : candidates) {
        w.looked_in.push_back(c);
        if (is_directory(c) && access((c + "/index.html").c_str(), R_OK) == 0) {
            w.root = canonical(c);
            if (!w.root.empty()) break;
        }
    }
    return w;
}

bool web_relative_path(std::string_view url_path, std::string& relative) {
    if (url_path.empty() || url_path[0] != '/') return false;
    url_path.remove_prefix(1);
    if (url_path.empty() || url_path.back() == '/') {
        relative = std::string(url_path) + "index.html";
    } else {
        relative = std::string(url_path);
    }
    // Every part a plain name: no empty part, no "." or "..", nothing hidden, no byte that
    // a file system or a shell reads specially.
    std::size_t start = 0;
    while (start <= relative.size()) {
        std::size_t end = relative.find('/', start);
        if (end == std::string::npos) end = relative.size();
        std::string_view part = std::string_view(relative).substr(start, end - start);
        if (part.empty() || part[0] == '.') return false;
        for (char c : part)
            if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_'))
                return false;
        start = end + 1;
    }
    return true;
}

std::string web_content_type(std::string_view relative) {
    static const std::pair<std::string_view, const char*> kTypes[] = {
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".json", "application/json"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".txt", "text/plain; charset=utf-8"},
    };
    for (const auto& [ext, type] : kTypes)
        if (relative.size() > ext.size() && relative.substr(relative.size() - ext.size()) == ext)
            return type;
    return "application/octet-stream";
}

WebReply web_file(const std::string& root, std::string_view url_path,
                  std::string_view if_none_match) {
    WebReply reply;
    std::string relative;
    if (root.empty() || !web_relative_path(url_path, relative)) return reply;
    // A symbolic link inside the directory may point anywhere: what is served must still
    // resolve inside it.
    std::string path = canonical(root + "/" + relative);
    bool found = !path.empty() && inside(path, root) && read_regular(path, reply.body, reply.etag);
    for (const auto& [name, packaged] : kPackagedFiles)
        if (!found && relative == name) found = read_regular(packaged, reply.body, reply.etag);
    if (!found) {
        reply.body.clear();
        return reply;
    }
    reply.content_type = web_content_type(relative);
    if (!if_none_match.empty() && if_none_match == reply.etag) {
        reply.status = 304;
        reply.body.clear();
    } else {
        reply.status = 200;
    }
    return reply;
}

}  // namespace vornmon
