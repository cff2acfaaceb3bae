// The request server: one listening socket, one detached thread per console connection,
// which reads lines until one carries a request tag and hands the connection to that tag's
// handler.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "agent/rtdc_connection.h"
#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_event.h"
#include "alerts/rtal_tree.h"

char client_addr_str[64];
char client_addr_str1[64];
static struct sockaddr_in their_addr;
static std::mutex accept_addr_mutex;  // their_addr is rewritten at every accept
pthread_t ptid;

namespace {

pthread_attr_t attr;

// Request connections that stay silent this long count as ended, so one idle client cannot
// hold a thread (or the event store) for ever.
constexpr int kRequestIdleSeconds = 60;

struct RequestArgs {
    int fd;
    char client[64];
};

void set_socket_timeouts(int fd) {
    struct timeval rcv {kRequestIdleSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &rcv, sizeof rcv);
    // A console that stops reading must not block the collection thread for ever: a write
    // that cannot finish within a few scan intervals counts as a failed write.
    int interval = scan_intvl.load(std::memory_order_relaxed);
    struct timeval snd {std::max(10, 3 * interval), 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &snd, sizeof snd);
}

bool is_descriptor_shortage(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

}  // namespace

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
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        int err = errno;
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
    listen(fd, 5);
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
        auto* args = new RequestArgs{fd, {}};
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
        set_socket_timeouts(fd);
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

void* ProcessRequest(void* arg) {
    std::unique_ptr<RequestArgs> args(static_cast<RequestArgs*>(arg));
    get_log_file_name_unix(rta_cmdline.hostname, logfilec);

    Connection conn(args->fd, args->client);
    if (!conn.open_stream()) {
        rtdc_logf("VORNRTA-E-SOCKCVT: Unable to convert socket to file stream: %s \n",
                  strerror(errno));
        return nullptr;  // the connection's destructor closes the descriptor
    }
    Connection::bind_current(&conn);

    char line[256];
    for (;;) {
        if (!fgets(line, sizeof line, conn.stream())) {
            rtdc_logf("VORNRTA-E-SOCKREAD: Unable to read file socket: %s\n", strerror(errno));
            break;
        }
        rtdc_logf("VORNRTA-I-REQDET: request: %s,  %s", conn.client(), line);
        After after = dispatch(conn, line);
        if (after == After::KeepReading) continue;
        // Give the console a moment to read the reply before the connection goes.
        if (after == After::Close && !conn.closed()) sleep(1);
        break;
    }
    Connection::bind_current(nullptr);
    return nullptr;
}
