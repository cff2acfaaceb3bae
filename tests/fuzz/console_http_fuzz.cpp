// The console's HTTP side: the input is one request sent over loopback to the scrape
// server, which reads, answers and closes; its first line is also read as "host:port".
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "console/vm_net.h"
#include "console/vm_openmetrics.h"

namespace {

vornmon::ScrapeServer* server;

vornmon::Socket connect_client() {
    vornmon::Endpoint ep;
    ep.host = "127.0.0.1";
    ep.port = server->port();
    vornmon::Socket s;
    std::string err;
    if (!vornmon::connect_to(ep, 1000, s, err)) {
        fprintf(stderr, "console_http_fuzz: %s\n", err.c_str());
        abort();
    }
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    signal(SIGPIPE, SIG_IGN);
    server = new vornmon::ScrapeServer;
    vornmon::Endpoint ep;
    ep.host = "127.0.0.1";
    ep.port = 0;
    std::string err;
    if (!server->listen(ep, err)) {
        fprintf(stderr, "console_http_fuzz: %s\n", err.c_str());
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    vornmon::Endpoint parsed;
    std::string err;
    vornmon::parse_host_port(text.substr(0, text.find('\n')), parsed, err);

    vornmon::Socket client = connect_client();
    std::string err2;
    vornmon::send_all(client, text, 1000, err2);
    shutdown(client.fd(), SHUT_WR);
    // The connection is waiting to be accepted; serve until the server has answered it and
    // let it go, bounded in rounds.
    const auto render = [] { return vornmon::openmetrics_text(nullptr, true); };
    pollfd listener{server->fd(), POLLIN, 0};
    poll(&listener, 1, 1000);
    server->serve(render);
    for (int round = 0; round < 200 && server->clients() > 0; ++round) {
        std::vector<pollfd> waits;
        for (int fd : server->client_fds()) waits.push_back({fd, POLLIN, 0});
        poll(waits.data(), waits.size(), 5);
        server->serve(render);
    }
    std::string reply;
    while (vornmon::read_some(client, reply, 100, err2) == vornmon::ReadResult::kData) {
    }
    return 0;
}
