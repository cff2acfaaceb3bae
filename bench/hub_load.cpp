// Load on `vornmon hub`: simulated agents replay recorded packets over loopback at a fixed
// scan, live-stream readers check that packet numbers arrive without a gap, and a scraper
// reads /metrics every second. Reports the hub's CPU and memory per agent, against the CPU
// this program spends producing the same packets (the baseline of the run).
//
//   hub_load [-hub PATH] [-agents N] [-clients N] [-seconds S] [-scan-ms MS]
//            [-packets FILE]
//
// FILE holds a header packet and a data packet as `vornmon raw --count 3` writes them
// (default: the recorded capture under tests/fixtures/packets).
#include <arpa/inet.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "console/vm_hub_feed.h"
#include "console/vm_wire.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using namespace vornmon;

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// The packet with another number, its length prefix recomputed.
std::string renumber(const std::string& body, long number) {
    std::size_t at = body.find("<PACKET>\n") + 9;
    std::size_t end = body.find('\n', at);
    std::string b = body.substr(0, at) + std::to_string(number) + body.substr(end);
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, " \nBUFFERSIZE=%06zu\n", b.size());
    return prefix + b;
}

int listen_any(int& port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    listen(fd, 16);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

// Simulated agents in one thread: each answers <DATA> with the header packet and the first
// data packet, then sends a data packet every scan; a new <DATA> takes the connection over.
struct Agents {
    std::vector<int> listeners, ports, conns;
    std::vector<long> numbers;
    std::string header, data;
    std::atomic<bool> stop{false};
    std::thread thread;

    Agents(int n, std::string header_body, std::string data_body, int scan_ms)
        : header(std::move(header_body)), data(std::move(data_body)) {
        for (int i = 0; i < n; ++i) {
            int port = 0;
            listeners.push_back(listen_any(port));
            ports.push_back(port);
        }
        conns.assign(n, -1);
        numbers.assign(n, 0);
        thread = std::thread([this, scan_ms] { run(scan_ms); });
    }
    ~Agents() {
        stop = true;
        thread.join();
        for (int fd : listeners) close(fd);
        for (int fd : conns)
            if (fd >= 0) close(fd);
    }
    void send(int i, const std::string& text) {
        if (conns[i] < 0) return;
        timeval tv{5, 0};
        setsockopt(conns[i], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        if (::send(conns[i], text.data(), text.size(), MSG_NOSIGNAL) != ssize_t(text.size())) {
            close(conns[i]);
            conns[i] = -1;
        }
    }
    void accept_new() {
        std::vector<pollfd> fds;
        for (int fd : listeners) fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), 0) <= 0) return;
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (!(fds[i].revents & POLLIN)) continue;
            int c = accept4(listeners[i], nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) continue;
            char request[64];
            timeval tv{2, 0};
            setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            if (recv(c, request, sizeof request, 0) <= 0) {
                close(c);
                continue;
            }
            if (conns[i] >= 0) close(conns[i]);
            conns[i] = c;
            numbers[i] = 0;
            send(i, renumber(header, ++numbers[i]));
            send(i, renumber(data, ++numbers[i]));
        }
    }
    void run(int scan_ms) {
        auto next = Clock::now();
        while (!stop) {
            accept_new();
            if (Clock::now() < next) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                continue;
            }
            next += std::chrono::milliseconds(scan_ms);
            for (std::size_t i = 0; i < conns.size(); ++i) send(i, renumber(data, ++numbers[i]));
        }
    }
};

// A live-stream reader of one agent through the hub, counting packets and gaps: within a
// connection every measurement's number is the one before plus one.
struct Reader {
    std::atomic<long> samples{0}, gaps{0}, ended{0};
    std::thread thread;
    Reader(int hub_port, const std::string& agent, std::atomic<bool>& stop) {
        thread = std::thread([this, hub_port, agent, &stop] {
            HubFeed feed("http://127.0.0.1:" + std::to_string(hub_port), agent, 10000, 0);
            std::string err;
            if (!feed.start(err)) {
                std::fprintf(stderr, "hub_load: %s\n", err.c_str());
                ++ended;
                return;
            }
            long last = 0;
            while (!stop) {
                FeedEvent e = wait_event(feed, 500);
                if (e.kind == FeedEvent::Kind::kNotice &&
                    e.message.find("ended") != std::string::npos)
                    ++ended, last = 0;
                if (e.kind != FeedEvent::Kind::kPacket) continue;
                if (!e.packet.headers.empty()) last = 0;
                if (!e.measurement) continue;
                if (last != 0 && e.packet.number != last + 1) ++gaps;
                last = e.packet.number;
                ++samples;
            }
        });
    }
};

// utime + stime in seconds and resident kilobytes of a process.
void usage_of(pid_t pid, double& cpu_s, long& rss_kb) {
    std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string f;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; fields >> f; ++i) {
        if (i == 14) utime = std::stoull(f);
        if (i == 15) {
            stime = std::stoull(f);
            break;
        }
    }
    cpu_s = double(utime + stime) / sysconf(_SC_CLK_TCK);
    std::string status = slurp("/proc/" + std::to_string(pid) + "/status");
    std::size_t at = status.find("VmRSS:");
    rss_kb = at == std::string::npos ? 0 : std::atol(status.c_str() + at + 6);
}

double own_cpu_s() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Options {
    std::string hub_bin = std::string(VORN_BINARY_DIR) + "/vornmon";
    std::string packets;
    int agents = 200, clients = 0, seconds = 60, scan_ms = 2000;
};

Options parse_options(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i], v = argv[i + 1];
        if (k == "-hub")
            o.hub_bin = v;
        else if (k == "-agents")
            o.agents = std::stoi(v);
        else if (k == "-clients")
            o.clients = std::stoi(v);
        else if (k == "-seconds")
            o.seconds = std::stoi(v);
        else if (k == "-scan-ms")
            o.scan_ms = std::stoi(v);
        else if (k == "-packets")
            o.packets = v;
    }
    return o;
}

// The header packet and a data packet of the recording (the last one: a later data packet
// is more typical than the first). False, with a message, when it holds no such pair.
bool read_recording(const std::string& packets, std::string& header, std::string& data) {
    std::string stream =
        packets.empty()
            ? slurp(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/packets/agent-header.pkt") +
                  slurp(std::string(VORN_SOURCE_DIR) + "/tests/fixtures/packets/agent-data.pkt")
            : slurp(packets);
    Framer framer;
    framer.feed(stream);
    std::string raw, err;
    if (framer.next(header, raw, err) != Framer::Result::kPacket ||
        framer.next(data, raw, err) != Framer::Result::kPacket) {
        std::fprintf(stderr, "hub_load: no header and data packet in the recording: %s\n",
                     err.c_str());
        return false;
    }
    for (std::string more; framer.next(more, raw, err) == Framer::Result::kPacket;) data = more;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parse_options(argc, argv);
    const std::string& hub_bin = opt.hub_bin;
    const int agents_n = opt.agents, clients = opt.clients, seconds = opt.seconds;
    std::string header, data;
    if (!read_recording(opt.packets, header, data)) return 1;

    Agents agents(agents_n, header, data, opt.scan_ms);
    std::string file = "/tmp/hub_load_agents." + std::to_string(getpid());
    {
        std::ofstream f(file);
        for (int i = 0; i < agents_n; ++i)
            f << "sim" << i << "=127.0.0.1:" << agents.ports[i] << "\n";
    }
    int probe = 0;
    close(listen_any(probe));
    std::string listen = "127.0.0.1:" + std::to_string(probe);
    const char* args[] = {hub_bin.c_str(), "hub",           "--listen", listen.c_str(), "--agents",
                          file.c_str(),    "--max-streams", "256",      nullptr};
    pid_t hub = -1;
    if (posix_spawn(&hub, hub_bin.c_str(), nullptr, nullptr, const_cast<char**>(args), environ) !=
        0) {
        std::perror("hub_load: starting the hub");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(3));  // connections made, first packets in

    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Reader>> readers;
    for (int i = 0; i < clients; ++i)
        readers.push_back(
            std::make_unique<Reader>(probe, "sim" + std::to_string(i % agents_n), stop));
    std::atomic<long> scrapes{0}, scrape_failures{0};
    std::vector<double> scrape_ms;
    std::thread scraper([&] {
        while (!stop) {
            auto t0 = Clock::now();
            httplib::Client client("127.0.0.1", probe);
            client.set_read_timeout(std::chrono::seconds(10));
            auto res = client.Get("/metrics");
            double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
            scrape_ms.push_back(ms);
            ++scrapes;
            if (!res || res->status != 200) ++scrape_failures;
            std::this_thread::sleep_for(std::chrono::milliseconds(std::max(0, 1000 - int(ms))));
        }
    });

    double hub_cpu0 = 0, hub_cpu1 = 0, own0 = own_cpu_s();
    long rss0 = 0, rss1 = 0;
    usage_of(hub, hub_cpu0, rss0);
    auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    usage_of(hub, hub_cpu1, rss1);
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    double own = own_cpu_s() - own0;
    stop = true;
    scraper.join();
    long samples = 0, gaps = 0, ended = 0;
    for (auto& r : readers) {
        r->thread.join();
        samples += r->samples, gaps += r->gaps, ended += r->ended;
    }
    kill(hub, SIGTERM);
    waitpid(hub, nullptr, 0);
    unlink(file.c_str());

    double hub_cpu = hub_cpu1 - hub_cpu0;
    std::printf("agents %d, scan %d ms, stream readers %d, %.0f s, packet body %zu bytes\n",
                agents_n, opt.scan_ms, clients, wall, data.size());
    std::printf("hub cpu          %.2f s = %.1f%% of one core, %.3f%% per agent\n", hub_cpu,
                100 * hub_cpu / wall, 100 * hub_cpu / wall / agents_n);
    std::printf("hub resident     %ld KiB = %.0f KiB per agent\n", rss1, double(rss1) / agents_n);
    std::printf(
        "baseline cpu     %.2f s (this program producing the packets and reading streams)\n", own);
    std::printf("hub / baseline   %.2f\n", own > 0 ? hub_cpu / own : 0);
    std::printf("stream samples   %ld, gaps %ld, streams ended %ld\n", samples, gaps, ended);
    std::sort(scrape_ms.begin(), scrape_ms.end());
    std::printf("scrapes          %ld, failed %ld, median %.1f ms, slowest %.0f ms\n",
                long(scrapes), long(scrape_failures),
                scrape_ms.empty() ? 0 : scrape_ms[scrape_ms.size() / 2],
                scrape_ms.empty() ? 0 : scrape_ms.back());
    return gaps == 0 && scrape_failures == 0 ? 0 : 1;
}
