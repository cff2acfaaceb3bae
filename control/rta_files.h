// How the agent opens and replaces its own files (lock, settings, event definitions): it
// reads only regular files, without ever blocking on what stands at the path, and writes a
// new file beside the old one that then takes its place, so a link planted at the path is
// replaced instead of followed and a reader sees the old file or the whole new one.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "control/rta_cmdline.h"

/// Opens a regular file for reading (a link to one is followed). Whatever else stands at
/// the path (a FIFO, a device, a directory) is refused without waiting on it: nullptr with
/// errno EINVAL. nullptr with the open's errno when it fails (ENOENT: nothing there).
/// `problem`, when given, receives what is wrong, fit for a message.
FILE* rta_open_regular(const char* path, std::string* problem = nullptr);

/// A file being written under a temporary name in the directory of its final path. It
/// becomes visible only through replace() or publish(); destroyed before that, it vanishes.
class RtaNewFile {
  public:
    /// Creates the temporary file with the given mode; stream() is nullptr when that failed
    /// (errno set).
    RtaNewFile(std::string path, mode_t mode);
    ~RtaNewFile();
    RtaNewFile(const RtaNewFile&) = delete;
    RtaNewFile& operator=(const RtaNewFile&) = delete;

    FILE* stream() const { return stream_; }
    /// Takes the place of whatever stands at the path (a link there is replaced, not
    /// followed). False with errno set when writing or renaming failed.
    bool replace();
    /// Appears at the path only when nothing is there yet (EEXIST otherwise), as an
    /// exclusive create would, but complete from its first moment.
    bool publish();

  private:
    bool finish_writing();

    std::string path_;
    std::string temp_;
    FILE* stream_ = nullptr;
};

/// Anchors every path of the settings record that is relative at the working directory,
/// so that the agent's later change into its install root cannot change what they name.
/// False when the working directory cannot be read.
bool rta_make_paths_absolute(RtaCmdline* record);
