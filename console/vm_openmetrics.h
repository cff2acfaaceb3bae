// The OpenMetrics bridge: the latest sample of an agent as an OpenMetrics text exposition,
// served over HTTP so that a Prometheus server can scrape agents that only speak their
// own protocol. Every figure is a gauge: the agent already turns counters into rates.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "console/vm_model.h"
#include "console/vm_net.h"

namespace vornmon {

/// How one agent metric is exposed: family name, labels and the factor that brings the
/// value to a base unit (kilobytes and megabytes become bytes).
struct Exposure {
    std::string family;
    std::string unit;  // OpenMetrics unit, the family name's suffix; may be empty
    std::vector<std::pair<std::string, std::string>> labels;
    double scale = 1;
    bool exported = false;
};
Exposure expose(const Metric& m);

/// The exposition text, "# EOF" included. `sample` may be null (no data yet); `up` says
/// whether the data connection to the agent is up.
std::string openmetrics_text(const Sample* sample, bool up);

/// A minimal HTTP/1.1 server for scrapes: one request per connection, answered and closed.
class ScrapeServer {
  public:
    bool listen(const Endpoint& ep, std::string& err);
    int fd() const { return listener_.fd(); }
    /// The port actually bound (useful when asked for port 0).
    int port() const { return port_; }
    /// Descriptors to wait on for reading, besides the listener.
    std::vector<int> client_fds() const;
    /// Accepts, reads and answers what is ready; `render` makes the exposition on demand.
    void serve(const std::function<std::string()>& render);
    std::size_t clients() const { return clients_.size(); }

  private:
    struct Client {
        Socket sock;
        std::string request;
        long long deadline_ms;
    };
    void answer(Client& c, const std::function<std::string()>& render);

    Socket listener_;
    int port_ = 0;
    std::vector<Client> clients_;
};

}  // namespace vornmon
