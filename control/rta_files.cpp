#include "control/rta_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "control/rta_text.h"

namespace {

const char* kind_of(mode_t mode) {
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
}

}  // namespace

FILE* rta_open_regular(const char* path, std::string* problem) {
    // Without O_NONBLOCK, opening a FIFO waits for a writer that may never come.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        if (problem) *problem = strerror(e);
        errno = e;
        return nullptr;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int e = errno;
        if (problem) *problem = strerror(e);
        close(fd);
        errno = e;
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        if (problem) *problem = std::string("is ") + kind_of(st.st_mode) + ", not a regular file";
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    // A regular file never blocks; the stream reads it in the ordinary way.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    FILE* fp = fdopen(fd, "r");
    if (!fp) {
        int e = errno;
        if (problem) *problem = strerror(e);
        close(fd);
        errno = e;
    }
    return fp;
}

RtaNewFile::RtaNewFile(std::string path, mode_t mode) : path_(std::move(path)) {
    // The temporary name lies in the same directory, so the rename is atomic; mkstemp
    // creates it exclusively and never through a link.
    std::string temp = path_ + ".XXXXXX";
    int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return;
    temp_ = temp;
    if (fchmod(fd, mode) != 0 || !(stream_ = fdopen(fd, "w"))) {
        int e = errno;
        close(fd);
        unlink(temp_.c_str());
        temp_.clear();
        errno = e;
    }
}

RtaNewFile::~RtaNewFile() {
    if (stream_) fclose(stream_);
    if (!temp_.empty()) unlink(temp_.c_str());
}

bool RtaNewFile::finish_writing() {
    if (!stream_) return false;
    bool ok = fflush(stream_) == 0 && fsync(fileno(stream_)) == 0;
    int e = errno;
    ok = fclose(stream_) == 0 && ok;
    stream_ = nullptr;
    if (!ok) errno = e;
    return ok;
}

bool RtaNewFile::replace() {
    if (!finish_writing()) return false;
    if (rename(temp_.c_str(), path_.c_str()) != 0) return false;
    temp_.clear();
    return true;
}

bool RtaNewFile::publish() {
    if (!finish_writing()) return false;
    // link() fails with EEXIST on anything at the path, a dangling link included, which
    // keeps the exclusive-create rule: of two agents starting at once only one wins.
    if (link(temp_.c_str(), path_.c_str()) != 0) return false;
    unlink(temp_.c_str());
    temp_.clear();
    return true;
}

namespace {

bool anchor(char* field, size_t cap, const std::string& cwd) {
    if (field[0] == '\0' || field[0] == '/') return true;
    std::string absolute = cwd + "/" + field;
    if (absolute.size() >= cap) {
        errno = ENAMETOOLONG;
        return false;
    }
    rta::copy_text(field, cap, absolute.c_str());
    return true;
}

}  // namespace

bool rta_make_paths_absolute(RtaCmdline* r) {
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) return false;
    const std::string here = cwd;
    bool fits = true;
    for (auto* field :
         {&r->install_dir, &r->data_dir, &r->bin_dir, &r->log_dir, &r->tmp_dir, &r->settings_dir,
          &r->config_file, &r->lock_file, &r->log_file, &r->java_log_file})
        fits = anchor(*field, sizeof *field, here) && fits;
    return fits;
}
