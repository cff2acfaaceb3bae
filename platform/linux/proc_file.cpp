#include "platform/linux/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/roots.h"

namespace platform::procfs {

ProcFile::~ProcFile() {
    close_fd();
}

void ProcFile::close_fd() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool ProcFile::open_current() {
    close_fd();
    generation_ = roots_generation();
    path_ = roots().proc + "/" + relative_;
    fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        error_ = errno;
        return false;
    }
    return true;
}

bool ProcFile::read(std::string_view& text) {
    text = {};
    // A failed read may mean the descriptor went stale; one fresh open is worth a try.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if ((fd_ < 0 || generation_ != roots_generation() || attempt > 0) && !open_current())
            return false;
        if (buffer_.empty()) buffer_.resize(4096);
        size_t total = 0;
        bool failed = false;
        for (;;) {
            if (total == buffer_.size()) {
                if (buffer_.size() >= kMaxProcFile) {
                    error_ = EFBIG;
                    return false;
                }
                buffer_.resize(buffer_.size() * 2);
            }
            ssize_t n = ::pread(fd_, buffer_.data() + total, buffer_.size() - total,
                                static_cast<off_t>(total));
            if (n < 0) {
                if (errno == EINTR) continue;
                error_ = errno;
                failed = true;
                break;
            }
            if (n == 0) break;
            total += static_cast<size_t>(n);
        }
        if (failed) continue;
        error_ = 0;
        text = std::string_view(buffer_.data(), total);
        return true;
    }
    close_fd();
    return false;
}

}  // namespace platform::procfs
