#include "console/vm_openmetrics.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "console/vm_exposition.h"
#include "console/vm_json.h"

namespace vornmon {
namespace {

constexpr std::size_t kMaxRequest = 16384;
constexpr long long kClientTimeoutMs = 5000;
constexpr std::size_t kMaxClients = 32;

long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string snake(std::string_view text) {
    std::string out;
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (std::isalnum(c)) {
            out += static_cast<char>(std::tolower(c));
        } else if (!out.empty() && out.back() != '_') {
            out += '_';
        }
    }
    while (!out.empty() && out.back() == '_') out.pop_back();
    return out;
}

// Counter names may state their unit in parentheses ("Rss (Kb)", " System Memory (MB)");
// the unit moves to the end of the family name instead.
std::string strip_unit_words(std::string name, std::string& found) {
    for (const char* word : {"(MB)", "(Kb)"}) {
        std::size_t p = name.find(word);
        if (p != std::string::npos) {
            found = word;
            name.erase(p, std::strlen(word));
        }
    }
    return name;
}

std::string trimmed(const std::string& s) {
    std::size_t b = s.find_first_not_of(' ');
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(' ') - b + 1);
}

std::string om_number(double v) {
    if (std::isnan(v)) return "NaN";
    if (std::isinf(v)) return v > 0 ? "+Inf" : "-Inf";
    return shortest_number(v);
}

struct GaugeFamily {
    std::string unit;
    std::string help;
    std::vector<std::string> samples;
    std::map<std::string, std::size_t> by_labels;  // label set -> index in samples
};

}  // namespace

Exposure expose(const Metric& m) {
    Exposure e;
    std::string unit_word;
    std::string counter = strip_unit_words(m.counter, unit_word);
    std::string units = trimmed(m.units);
    if (units == "%") {
        e.unit = "percent";
    } else if (units == "/Sec") {
        e.unit = "per_second";
    } else if (units == "MBs" || (units.empty() && unit_word == "(MB)")) {
        e.unit = "bytes";
        e.scale = 1048576;
    } else if (units == "Kb" || (units.empty() && unit_word == "(Kb)")) {
        e.unit = "bytes";
        e.scale = 1024;
    }

    // File-system sizes are statvfs block counts in the file system's fragment size,
    // whatever their unit text ("Kb", and "%" for Used) says: exported as blocks, unscaled.
    if (m.klass == "FileSystem" && !m.instance.empty() && trimmed(counter) != "% Space Used") {
        e.unit = "blocks";
        e.scale = 1;
    }

    std::string base;
    if (m.is_process) {
        base = "process_" + snake(counter);
        e.labels = {{"pid", std::to_string(m.pid)}, {"name", m.process_name}};
    } else if (m.klass == "Cpu" && !m.instance.empty()) {
        base = "processor_" + snake(counter);
        e.labels = {{"cpu", m.instance}};
    } else if (m.klass == "Disk" && !m.instance.empty()) {
        base = "disk_" + snake(counter);
        e.labels = {{"device", m.instance}};
    } else if (m.klass == "FileSystem" && !m.instance.empty()) {
        base = "filesystem_" + snake(counter);
        e.labels = {{"mountpoint", m.instance}};
    } else {
        base = snake(m.klass) + "_" + snake(counter);
    }
    e.family = "vornrta_" + base;
    if (!e.unit.empty()) {
        std::string suffix = "_" + e.unit;
        if (e.family.size() < suffix.size() ||
            e.family.compare(e.family.size() - suffix.size(), suffix.size(), suffix) != 0)
            e.family += suffix;
    }
    // Counters are exported; of the attributes only host-wide figures (the memory size):
    // per-instance attributes (names, ids) are what the labels already say.
    e.exported = m.is_counter || (m.instance.empty() && !m.is_process);
    return e;
}

std::string openmetrics_text(const Sample* sample, bool up) {
    std::vector<std::string> order;
    std::map<std::string, GaugeFamily> families;
    std::map<long, std::string> users;
    if (sample) {
        for (const Reading& r : sample->readings)
            if (r.metric->is_process && trimmed(r.metric->counter) == "User Name")
                users[r.metric->pid] = r.text;
        for (const Reading& r : sample->readings) {
            const Metric& m = *r.metric;
            Exposure e = expose(m);
            if (!e.exported || !r.numeric) continue;
            if (m.is_process) {
                auto u = users.find(m.pid);
                if (u != users.end()) e.labels.push_back({"user", u->second});
            }
            std::string labels;
            for (auto& [k, v] : e.labels)
                labels += (labels.empty() ? "" : ",") + k + "=\"" + label_value(v) + "\"";
            auto [it, fresh] = families.try_emplace(e.family);
            GaugeFamily& f = it->second;
            if (fresh) {
                order.push_back(e.family);
                f.unit = e.unit;
            }
            // A row the console saw no header line for has no description; a later row of
            // the same family may have one.
            if (f.help.empty()) f.help = m.description;
            std::string line = e.family + (labels.empty() ? "" : "{" + labels + "}") + " " +
                               om_number(r.number * e.scale);
            // The first scan of a data connection can carry a series twice (the lines of the
            // start-up pass go out with the first tick); the later value is the current one.
            auto [slot, added] = f.by_labels.try_emplace(labels, f.samples.size());
            if (added)
                f.samples.push_back(std::move(line));
            else
                f.samples[slot->second] = std::move(line);
        }
    }
    std::string out;
    out += "# TYPE vornmon_agent_up gauge\n";
    out += "# HELP vornmon_agent_up Whether the data connection to the agent is up.\n";
    out += std::string("vornmon_agent_up ") + (up ? "1" : "0") + "\n";
    if (sample) {
        out += "# TYPE vornmon_packet_number gauge\n";
        out += "# HELP vornmon_packet_number Number of the agent packet these figures come from.\n";
        out += "vornmon_packet_number " + std::to_string(sample->packet) + "\n";
    }
    for (const std::string& name : order) {
        const GaugeFamily& f = families[name];
        out += "# TYPE " + name + " gauge\n";
        if (!f.unit.empty()) out += "# UNIT " + name + " " + f.unit + "\n";
        // An empty help text is refused by scrapers: fall back to the family's name.
        out += "# HELP " + name + " " + help_text(f.help.empty() ? name : f.help) + "\n";
        for (const std::string& s : f.samples) out += s + "\n";
    }
    out += "# EOF\n";
    return out;
}

bool ScrapeServer::listen(const Endpoint& ep, std::string& err) {
    addrinfo* res = resolve(ep, true, err);
    if (!res) return false;
    std::string last = "no address";
    for (addrinfo* ai = res; ai; ai = ai->ai_next) {
        Socket s(socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!s.valid()) continue;
        int one = 1;
        setsockopt(s.fd(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (bind(s.fd(), ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(s.fd(), 16) != 0) {
            last = std::strerror(errno);
            continue;
        }
        sockaddr_storage bound{};
        socklen_t len = sizeof bound;
        getsockname(s.fd(), reinterpret_cast<sockaddr*>(&bound), &len);
        char host[NI_MAXHOST], serv[NI_MAXSERV];
        if (getnameinfo(reinterpret_cast<sockaddr*>(&bound), len, host, sizeof host, serv,
                        sizeof serv, NI_NUMERICHOST | NI_NUMERICSERV) == 0)
            port_ = std::atoi(serv);
        listener_ = std::move(s);
        freeaddrinfo(res);
        return true;
    }
    freeaddrinfo(res);
    err = "cannot listen on " + ep.text() + ": " + last;
    return false;
}

std::vector<int> ScrapeServer::client_fds() const {
    std::vector<int> fds;
    for (const Client& c : clients_) fds.push_back(c.sock.fd());
    return fds;
}

void ScrapeServer::serve(const std::function<std::string()>& render) {
    for (;;) {
        int fd = accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) break;
        if (clients_.size() >= kMaxClients) {
            ::close(fd);  // more scrapers than any setup needs: drop rather than grow
            continue;
        }
        clients_.push_back({Socket(fd), {}, now_ms() + kClientTimeoutMs});
    }
    for (Client& c : clients_) {
        char chunk[4096];
        for (;;) {
            ssize_t n = recv(c.sock.fd(), chunk, sizeof chunk, MSG_DONTWAIT);
            if (n > 0) {
                c.request.append(chunk, static_cast<std::size_t>(n));
                if (c.request.size() > kMaxRequest) break;
                continue;
            }
            if (n == 0) c.deadline_ms = 0;  // the client gave up
            break;
        }
        bool whole = c.request.find("\r\n\r\n") != std::string::npos ||
                     c.request.find("\n\n") != std::string::npos;
        if (whole || c.request.size() > kMaxRequest) {
            answer(c, render);
            c.sock.close();
        } else if (now_ms() > c.deadline_ms) {
            c.sock.close();
        }
    }
    clients_.erase(std::remove_if(clients_.begin(), clients_.end(),
                                  [](const Client& c) { return !c.sock.valid(); }),
                   clients_.end());
}

void ScrapeServer::answer(Client& c, const std::function<std::string()>& render) {
    std::string status = "200 OK";
    std::string type = "application/openmetrics-text; version=1.0.0; charset=utf-8";
    std::string body;
    std::string line = c.request.substr(0, c.request.find_first_of("\r\n"));
    std::size_t sp1 = line.find(' ');
    std::size_t sp2 = sp1 == std::string::npos ? sp1 : line.find(' ', sp1 + 1);
    std::string method = line.substr(0, sp1);
    std::string target = sp1 == std::string::npos ? "" : line.substr(sp1 + 1, sp2 - sp1 - 1);
    std::string path = target.substr(0, target.find('?'));
    if (c.request.size() > kMaxRequest || sp2 == std::string::npos) {
        status = "400 Bad Request";
        type = "text/plain; charset=utf-8";
        body = "bad request\n";
    } else if (method != "GET" && method != "HEAD") {
        status = "405 Method Not Allowed";
        type = "text/plain; charset=utf-8";
        body = "only GET is served\n";
    } else if (path == "/metrics") {
        body = render();
    } else if (path == "/") {
        type = "text/plain; charset=utf-8";
        body = "vornmon OpenMetrics bridge: scrape /metrics\n";
    } else {
        status = "404 Not Found";
        type = "text/plain; charset=utf-8";
        body = "not found: scrape /metrics\n";
    }
    std::string head = "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
                       "\r\nContent-Length: " + std::to_string(body.size()) +
                       "\r\nConnection: close\r\n\r\n";
    std::string err;
    std::string reply = method == "HEAD" ? head : head + body;
    send_all(c.sock, reply, 2000, err);  // a scraper that does not read loses its answer
}

}  // namespace vornmon
