// Scan cost of the agent against the floor of a scan (scan_floor), side by side on this
// host, with its own processes and then with extra sleeping processes; then memory growth
// over many scans in one process (scan_soak).
//
//   scan_harness [-agent PATH] [-floor PATH] [-soak PATH] [-duration S] [-interval S]
//                [-extra N,N,...] [-soak-scans N] [-warmup SCANS]
//
// Defaults: the programs next to this one, 60 s at a 2 s scan, extra 0,1000,5000, 1000
// soak scans. For every process count the agent runs with -nofork on a free local port and
// a temporary install root (QUORBEX_LIBRARY) with -collectprocess, and a console connection
// sends "<DATA>" and reads every packet, so packets are really built and sent. CPU time is
// user + system of /proc/<pid>/stat over the measured window, divided by the scans in it
// (data packets received for the agent, scans reported by the floor); the warm-up scans
// (header packet, registering every process) stay outside the window. Those figures move
// in 10 ms ticks, which is most of a small scan's cost over 30 scans, so the run time of
// the threads from schedstat (nanoseconds) is shown beside them with its own ratio.
// Sleepers, agent and floor are ended by pid.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string agent, floor, soak;
    double duration = 60, interval = 2;
    std::vector<int> extra{0, 1000, 5000};
    long soak_scans = 1000;
    int warmup = 2;
};

std::string own_dir() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    path[n] = '\0';
    return std::filesystem::path(path).parent_path().string();
}

// ---- reading another process ------------------------------------------------------------

std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// utime + stime in clock ticks, all threads, live and ended.
long long cpu_ticks(pid_t pid) {
    std::string st = read_text("/proc/" + std::to_string(pid) + "/stat");
    size_t close = st.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream in(st.substr(close + 2));
    std::string field;
    long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && (in >> field); ++i) {
        if (i == 14) utime = atoll(field.c_str());
        if (i == 15) stime = atoll(field.c_str());
    }
    return utime + stime;
}

// Run time of the live threads in nanoseconds (schedstat's first field).
long long run_ns(pid_t pid) {
    std::string dir = "/proc/" + std::to_string(pid) + "/task";
    long long total = 0;
    DIR* d = opendir(dir.c_str());
    if (!d) return -1;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        total += atoll(read_text(dir + "/" + e->d_name + "/schedstat").c_str());
    }
    closedir(d);
    return total;
}

long status_kb(pid_t pid, const char* key) {
    std::istringstream in(read_text("/proc/" + std::to_string(pid) + "/status"));
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0) return atol(line.c_str() + strlen(key));
    return -1;
}

int count_processes() {
    int n = 0;
    DIR* d = opendir("/proc");
    if (!d) return -1;
    while (dirent* e = readdir(d))
        if (e->d_name[0] >= '1' && e->d_name[0] <= '9') ++n;
    closedir(d);
    return n;
}

// ---- children -------------------------------------------------------------------------

std::vector<pid_t> start_sleepers(int n) {
    std::vector<pid_t> pids;
    pids.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        pid_t pid = fork();
        if (pid < 0) {
            perror("scan_harness: fork");
            break;
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, "vornsleeper");
            for (;;) pause();
        }
        pids.push_back(pid);
    }
    return pids;
}

void end_children(const std::vector<pid_t>& pids) {
    for (pid_t pid : pids) kill(pid, SIGKILL);
    for (pid_t pid : pids) waitpid(pid, nullptr, 0);
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& out_file, int* stdout_pipe,
            const std::string& env_root) {
    int pipefd[2] = {-1, -1};
    if (stdout_pipe && pipe(pipefd) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out >= 0) {
            dup2(out, STDERR_FILENO);
            if (!stdout_pipe) dup2(out, STDOUT_FILENO);
        }
        if (stdout_pipe) dup2(pipefd[1], STDOUT_FILENO);
        if (!env_root.empty()) setenv("QUORBEX_LIBRARY", env_root.c_str(), 1);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    if (stdout_pipe) {
        close(pipefd[1]);
        *stdout_pipe = pipefd[0];
    }
    return pid;
}

// SIGINT (or the given signal), then SIGKILL if it has not ended within `grace` seconds.
void stop(pid_t pid, int sig, double grace) {
    if (pid <= 0) return;
    kill(pid, sig);
    auto deadline = Clock::now() + std::chrono::duration<double>(grace);
    while (Clock::now() < deadline) {
        if (waitpid(pid, nullptr, WNOHANG) == pid) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

int free_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(s);
        return -1;
    }
    close(s);
    return ntohs(a.sin_port);
}

// ---- the console ------------------------------------------------------------------------

// Reads packets (" \nBUFFERSIZE=%06d\n" and that many bytes) until told to stop.
struct Console {
    int fd = -1;
    std::atomic<bool> stop{false};
    std::atomic<long> packets{0};
    std::atomic<long> last_size{0};
    std::atomic<long> first_size{0};
    std::thread reader;

    bool connect_to(int port, double timeout_s) {
        auto deadline = Clock::now() + std::chrono::duration<double>(timeout_s);
        while (Clock::now() < deadline) {
            fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(port));
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
                timeval tv{1, 0};
                setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
                const char request[] = "<DATA>\n2\n";
                if (send(fd, request, sizeof request - 1, MSG_NOSIGNAL) != sizeof request - 1)
                    return false;
                reader = std::thread([this] { run(); });
                return true;
            }
            close(fd);
            fd = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    void run() {
        char buf[65536];
        while (!stop.load()) {
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n == 0) break;
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
                break;
            }
            feed(buf, static_cast<size_t>(n));
        }
    }

    // Body bytes are skipped by count; between bodies the prefix is looked for.
    void feed(const char* data, size_t len) {
        while (len > 0) {
            if (skip_ > 0) {
                size_t take = std::min(skip_, len);
                skip_ -= take;
                data += take;
                len -= take;
                if (skip_ == 0) ++packets;
                continue;
            }
            pending_.append(data, len);
            len = 0;
            size_t key = pending_.find("BUFFERSIZE=");
            if (key == std::string::npos) {
                if (pending_.size() > 64) pending_.erase(0, pending_.size() - 16);
                return;
            }
            size_t end = pending_.find('\n', key);
            if (end == std::string::npos) return;
            const long size = atol(pending_.c_str() + key + strlen("BUFFERSIZE="));
            if (first_size == 0) first_size = size;
            last_size = size;
            std::string rest = pending_.substr(end + 1);
            pending_.clear();
            skip_ = static_cast<size_t>(size > 0 ? size : 0);
            if (skip_ == 0) ++packets;
            feed(rest.data(), rest.size());
            return;
        }
    }

    std::string pending_;
    size_t skip_ = 0;

    void close_all() {
        stop = true;
        if (fd >= 0) shutdown(fd, SHUT_RDWR);
        if (reader.joinable()) reader.join();
        if (fd >= 0) close(fd);
        fd = -1;
    }
};

// Counts the floor's "scan <n> <bytes>" lines.
struct FloorScans {
    int fd = -1;
    std::atomic<long> scans{0};
    std::thread reader;
    void start(int pipe_fd) {
        fd = pipe_fd;
        reader = std::thread([this] {
            char buf[4096];
            for (;;) {
                ssize_t n = read(fd, buf, sizeof buf);
                if (n <= 0) break;
                for (ssize_t i = 0; i < n; ++i)
                    if (buf[i] == '\n') ++scans;
            }
        });
    }
    void join() {
        if (reader.joinable()) reader.join();
        if (fd >= 0) close(fd);
    }
};

struct Row {
    int extra = 0;
    int processes = 0;
    double agent_ms = 0, floor_ms = 0, ratio = 0;
    double agent_run_ms = 0, floor_run_ms = 0, ratio_run = 0;
    double agent_hwm_mb = 0, floor_hwm_mb = 0;
    double agent_rss_mb = 0;  // at the end of the window, long after the header pass
    double packet_kb = 0;
    long agent_scans = 0, floor_scans = 0;
    bool ok = false;
};

bool wait_for(const std::function<bool()>& done, double timeout_s) {
    auto deadline = Clock::now() + std::chrono::duration<double>(timeout_s);
    while (Clock::now() < deadline) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return done();
}

void show_tail(const std::string& file) {
    std::string text = read_text(file);
    if (text.size() > 2000) text = text.substr(text.size() - 2000);
    fprintf(stderr, "--- %s ---\n%s\n", file.c_str(), text.c_str());
}

Row measure(const Options& o, int extra) {
    Row row;
    row.extra = extra;
    std::vector<pid_t> sleepers = start_sleepers(extra);
    fprintf(stderr, "scan_harness: %zu sleepers started\n", sleepers.size());

    char root_template[] = "/tmp/vornbench.XXXXXX";
    std::string root = mkdtemp(root_template) ? root_template : "";
    for (const char* sub : {"logs", "tmp", "settings", "data"})
        std::filesystem::create_directories(root + "/" + sub);
    const int port = free_port();
    const std::string agent_out = root + "/agent.out", floor_out = root + "/floor.out";

    pid_t agent = spawn({o.agent, "-nofork", "-port", std::to_string(port), "-collectprocess",
                         "-scan", std::to_string(static_cast<int>(o.interval))},
                        agent_out, nullptr, root);
    int floor_pipe = -1;
    char interval_text[32];
    snprintf(interval_text, sizeof interval_text, "%g", o.interval);
    pid_t floor = spawn({o.floor, "-interval", interval_text}, floor_out, &floor_pipe, "");
    FloorScans floor_scans;
    floor_scans.start(floor_pipe);

    Console console;
    const double warm_timeout = 60 + extra / 20.0;
    if (!console.connect_to(port, 30)) {
        fprintf(stderr, "scan_harness: cannot connect to the agent on port %d\n", port);
        show_tail(agent_out);
    } else if (!wait_for(
                   [&] { return console.packets >= 1 + o.warmup && floor_scans.scans >= o.warmup; },
                   warm_timeout)) {
        fprintf(stderr, "scan_harness: no packets from the agent within %.0f s (got %ld)\n",
                warm_timeout, console.packets.load());
        show_tail(agent_out);
    } else {
        row.processes = count_processes();
        const long p0 = console.packets, f0 = floor_scans.scans;
        const long long a0 = cpu_ticks(agent), b0 = cpu_ticks(floor);
        const long long an0 = run_ns(agent), bn0 = run_ns(floor);
        std::this_thread::sleep_for(std::chrono::duration<double>(o.duration));
        const long p1 = console.packets, f1 = floor_scans.scans;
        const long long a1 = cpu_ticks(agent), b1 = cpu_ticks(floor);
        const long long an1 = run_ns(agent), bn1 = run_ns(floor);
        row.agent_scans = p1 - p0;
        row.floor_scans = f1 - f0;
        const double tick_ms = 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
        if (row.agent_scans > 0 && row.floor_scans > 0) {
            row.agent_ms =
                static_cast<double>(a1 - a0) * tick_ms / static_cast<double>(row.agent_scans);
            row.floor_ms =
                static_cast<double>(b1 - b0) * tick_ms / static_cast<double>(row.floor_scans);
            row.ratio = row.floor_ms > 0 ? row.agent_ms / row.floor_ms : 0;
            row.agent_run_ms =
                static_cast<double>(an1 - an0) / 1e6 / static_cast<double>(row.agent_scans);
            row.floor_run_ms =
                static_cast<double>(bn1 - bn0) / 1e6 / static_cast<double>(row.floor_scans);
            row.ratio_run = row.floor_run_ms > 0 ? row.agent_run_ms / row.floor_run_ms : 0;
            row.ok = true;
        }
        row.agent_hwm_mb = status_kb(agent, "VmHWM:") / 1024.0;
        row.agent_rss_mb = status_kb(agent, "VmRSS:") / 1024.0;
        row.floor_hwm_mb = status_kb(floor, "VmHWM:") / 1024.0;
        row.packet_kb = console.last_size / 1024.0;
    }

    console.close_all();
    stop(agent, SIGINT, 10);
    stop(floor, SIGTERM, 5);
    floor_scans.join();
    end_children(sleepers);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return row;
}

std::vector<int> parse_list(const char* text) {
    std::vector<int> out;
    std::stringstream ss(text);
    for (std::string item; std::getline(ss, item, ',');)
        if (!item.empty()) out.push_back(atoi(item.c_str()));
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const std::string dir = own_dir();
    o.agent = dir + "/vornrta";
    o.floor = dir + "/scan_floor";
    o.soak = dir + "/scan_soak";
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        auto next = [&]() -> const char* { return i + 1 < argc ? argv[++i] : ""; };
        if (a == "-agent")
            o.agent = next();
        else if (a == "-floor")
            o.floor = next();
        else if (a == "-soak")
            o.soak = next();
        else if (a == "-duration")
            o.duration = atof(next());
        else if (a == "-interval")
            o.interval = atof(next());
        else if (a == "-extra")
            o.extra = parse_list(next());
        else if (a == "-soak-scans")
            o.soak_scans = atol(next());
        else if (a == "-warmup")
            o.warmup = atoi(next());
        else {
            fprintf(stderr,
                    "usage: scan_harness [-agent PATH] [-floor PATH] [-soak PATH] [-duration S] "
                    "[-interval S] [-extra N,N,...] [-soak-scans N] [-warmup SCANS]\n");
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);

    std::vector<Row> rows;
    for (int extra : o.extra) rows.push_back(measure(o, extra));

    printf("Scan cost, %.0f s at a %g s scan, agent against the floor of a scan\n\n", o.duration,
           o.interval);
    printf(
        "| extra sleepers | processes | agent CPU ms/scan | floor CPU ms/scan | ratio "
        "| agent run ms/scan | floor run ms/scan | ratio (run) | agent peak RSS MB "
        "| agent RSS at end MB | data packet KB |\n");
    printf("|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    bool all_ok = true;
    for (const Row& r : rows) {
        if (!r.ok) {
            printf("| %d | - | failed | | | | | | | | |\n", r.extra);
            all_ok = false;
            continue;
        }
        printf("| %d | %d | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.1f | %.1f | %.0f |\n",
               r.extra, r.processes, r.agent_ms, r.floor_ms, r.ratio, r.agent_run_ms,
               r.floor_run_ms, r.ratio_run, r.agent_hwm_mb, r.agent_rss_mb, r.packet_kb);
    }
    printf("\n(scans measured per row: agent/floor");
    for (const Row& r : rows) printf(" %ld/%ld", r.agent_scans, r.floor_scans);
    printf(")\n");

    if (o.soak_scans > 0) {
        std::string cmd = o.soak + " -scans " + std::to_string(o.soak_scans) + " 2>/dev/null";
        FILE* p = popen(cmd.c_str(), "r");
        char line[512] = "";
        if (p) {
            if (!fgets(line, sizeof line, p)) line[0] = '\0';
            pclose(p);
        }
        printf("\nMemory over %ld scans in one process (scan_soak): %s", o.soak_scans,
               line[0] ? line : "failed\n");
    }
    return all_ok ? 0 : 1;
}
