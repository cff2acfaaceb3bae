// Floods a running agent the way broken and hostile consoles would, then checks that it
// gave back everything the flood took and still serves its data console on time.
//
//   agent_stress -agent PATH [-connections N] [-concurrent C] [-soak SECONDS]
//
// The agent is started on a scratch install root and a free loopback port. One flood is N
// connections (default 3000), C at a time (default 200), each from its own loopback source
// address (127.0.x.y), each playing one part: a request of every kind, a takeover of the data
// connection, a trickling or silent client, a disconnect in the middle of a packet, a
// megabyte line, binary garbage. Before and after the flood the agent's descriptors
// (/proc/<pid>/fd), threads (/proc/<pid>/task) and resident size are read; afterwards a data
// console must get its packets at the one-second interval it asked for.
//
// With -soak the flood runs in rounds for that many seconds while short-lived processes come
// and go for the process scan; the three figures are sampled every ten seconds and their
// slopes printed. Exit status 1 when a check failed or the agent died.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// ---- the agent's use of the machine -------------------------------------------------------

struct Usage {
    long fds = -1;
    long threads = -1;
    long rss_kb = -1;
};

long count_entries(const std::string& dir) {
    std::error_code ec;
    long n = 0;
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        ++n;
    return ec ? -1 : n;
}

Usage usage_of(pid_t pid) {
    const std::string base = "/proc/" + std::to_string(pid);
    Usage u;
    u.fds = count_entries(base + "/fd");
    u.threads = count_entries(base + "/task");
    std::ifstream status(base + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) u.rss_kb = std::atol(line.c_str() + 6);
    return u;
}

void print_usage(const char* when, const Usage& u) {
    printf("%-7s descriptors %ld, threads %ld, resident %ld kB\n", when, u.fds, u.threads,
           u.rss_kb);
}

// ---- the agent ----------------------------------------------------------------------------

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

struct AgentProcess {
    pid_t pid = -1;
    std::string root;
    int port = -1;

    bool start(const std::string& binary) {
        char tmpl[] = "/tmp/vornstress.XXXXXX";
        if (!mkdtemp(tmpl)) return false;
        root = tmpl;
        for (const char* d : {"logs", "tmp", "settings", "data"}) mkdir((root + "/" + d).c_str(), 0755);
        port = free_port();
        const std::string port_text = std::to_string(port);
        pid = fork();
        if (pid == 0) {
            setenv("QUORBEX_LIBRARY", root.c_str(), 1);
            // The C library keeps up to 40 MiB of finished threads' stacks for reuse; without
            // that cache the resident size shows what the agent itself keeps.
            setenv("GLIBC_TUNABLES", "glibc.pthread.stack_cache_size=0", 1);
            int out = open((root + "/agent.out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(out, 1);
            dup2(out, 2);
            execl(binary.c_str(), binary.c_str(), "-nofork", "-nolock", "-collectprocess", "-scan", "1", "-port",
                  port_text.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        return pid > 0;
    }

    bool alive() const { return pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0; }

    // SIGINT is the agent's stop; a kill follows only when it does not stop in time.
    // keep_root leaves the install root (log, settings) behind for a look after a failure.
    void stop(bool keep_root = false) {
        if (pid <= 0) return;
        kill(pid, SIGINT);
        for (int i = 0; i < 100 && waitpid(pid, nullptr, WNOHANG) == 0; ++i) sleep_ms(100);
        if (waitpid(pid, nullptr, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        pid = -1;
        std::error_code ec;
        if (keep_root)
            printf("the agent's install root is kept: %s\n", root.c_str());
        else
            std::filesystem::remove_all(root, ec);
    }
};

// ---- loopback clients ---------------------------------------------------------------------

// A connection from the source address `source` (host order), or -1. Every wait is bounded.
int connect_from(uint32_t source, int port, int timeout_ms) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    // What a closed connection leaves in TIME_WAIT must not keep a later server (which sets
    // SO_REUSEADDR, as the agent does) from binding a port: that needs it here too.
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = htonl(source);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS)) {
        close(fd);
        return -1;
    }
    pollfd p{fd, POLLOUT, 0};
    int err = 0;
    socklen_t len = sizeof err;
    if (poll(&p, 1, timeout_ms) != 1 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 ||
        err != 0) {
        close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, 0);
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    return fd;
}

bool send_text(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads until end of stream, `limit` bytes or `timeout_ms`; the bytes read.
size_t read_for(int fd, int timeout_ms, size_t limit = SIZE_MAX) {
    const auto start = Clock::now();
    size_t total = 0;
    char buf[16384];
    for (;;) {
        int left = timeout_ms - static_cast<int>(seconds_since(start) * 1000);
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) != 1) break;
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        total += static_cast<size_t>(n);
        if (total >= limit) break;
    }
    return total;
}

// Ends a connection with a reset instead of an orderly close.
void reset_close(int fd) {
    linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close(fd);
}

// ---- the data console ---------------------------------------------------------------------

// A console on 127.0.0.1 that asks for data and notes when each whole packet
// (" \nBUFFERSIZE=nnnnnn\n" and its body) arrived. The agent is started with -scan 1, which
// sets its tick; the interval a console sends is only printed in the packets.
class DataConsole {
  public:
    bool start(int port) {
        fd_ = connect_from(INADDR_LOOPBACK, port, 2000);
        if (fd_ < 0 || !send_text(fd_, "<DATA>\n1\n")) return false;
        reader_ = std::thread([this] { read_packets(); });
        return true;
    }
    ~DataConsole() { stop(); }
    void stop() {
        done_ = true;
        if (reader_.joinable()) reader_.join();
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    std::vector<double> arrivals() {
        std::lock_guard<std::mutex> hold(lock_);
        return arrivals_;
    }
    bool wait_packets(size_t count, int timeout_ms) {
        for (int waited = 0; waited < timeout_ms; waited += 50) {
            if (arrivals().size() >= count) return true;
            sleep_ms(50);
        }
        return false;
    }

  private:
    void read_packets() {
        const auto start = Clock::now();
        std::string pending;
        char buf[65536];
        while (!done_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 100) != 1) continue;
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0) return;  // taken over or gone
            pending.append(buf, static_cast<size_t>(n));
            for (;;) {
                size_t tag = pending.find("BUFFERSIZE=");
                if (tag == std::string::npos) break;
                size_t nl = pending.find('\n', tag);
                if (nl == std::string::npos) break;
                size_t body = std::strtoul(pending.c_str() + tag + 11, nullptr, 10);
                if (pending.size() < nl + 1 + body) break;
                pending.erase(0, nl + 1 + body);
                std::lock_guard<std::mutex> hold(lock_);
                arrivals_.push_back(seconds_since(start));
            }
        }
    }

    int fd_ = -1;
    std::atomic<bool> done_{false};
    std::thread reader_;
    std::mutex lock_;
    std::vector<double> arrivals_;
};

// ---- the flood ----------------------------------------------------------------------------

enum class Part { kRequest, kTakeover, kTrickle, kSilent, kMidPacket, kMegaLine, kGarbage };

// One connection in twenty-five of each slow or heavy kind keeps a flood's length bounded;
// requests make up the rest.
Part part_for(unsigned serial) {
    switch (serial % 25) {
        case 0: case 1: return Part::kTakeover;
        case 2: case 3: return Part::kTrickle;
        case 4: case 5: return Part::kSilent;
        case 6: case 7: return Part::kMidPacket;
        case 8: return serial % 200 == 8 ? Part::kMegaLine : Part::kGarbage;
        case 9: case 10: case 11: return Part::kGarbage;
        default: return Part::kRequest;
    }
}

const char* const kRequests[] = {
    "<DESC>\n",
    "<GETALERTS>\n",
    "<EVENT_GET_ALERTS>\n",
    "<ALERT_INTERVAL>\n30\n</ALERT_INTERVAL>\n",
    "<INTERVAL>\n1\n",
    ("<EXPDEF>\nbusy:Cpu->% Busy:>:1:0:0:stress rule\n"
     "any:Process->*->% CPU Utilization:>=:0:0:0:every process\n</EXPDEF>\n"),
    "<EVENT>\nstress event one\nstress event two\n",
    "<EVENT_DEF>\nstress:Cpu->% Busy:>:99:0:1:event rule\n</EVENT>\n",
    "hello\nEXIT\n",
};

struct FloodCounts {
    std::atomic<long> connected{0}, refused{0};
};

void play(Part part, unsigned serial, int fd, std::mt19937& rng) {
    switch (part) {
        case Part::kRequest:
            if (send_text(fd, kRequests[serial % (sizeof kRequests / sizeof *kRequests)]))
                read_for(fd, 1500);
            close(fd);
            break;
        case Part::kTakeover:  // <DATA> after <DATA>: each takes the stream from the last
            if (send_text(fd, "<DATA>\n1\n")) read_for(fd, 1500, 4096);
            close(fd);
            break;
        case Part::kTrickle: {
            const std::string line = "<GETALERTS>\n";
            for (char c : line) {
                if (!send_text(fd, std::string(1, c))) break;
                sleep_ms(100 + static_cast<int>(rng() % 150));
            }
            read_for(fd, 500);
            close(fd);
            break;
        }
        case Part::kSilent:
            sleep_ms(1000 + static_cast<int>(rng() % 2000));
            close(fd);
            break;
        case Part::kMidPacket:  // a reset after the first bytes of a packet
            if (send_text(fd, "<DATA>\n1\n")) read_for(fd, 2500, 64);
            reset_close(fd);
            break;
        case Part::kMegaLine:
            send_text(fd, std::string(1 << 20, 'M'));
            close(fd);
            break;
        case Part::kGarbage: {
            std::string junk(4096 + rng() % 8192, '\0');
            for (char& c : junk) c = static_cast<char>(rng());
            send_text(fd, junk);
            if (rng() % 2)
                reset_close(fd);
            else
                close(fd);
            break;
        }
    }
}

// `connections` connections, `concurrent` at a time. Worker w connects from the address
// 127.0.0.2 + w + concurrent * k (k = 0..63 changes with each batch), so no source address
// holds more than one connection at a time and none is the data console's 127.0.0.1.
void flood(int port, unsigned connections, unsigned concurrent, unsigned seed, FloodCounts& counts) {
    std::atomic<unsigned> next{0};
    std::vector<std::thread> workers;
    for (unsigned w = 0; w < concurrent; ++w) {
        workers.emplace_back([&, w] {
            std::mt19937 rng(seed + w);
            for (unsigned serial; (serial = next.fetch_add(1)) < connections;) {
                const uint32_t host = 2 + (w + concurrent * (serial / concurrent % 64)) % 65000;
                const uint32_t source = (127u << 24) | host;
                int fd = connect_from(source, port, 3000);
                if (fd < 0) {
                    ++counts.refused;
                    continue;
                }
                ++counts.connected;
                play(part_for(serial), serial, fd, rng);
            }
        });
    }
    for (std::thread& t : workers) t.join();
}

// ---- short-lived processes for the soak ----------------------------------------------------

class ProcessChurn {
  public:
    void start() {
        thread_ = std::thread([this] { run(); });
    }
    ~ProcessChurn() { stop(); }
    void stop() {
        done_ = true;
        if (thread_.joinable()) thread_.join();
    }
    long started() const { return started_; }

  private:
    void run() {
        std::mt19937 rng(7);
        std::vector<pid_t> alive;
        while (!done_) {
            while (alive.size() < 30) {
                const int life_ms = 50 + static_cast<int>(rng() % 1500);
                const unsigned serial = static_cast<unsigned>(started_++);
                pid_t pid = fork();
                if (pid == 0) {
                    prctl(PR_SET_PDEATHSIG, SIGKILL);
                    char name[16];
                    snprintf(name, sizeof name, "churn%u", serial % 50);
                    prctl(PR_SET_NAME, name);
                    usleep(static_cast<useconds_t>(life_ms) * 1000);
                    _exit(0);
                }
                if (pid > 0) alive.push_back(pid);
            }
            sleep_ms(20);
            alive.erase(std::remove_if(alive.begin(), alive.end(),
                                       [](pid_t p) { return waitpid(p, nullptr, WNOHANG) == p; }),
                        alive.end());
        }
        for (pid_t p : alive) {
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
    }

    std::atomic<bool> done_{false};
    std::atomic<long> started_{0};
    std::thread thread_;
};

// Least-squares slope of y over x.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
    const double n = static_cast<double>(x.size());
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    const double d = n * sxx - sx * sx;
    return d == 0 ? 0 : (n * sxy - sx * sy) / d;
}

// ---- checks ---------------------------------------------------------------------------------

// Waits for the agent to let go of what the flood took: request threads finish their
// replies and pauses after the last client went. The last reading either way.
Usage settle(pid_t pid, const Usage& target, int timeout_s) {
    Usage u = usage_of(pid);
    for (int i = 0; i < timeout_s * 4; ++i) {
        if (u.fds <= target.fds && u.threads <= target.threads) break;
        sleep_ms(250);
        u = usage_of(pid);
    }
    return u;
}

bool wait_listening(const AgentProcess& agent) {
    for (int i = 0; i < 100 && agent.alive(); ++i) {
        int fd = connect_from(INADDR_LOOPBACK, agent.port, 1000);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        sleep_ms(100);
    }
    return false;
}

// Waits until descriptors and threads have stayed the same for three seconds (at most
// `timeout_s`): the reading a flood is compared with.
Usage steady(pid_t pid, int timeout_s) {
    Usage last = usage_of(pid);
    int same = 0;
    for (int i = 0; i < timeout_s * 4 && same < 12; ++i) {
        sleep_ms(250);
        Usage u = usage_of(pid);
        same = u.fds == last.fds && u.threads == last.threads ? same + 1 : 0;
        last = u;
    }
    return last;
}

// Packets at the one-second interval: at least four in six seconds, none more than 2.5 s
// after the one before.
bool packets_on_time(DataConsole& console, std::string& why) {
    if (!console.wait_packets(2, 5000)) {
        why = "no packets within 5 s of <DATA>";
        return false;
    }
    const size_t from = console.arrivals().size();
    sleep_ms(6000);
    std::vector<double> t = console.arrivals();
    if (t.size() < from + 4) {
        why = std::to_string(t.size() - from) + " packets in 6 s at a 1 s interval";
        return false;
    }
    double worst = 0;
    for (size_t i = from; i < t.size(); ++i) worst = std::max(worst, t[i] - t[i - 1]);
    printf("packets %zu in 6 s, longest gap %.2f s\n", t.size() - from, worst);
    if (worst > 2.5) {
        why = "a gap of " + std::to_string(worst) + " s between packets";
        return false;
    }
    return true;
}

struct Options {
    std::string agent;
    unsigned connections = 3000;
    unsigned concurrent = 200;
    int soak_seconds = 0;
};

bool parse_options(int argc, char** argv, Options& o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "-agent") o.agent = value;
        else if (key == "-connections") o.connections = static_cast<unsigned>(std::atoi(value));
        else if (key == "-concurrent") o.concurrent = static_cast<unsigned>(std::atoi(value));
        else if (key == "-soak") o.soak_seconds = std::atoi(value);
        else return false;
    }
    return !o.agent.empty() && o.connections > 0 && o.concurrent > 0 && o.concurrent <= 1000 &&
           argc % 2 == 1;
}

void run_soak(AgentProcess& agent, const Options& o) {
    ProcessChurn churn;
    churn.start();
    const auto start = Clock::now();
    std::vector<double> minutes, rss, fds, threads;
    std::atomic<bool> done{false};
    std::thread sampler([&] {
        printf("%8s %12s %12s %8s\n", "seconds", "resident kB", "descriptors", "threads");
        while (!done) {
            Usage u = usage_of(agent.pid);
            const double t = seconds_since(start);
            printf("%8.0f %12ld %12ld %8ld\n", t, u.rss_kb, u.fds, u.threads);
            fflush(stdout);
            minutes.push_back(t / 60);
            rss.push_back(static_cast<double>(u.rss_kb));
            fds.push_back(static_cast<double>(u.fds));
            threads.push_back(static_cast<double>(u.threads));
            for (int i = 0; i < 40 && !done; ++i) sleep_ms(250);
        }
    });
    FloodCounts counts;
    for (unsigned round = 0; seconds_since(start) < o.soak_seconds && agent.alive(); ++round)
        flood(agent.port, 300, std::min(o.concurrent, 50u), 1000 + round, counts);
    done = true;
    sampler.join();
    churn.stop();
    // The first minute holds the warm-up (thread stacks, the first process scans).
    std::vector<double> x, r, f, th;
    for (size_t i = 0; i < minutes.size(); ++i) {
        if (minutes[i] < 1 && minutes.back() >= 2) continue;
        x.push_back(minutes[i]);
        r.push_back(rss[i]);
        f.push_back(fds[i]);
        th.push_back(threads[i]);
    }
    printf("soak: %.0f s, %ld connections (%ld refused), %ld processes started\n",
           seconds_since(start), counts.connected.load(), counts.refused.load(), churn.started());
    printf("slope per minute: resident %+.1f kB, descriptors %+.2f, threads %+.2f\n",
           slope(x, r), slope(x, f), slope(x, th));
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse_options(argc, argv, o)) {
        fprintf(stderr,
                "usage: agent_stress -agent PATH [-connections N] [-concurrent C] "
                "[-soak SECONDS]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);  // figures appear as they are measured
    AgentProcess agent;
    if (!agent.start(o.agent)) {
        perror("agent_stress: starting the agent");
        return 1;
    }
    int failures = 0;
    auto fail = [&](const std::string& what) {
        printf("FAIL: %s\n", what.c_str());
        ++failures;
    };

    {
        // The first console and a small flood bring the agent to its working size: thread
        // stacks, allocator arenas, the process tree.
        DataConsole first;
        if (!wait_listening(agent) || !first.start(agent.port)) {
            fail("the agent did not accept connections");
            agent.stop(true);
            return 1;
        }
        if (!first.wait_packets(2, 10000)) fail("the agent sent no packets to its first console");
        FloodCounts warm;
        flood(agent.port, std::min(o.connections, 400u), o.concurrent, 1, warm);
    }
    {
        DataConsole console;
        if (!console.start(agent.port) || !console.wait_packets(2, 10000))
            fail("no packets after the warm-up flood");
    }
    // Both readings are taken with no console connected.
    const Usage before = steady(agent.pid, 30);
    print_usage("before", before);

    const auto flood_start = Clock::now();
    if (o.soak_seconds > 0) {
        run_soak(agent, o);
    } else {
        FloodCounts counts;
        flood(agent.port, o.connections, o.concurrent, 2, counts);
        printf("flood: %ld connections (%ld refused) in %.1f s, %u at once\n",
               counts.connected.load(), counts.refused.load(), seconds_since(flood_start),
               o.concurrent);
    }
    if (!agent.alive()) {
        fail("the agent died during the flood");
        return 1;
    }
    // Only once every request thread is gone is no request of the flood left to take the
    // data connection from the console that asks next.
    const Usage after = settle(agent.pid, before, 60);
    print_usage("after", after);
    DataConsole after_console;
    if (!after_console.start(agent.port)) fail("the data console could not connect after the flood");
    if (after.fds > before.fds) fail("descriptors not given back");
    if (after.threads > before.threads) fail("threads not given back");
    // Freed memory stays partly resident in the allocator's arenas; growth beyond that slack
    // is memory kept per connection.
    const long slack_kb = std::max(8192L, before.rss_kb / 4);
    if (after.rss_kb > before.rss_kb + slack_kb)
        fail("resident size grew by " + std::to_string(after.rss_kb - before.rss_kb) + " kB");
    std::string why;
    if (!packets_on_time(after_console, why)) fail("data console: " + why);
    after_console.stop();
    agent.stop(failures > 0);
    printf("%s\n", failures ? "stress: FAILED" : "stress: ok");
    return failures ? 1 : 0;
}
