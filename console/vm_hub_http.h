// The hub's HTTP side: /metrics for Prometheus, a JSON API for scripts and the web page, and
// live streams as server-sent events. Every request is bounded in size and time, and the
// number of open streams is capped.
#pragma once

#include <memory>
#include <string>

#include "console/vm_hub.h"
#include "console/vm_web.h"

namespace vornmon {

struct HttpOptions {
    Endpoint listen{"127.0.0.1", 9108};
    std::size_t max_streams = 64;  // open live streams; more are refused with 503
    int io_timeout_s = 5;          // reading a request, writing to a reader that stalls
    WebFiles web;                  // the dashboard's page files (none: / says so)
};

class HubServer {
  public:
    HubServer(Hub& hub, HttpOptions options);
    ~HubServer();
    /// Binds the listen address; false with the reason.
    bool bind(std::string& err);
    /// The port bound (the one asked for, or the one given for port 0).
    int port() const { return port_; }
    /// Serves until stop() (blocks).
    void serve();
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    int port_ = 0;
};

}  // namespace vornmon
