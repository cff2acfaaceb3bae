// The floor of a scan: only the work no scan can avoid, as the yardstick for the agent's
// CPU cost per scan. It reads the same system-wide files the agent reads (kept open and
// re-read from offset 0), lists the mount table and asks statvfs for each mount the
// file-system class would show, and for every process opens, reads and closes its stat,
// status and io files into one reused buffer; it parses the numbers and formats them as
// "id=value" lines into one output buffer. No rates, no records, no packet, no socket.
//
//   scan_floor [-interval SECONDS] [-count SCANS] [-quiet]
//
// After every scan it writes "scan <n> <bytes>\n" to standard output (unless -quiet), so a
// harness can count scans; it ends after -count scans (0 = until SIGTERM or SIGINT).
#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace {

volatile sig_atomic_t stop_requested = 0;
void on_stop(int) {
    stop_requested = 1;
}

// The output of one scan: "id=value\n" lines, ids numbered from 1 each scan.
class Lines {
  public:
    void clear() {
        text_.clear();
        id_ = 0;
    }
    void put(int64_t value) {
        char tmp[48];
        char* p = std::to_chars(tmp, tmp + 24, ++id_).ptr;
        *p++ = '=';
        p = std::to_chars(p, tmp + sizeof tmp - 1, value).ptr;
        *p++ = '\n';
        text_.append(tmp, static_cast<size_t>(p - tmp));
    }
    void put_fixed2(double value) {
        char tmp[64];
        char* p = std::to_chars(tmp, tmp + 24, ++id_).ptr;
        *p++ = '=';
        auto r = std::to_chars(p, tmp + sizeof tmp - 1, value, std::chars_format::fixed, 2);
        p = r.ec == std::errc() ? r.ptr : p;
        *p++ = '\n';
        text_.append(tmp, static_cast<size_t>(p - tmp));
    }
    size_t size() const { return text_.size(); }

  private:
    std::string text_;
    int id_ = 0;
};

// A system-wide file kept open and re-read from offset 0 into a buffer that grows to fit.
class KeptFile {
  public:
    explicit KeptFile(std::string path) : path_(std::move(path)) {}
    ~KeptFile() {
        if (fd_ >= 0) close(fd_);
    }
    std::string_view read() {
        if (fd_ < 0) fd_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return {};
        if (buf_.empty()) buf_.resize(16384);
        size_t total = 0;
        for (;;) {
            if (total == buf_.size()) buf_.resize(buf_.size() * 2);
            ssize_t n =
                pread(fd_, buf_.data() + total, buf_.size() - total, static_cast<off_t>(total));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            total += static_cast<size_t>(n);
        }
        return {buf_.data(), total};
    }

  private:
    std::string path_;
    int fd_ = -1;
    std::vector<char> buf_;
};

// Every unsigned decimal number of a piece of text, in order, into `out` (at most `max`).
size_t numbers(std::string_view text, uint64_t* out, size_t max) {
    size_t n = 0;
    size_t i = 0;
    while (i < text.size() && n < max) {
        if (text[i] < '0' || text[i] > '9') {
            ++i;
            continue;
        }
        uint64_t v = 0;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') v = v * 10 + (text[i++] - '0');
        out[n++] = v;
    }
    return n;
}

std::string_view next_line(std::string_view& text) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

// The value of "key" in "key value" / "key: value" lines.
uint64_t keyed(std::string_view text, std::string_view key) {
    size_t at = 0;
    while ((at = text.find(key, at)) != std::string_view::npos) {
        if ((at == 0 || text[at - 1] == '\n') && at + key.size() < text.size() &&
            (text[at + key.size()] == ' ' || text[at + key.size()] == ':')) {
            uint64_t v = 0;
            numbers(text.substr(at + key.size(), 32), &v, 1);
            return v;
        }
        at += key.size();
    }
    return 0;
}

// The value under `name` in the two-line "Proto: names" / "Proto: values" layout of
// net/snmp and net/netstat.
uint64_t table_value(std::string_view text, std::string_view proto, std::string_view name) {
    while (!text.empty()) {
        std::string_view names = next_line(text);
        std::string_view values = next_line(text);
        if (!names.starts_with(proto)) continue;
        size_t column = 0;
        size_t pos = names.find(' ');
        bool found = false;
        while (pos != std::string_view::npos) {
            size_t end = names.find(' ', pos + 1);
            if (names.substr(pos + 1, end == std::string_view::npos ? end : end - pos - 1) ==
                name) {
                found = true;
                break;
            }
            ++column;
            pos = end;
        }
        if (!found) return 0;
        size_t vpos = values.find(' ');
        for (size_t c = 0; c < column && vpos != std::string_view::npos; ++c)
            vpos = values.find(' ', vpos + 1);
        if (vpos == std::string_view::npos) return 0;
        uint64_t v = 0;
        numbers(values.substr(vpos + 1, 24), &v, 1);
        return v;
    }
    return 0;
}

struct Floor {
    KeptFile stat{"/proc/stat"};
    KeptFile meminfo{"/proc/meminfo"};
    KeptFile vmstat{"/proc/vmstat"};
    KeptFile diskstats{"/proc/diskstats"};
    KeptFile snmp{"/proc/net/snmp"};
    KeptFile netstat{"/proc/net/netstat"};
    KeptFile snmp6{"/proc/net/snmp6"};
    Lines out;
    char buf[8192];

    void processors() {
        std::string_view text = stat.read();
        while (!text.empty()) {
            std::string_view line = next_line(text);
            if (!line.starts_with("cpu")) break;
            size_t space = line.find(' ');
            uint64_t v[10] = {};
            numbers(line.substr(space == std::string_view::npos ? line.size() : space), v, 10);
            uint64_t total = 0;
            for (uint64_t x : v) total += x;
            out.put_fixed2(static_cast<double>(v[0] + v[1]) * 100.0 / (total ? total : 1));
            out.put_fixed2(static_cast<double>(v[2] + v[5] + v[6] + v[7]) * 100.0 /
                           (total ? total : 1));
            out.put_fixed2(static_cast<double>(v[3]) * 100.0 / (total ? total : 1));
            out.put_fixed2(static_cast<double>(v[4]) * 100.0 / (total ? total : 1));
            out.put_fixed2(static_cast<double>(total - v[3]) * 100.0 / (total ? total : 1));
        }
    }

    void memory() {
        std::string_view m = meminfo.read();
        uint64_t total = keyed(m, "MemTotal"), avail = keyed(m, "MemAvailable");
        out.put(static_cast<int64_t>(total / 1024));
        out.put_fixed2(total ? (total - avail) * 100.0 / total : 0.0);
        out.put_fixed2(avail / 1024.0);
        out.put_fixed2((total - avail) / 1024.0);
        std::string_view v = vmstat.read();
        for (std::string_view key : {"pgfault", "pgmajfault", "pswpin", "pswpout"})
            out.put(static_cast<int64_t>(keyed(v, key)));
        for (int i = 0; i < 6; ++i) out.put(0);
    }

    void disks() {
        std::string_view text = diskstats.read();
        while (!text.empty()) {
            uint64_t v[20];
            size_t n = numbers(next_line(text), v, 20);
            if (n < 13) continue;
            out.put(static_cast<int64_t>(v[3] + v[7]));
            out.put(static_cast<int64_t>((v[5] + v[9]) * 512));
            out.put(static_cast<int64_t>(v[11]));
            out.put(static_cast<int64_t>(v[12]));
        }
    }

    void network() {
        std::string_view s = snmp.read();
        std::string_view x = netstat.read();
        static constexpr std::pair<const char*, const char*> kFields[] = {
            {"Tcp:", "OutSegs"},        {"Tcp:", "InSegs"},       {"Tcp:", "RetransSegs"},
            {"Tcp:", "CurrEstab"},      {"Tcp:", "ActiveOpens"},  {"Tcp:", "PassiveOpens"},
            {"Tcp:", "AttemptFails"},   {"Tcp:", "EstabResets"},  {"Udp:", "OutDatagrams"},
            {"Udp:", "InDatagrams"},    {"Ip:", "OutRequests"},   {"Ip:", "InReceives"},
            {"Ip:", "OutDiscards"},     {"Ip:", "InDelivers"},    {"Ip:", "InDiscards"},
            {"Ip:", "InUnknownProtos"}, {"Ip:", "ForwDatagrams"}, {"Ip:", "InAddrErrors"},
            {"Ip:", "InHdrErrors"},
        };
        for (const auto& [proto, name] : kFields)
            out.put(static_cast<int64_t>(table_value(s, proto, name)));
        static constexpr std::pair<const char*, const char*> kExt[] = {
            {"IpExt:", "OutOctets"},        {"IpExt:", "InOctets"},
            {"TcpExt:", "TCPOFOQueue"},     {"TcpExt:", "TCPDSACKOldSent"},
            {"TcpExt:", "TCPDSACKOfoSent"}, {"TcpExt:", "TCPPureAcks"},
            {"TcpExt:", "TCPHPAcks"},       {"TcpExt:", "TCPHPHits"},
            {"TcpExt:", "TCPOrigDataSent"},
        };
        for (const auto& [proto, name] : kExt)
            out.put(static_cast<int64_t>(table_value(x, proto, name)));
        std::string_view v6 = snmp6.read();
        for (std::string_view key : {"Ip6OutOctets", "Ip6InOctets"})
            out.put(static_cast<int64_t>(keyed(v6, key)));
        for (int i = 0; i < 3; ++i) out.put(0);
    }

    void file_systems() {
        FILE* table = setmntent("/proc/self/mounts", "r");
        if (!table) return;
        mntent entry{};
        char text[4096];
        while (getmntent_r(table, &entry, text, sizeof text)) {
            if (strstr(entry.mnt_type, "nfs") || strstr(entry.mnt_type, "autofs")) continue;
            struct statvfs vfs {};
            if (statvfs(entry.mnt_dir, &vfs) != 0) continue;
            out.put_fixed2(vfs.f_blocks
                               ? (1.0 - static_cast<double>(vfs.f_bavail) / vfs.f_blocks) * 100.0
                               : 0.0);
            out.put_fixed2(static_cast<double>(vfs.f_bavail));
            out.put_fixed2(static_cast<double>(vfs.f_blocks - vfs.f_bfree));
            out.put_fixed2(static_cast<double>(vfs.f_blocks));
        }
        endmntent(table);
    }

    ssize_t read_file(const char* path) {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return -1;
        ssize_t n = ::read(fd, buf, sizeof buf);
        close(fd);
        return n;
    }

    void processes() {
        DIR* dir = opendir("/proc");
        if (!dir) return;
        char path[64];
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
            snprintf(path, sizeof path, "/proc/%s/stat", e->d_name);
            ssize_t n = read_file(path);
            if (n <= 0) continue;
            std::string_view st(buf, static_cast<size_t>(n));
            size_t close_paren = st.rfind(')');
            if (close_paren == std::string_view::npos) continue;
            uint64_t v[24] = {};
            numbers(st.substr(close_paren + 1), v, 24);
            // After ')' and the state letter: ppid pgrp session tty_nr tpgid flags minflt
            // cminflt majflt cmajflt utime stime cutime cstime priority nice threads
            // itrealvalue starttime vsize rss.
            out.put(atoll(e->d_name));
            out.put(static_cast<int64_t>(v[0]));
            out.put(static_cast<int64_t>(v[3]));
            out.put_fixed2(static_cast<double>(v[10] + v[11]));
            out.put_fixed2(static_cast<double>(v[10]));
            out.put_fixed2(static_cast<double>(v[11]));
            out.put_fixed2(0.0);
            out.put(static_cast<int64_t>(v[6]));
            out.put(static_cast<int64_t>(v[8]));
            out.put(static_cast<int64_t>(v[20]) * 4);
            out.put(static_cast<int64_t>(v[14]));

            snprintf(path, sizeof path, "/proc/%s/status", e->d_name);
            n = read_file(path);
            if (n > 0)
                out.put(static_cast<int64_t>(
                    keyed(std::string_view(buf, static_cast<size_t>(n)), "Uid")));

            snprintf(path, sizeof path, "/proc/%s/io", e->d_name);
            n = read_file(path);
            std::string_view io =
                n > 0 ? std::string_view(buf, static_cast<size_t>(n)) : std::string_view();
            out.put(static_cast<int64_t>(keyed(io, "rchar") + keyed(io, "wchar")));
            out.put(static_cast<int64_t>(keyed(io, "syscr") + keyed(io, "syscw")));
            out.put(static_cast<int64_t>(keyed(io, "read_bytes") / 512));
            out.put(static_cast<int64_t>(keyed(io, "write_bytes") / 512));
            out.put(0);
        }
        closedir(dir);
    }

    size_t scan() {
        out.clear();
        processors();
        memory();
        disks();
        network();
        file_systems();
        processes();
        return out.size();
    }
};

}  // namespace

int main(int argc, char** argv) {
    double interval = 2.0;
    long count = 0;
    bool quiet = false;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "-interval" && i + 1 < argc)
            interval = atof(argv[++i]);
        else if (a == "-count" && i + 1 < argc)
            count = atol(argv[++i]);
        else if (a == "-quiet")
            quiet = true;
        else {
            fprintf(stderr, "usage: scan_floor [-interval SECONDS] [-count SCANS] [-quiet]\n");
            return 2;
        }
    }
    signal(SIGTERM, on_stop);
    signal(SIGINT, on_stop);

    static Floor floor;
    for (long n = 1; !stop_requested; ++n) {
        size_t bytes = floor.scan();
        if (!quiet) {
            char line[64];
            int len = snprintf(line, sizeof line, "scan %ld %zu\n", n, bytes);
            if (write(STDOUT_FILENO, line, static_cast<size_t>(len)) < 0) break;
        }
        if (count > 0 && n >= count) break;
        if (interval > 0) {
            timespec ts{static_cast<time_t>(interval),
                        static_cast<long>((interval - static_cast<time_t>(interval)) * 1e9)};
            while (nanosleep(&ts, &ts) != 0 && errno == EINTR && !stop_requested) {
            }
        }
    }
    return 0;
}
