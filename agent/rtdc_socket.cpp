// The request server: one listening socket, one detached thread per console connection,
// which reads lines until one carries a request tag and hands the connection to that tag's
// handler.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/rtdc_access.h"
#include "agent/rtdc_connection.h"
#include "agent/rtdc_globals.h"
#include "agent/rtdc_lineread.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_tree.h"

std::atomic<int> data_sock{-1};
std::atomic<int> CpuCount{0};

char client_addr_str[64];
char client_addr_str1[64];
static struct sockaddr_in their_addr;
static std::mutex accept_addr_mutex;  // their_addr is rewritten at every accept
pthread_t ptid;

namespace {

pthread_attr_t attr;

// A request connection other than the data connection ends this long after it was
// accepted, whatever it sends: no client, silent or trickling, holds a thread (or, inside
// <EVENT>, the event store) for longer.
constexpr std::chrono::seconds kRequestLifetime{60};

// A console that stops reading must not hold the collection thread (or a request thread
// writing a reply): a write that cannot go on for this long counts as failed. Fixed, since
// the scan interval is the console's to set and can be anything.
constexpr int kSendTimeoutSeconds = 5;

// What one address, and all addresses together, may hold open. The total keeps a reserve
// of descriptors below the process limit for the scan (the process class opens files of
// every process) and for the data connection.
constexpr int kConnectionsPerAddress = 32;
constexpr int kReservedDescriptors = 64;

// Consoles that start together (a hub reconnecting to many agents, a restart) must not
// wait for the kernel's one-second retry of a dropped connection.
constexpr int kListenBacklog = 1024;

// The lines a connection sends before its tag are logged, as the first this many of them;
// the rest are counted in one line, so a client cannot fill the disk through the log.
constexpr int kLoggedLinesPerConnection = 20;

struct AccessPolicy {
    uint32_t bind_address = INADDR_ANY;
    std::vector<rtdc_access::Prefix> allow;
};
AccessPolicy access_policy;

rtdc_access::ConnectionCounts open_connections;
rtdc_access::ReportLimiter refusal_reports(std::chrono::minutes(1));

struct RequestArgs {
    int fd;
    char client[64];
    uint32_t address;
    rtdc_access::Clock::time_point accepted;
    ~RequestArgs() { open_connections.release(address); }
};

void set_send_timeout(int fd) {
    struct timeval snd {kSendTimeoutSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &snd, sizeof snd);
}

bool is_descriptor_shortage(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

// How many request connections may be open at once under the descriptor limit in force.
int connection_ceiling() {
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 65536;
    long n = static_cast<long>(std::min<rlim_t>(limit.rlim_cur, 1 << 20));
    return static_cast<int>(std::max(n - kReservedDescriptors, n / 4));
}

// Closes a connection that is not served. The reason is logged at most once a minute per
// address.
void refuse(int fd, uint32_t address, const char* reason) {
    close(fd);
    if (refusal_reports.should_report(address, rtdc_access::Clock::now()))
        rtdc_logf("VORNRTA-W-REFUSED:  connection from %s refused: %s\n",
                  rtdc_access::dotted(address).c_str(), reason);
}

// True when the connection may be served; otherwise it has been closed.
bool admit(int fd, uint32_t address) {
    if (!rtdc_access::allowed(access_policy.allow, address)) {
        refuse(fd, address, "not in ALLOW~");
        return false;
    }
    switch (open_connections.admit(address, kConnectionsPerAddress, connection_ceiling())) {
        case rtdc_access::ConnectionCounts::Admit::Yes:
            return true;
        case rtdc_access::ConnectionCounts::Admit::AddressFull:
            refuse(fd, address, "too many connections from this address");
            return false;
        case rtdc_access::ConnectionCounts::Admit::AllFull:
            refuse(fd, address, "too many connections");
            return false;
    }
    return false;
}

}  // namespace

bool rtdc_setup_access(const RtaCmdline& settings, std::string* error) {
    AccessPolicy policy;
    if (!rtdc_access::parse_ipv4(settings.address, &policy.bind_address)) {
        *error = std::string("ADDRESS~ value '") + settings.address +
                 "' is not an IPv4 address (a.b.c.d)";
        return false;
    }
    std::string bad;
    if (!rtdc_access::parse_allow_list(settings.allow, &policy.allow, &bad)) {
        *error = "ALLOW~ entry '" + bad +
                 "' is neither an IPv4 address (a.b.c.d) nor a prefix (a.b.c.d/n, n up to 32)";
        return false;
    }
    access_policy = std::move(policy);
    return true;
}

int CreateISrvrSocket(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        int err = errno;
        rtdc_logf("E-SOCK: opening data socket , %s\n", strerror(err));
        errno = err;
        return -1;
    }
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0)
        rtdc_logf("E-SOCKOPT Error setting socket option (SO_REUSEADDR) %s\n", strerror(errno));
    if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) < 0)
        rtdc_logf("E-SOCKOPT, Error setting socket option (SO_KEEPALIVE): %s", strerror(errno));
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(access_policy.bind_address);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    // A port the option rule lets through but TCP has no room for must not wrap round to
    // another port: it fails like any port that cannot be bound.
    const bool port_fits = port >= 0 && port <= 65535;
    if (!port_fits || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        int err = port_fits ? errno : EINVAL;
        rtdc_logf("ERROR: binding socket to  port %d\n", port);
        close(fd);  // the agent terminates on this path; no reason to keep the descriptor
        errno = err;
        return -1;
    }
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        int err = errno;
        RTDCAppendLog("ERROR:  getting rta Server socket name\n");
        close(fd);
        errno = err;
        return -1;
    }
    rtdc_logf("Waiting for connection request on port # %d\n", ntohs(addr.sin_port));
    listen(fd, kListenBacklog);
    return fd;
}

void rtdc_peer_address(char* out, unsigned long size) {
    std::lock_guard<std::mutex> lock(accept_addr_mutex);
    inet_ntop(AF_INET, &their_addr.sin_addr, out, static_cast<socklen_t>(size));
}

void Fallback() {
    if (verbose_flag) {
        RTDCAppendLog("Fallback: Entered...\n");
        RTDCAppendLog("Fallback:  malloc  for MetricDescription\n");
    }
    if (!rtal_create_root(rta_cmdline.hostname)) Terminate(0);

    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    size_t stack = 0;
    pthread_attr_getstacksize(&attr, &stack);
    if (stack < 819200) pthread_attr_setstacksize(&attr, 819200);

    IPStatus = 0;
    for (;;) {
        if (verbose_flag) RTDCAppendLog("VORNRTA-I-WAIT:     Wait for data...\n");
        struct sockaddr_in peer {};
        socklen_t len = sizeof peer;
        int fd = accept(data_sock, reinterpret_cast<sockaddr*>(&peer), &len);
        if (fd < 0) {
            // Out of descriptors: back off briefly instead of spinning on accept.
            if (is_descriptor_shortage(errno))
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        }
        const uint32_t address = ntohl(peer.sin_addr.s_addr);
        // Refused connections are closed before anything is read or a thread is made.
        if (!admit(fd, address)) continue;
        auto* args = new RequestArgs{fd, {}, address, rtdc_access::Clock::now()};
        {
            std::lock_guard<std::mutex> lock(accept_addr_mutex);
            their_addr = peer;
            char dotted[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &peer.sin_addr, dotted, sizeof dotted);
            snprintf(client_addr_str, sizeof client_addr_str, " %s", dotted);
            snprintf(client_addr_str1, sizeof client_addr_str1, " %s", dotted);
            // Each connection keeps the address it was accepted with: alert ownership
            // must not change because another console connected in the meantime.
            snprintf(args->client, sizeof args->client, " %s", dotted);
        }
        if (verbose_flag) rtdc_logf("VORNRTA-I-REQ:     Request from %s\n", args->client);
        set_send_timeout(fd);
        int rc = pthread_create(&ptid, &attr, ProcessRequest, args);
        if (rc != 0) {
            rtdc_logf("VORNRTA-E-THREAD:  Create ProcessRequest thread failed : %s\n",
                      strerror(rc));
            close(fd);
            delete args;
        }
    }
}

namespace {

enum class After { KeepReading, Close, KeepOpen };

// The dispatch table: tags are tested as substrings anywhere in the line, in this order, and
// the first match wins ("<EVENT_DEF>" before "<EVENT>", "<EVENT_GET_ALERTS>" before
// "<GETALERTS>").
After dispatch(Connection& conn, const char* line) {
    FILE* s = conn.stream();
    int fd = conn.fd();
    const char* client = conn.client();
    bool alerts_on = rta_cmdline.alerts != 0;
    if (strstr(line, "<DATA>")) {
        // From here on the descriptor belongs to the data connection.
        conn.keep_descriptor();
        handle_data_request(s, fd, client);
        return After::KeepOpen;
    }
    if (strstr(line, "<INTERVAL>")) {
        handle_interval_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<ALERT_INTERVAL>")) {
        if (alerts_on) handle_alert_interval_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<EXPDEF>")) {
        if (alerts_on) handle_expdef_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<EVENT_DEF>")) {
        handle_event_def_request(s, fd, line, client);
        return After::Close;
    }
    if (strstr(line, "<EVENT>")) {
        handle_event_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<DESC>")) {
        handle_desc_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<EVENT_GET_ALERTS>")) {
        if (alerts_on) handle_event_getalerts_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "<GETALERTS>")) {
        if (alerts_on) handle_getalerts_request(s, fd, client);
        return After::Close;
    }
    if (strstr(line, "EXIT")) exit_recieved = 1;
    return After::KeepReading;
}

}  // namespace

void rtdc_serve_request(int fd, const char* client,
                        std::chrono::steady_clock::time_point deadline) {
    get_log_file_name_unix(rta_cmdline.hostname, logfilec);

    Connection conn(fd, client, deadline);
    if (!conn.open_stream()) {
        rtdc_logf("VORNRTA-E-SOCKCVT: Unable to convert socket to file stream: %s \n",
                  strerror(errno));
        return;  // the connection's destructor closes the descriptor
    }
    Connection::bind_current(&conn);

    char line[256];
    int lines_read = 0;
    for (;;) {
        if (!rtdc_read_text_line(conn.stream(), line)) {
            rtdc_logf("VORNRTA-E-SOCKREAD: Unable to read file socket: %s\n", strerror(errno));
            break;
        }
        if (++lines_read <= kLoggedLinesPerConnection)
            rtdc_logf("VORNRTA-I-REQDET: request: %s,  %s", conn.client(), line);
        After after = dispatch(conn, line);
        if (after == After::KeepReading) continue;
        // Give the console a moment to read the reply before the connection goes.
        if (after == After::Close && !conn.closed()) conn.linger(1);
        break;
    }
    if (lines_read > kLoggedLinesPerConnection)
        rtdc_logf("VORNRTA-I-REQDET: request: %s,  %d more lines not logged\n", conn.client(),
                  lines_read - kLoggedLinesPerConnection);
    Connection::bind_current(nullptr);
}

void* ProcessRequest(void* arg) {
    std::unique_ptr<RequestArgs> args(static_cast<RequestArgs*>(arg));
    rtdc_serve_request(args->fd, args->client, args->accepted + kRequestLifetime);
    return nullptr;
}
