// The web dashboard's page files: finding their directory, and answering a request for one
// of them. Only files inside that directory are served (no "..", no hidden names, no
// symbolic link leading out of it), only regular files, with a content type by extension and
// a validator so that a reload costs a 304.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vornmon {

/// Where the page files were found.
struct WebFiles {
    std::string root;                    // canonical directory; empty when none was found
    std::vector<std::string> looked_in;  // every place tried, in order
};

/// `given` (the hub's --web DIR) when set; otherwise share/vornmon/web beside the installed
/// program's bin/, then console/web of the source tree the program was built in (build
/// directories sit at its top).
WebFiles find_web_files(const std::string& given, const std::string& program_dir);

/// The directory of the running program, from /proc/self/exe; empty when unknown.
std::string program_directory();

/// The relative file a URL path names ("/" is index.html), or false when the path could
/// leave the directory or names a hidden file.
bool web_relative_path(std::string_view url_path, std::string& relative);

/// "text/html; charset=utf-8" and the like; application/octet-stream when unknown.
std::string web_content_type(std::string_view relative);

struct WebReply {
    int status = 404;  // 200, 304 (the reader's copy is current) or 404
    std::string body, content_type, etag;
};

/// Reads the file `url_path` names under `root`; a file the page needs from a system package
/// (the chart library) is read from the package's own place when the directory holds no copy.
/// `if_none_match` is the reader's validator.
WebReply web_file(const std::string& root, std::string_view url_path,
                  std::string_view if_none_match);

}  // namespace vornmon
