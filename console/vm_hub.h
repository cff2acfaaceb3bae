// The hub: the one place that talks to agents for everybody else. One data connection per
// agent, kept with growing pauses between attempts; each agent's latest sample, a short
// history and Prometheus series; alert rules sent when an agent connects and alerts
// collected every alert interval; live streams that any number of readers share. A reader
// that stops reading loses its stream, never the agent's connection.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "console/vm_exposition.h"
#include "console/vm_feed.h"
#include "console/vm_history.h"
#include "console/vm_renewal.h"
#include "console/vm_requests.h"

namespace vornmon {

/// An agent the hub watches: "[NAME=]HOST:PORT", with its own rules file when given.
struct AgentSpec {
    std::string name;
    Endpoint endpoint;
    std::string rules_file;
    bool operator==(const AgentSpec&) const = default;
};
bool parse_agent_spec(std::string_view text, AgentSpec& out, std::string& err);
/// An agents file: one "[NAME=]HOST:PORT [RULES_FILE]" a line; blank lines and lines
/// starting with '#' are skipped. Errors name the line.
bool parse_agents_text(std::string_view text, std::vector<AgentSpec>& out, std::string& err);

struct HubOptions {
    int interval = 2;           // scan interval asked of every agent
    int timeout_ms = 10000;     // connecting and every request reply
    int history_s = 900;        // kept history, at the scan rate
    int alert_interval_s = 30;  // the agents' alert interval, and how often alerts are fetched
    int renew_s = 60;           // at most one fresh header pass per agent this often
    std::string rules_file;     // rules for every agent without its own
    ExposeOptions expose;
    std::size_t queue_events = 256;  // events a stream reader may fall behind before it is dropped
};

/// "event: <name>" and one "data:" line per line of `data`, as server-sent events carry them;
/// a reader joins the data lines with line feeds to get `data` back.
std::string sse_event(const std::string& name, const std::string& data);

/// The queue of one live-stream reader. The agent side never waits on it: when the reader
/// falls too far behind, the queue is closed and the reader's stream ends.
class Subscriber {
  public:
    explicit Subscriber(std::size_t max_events) : max_(max_events) {}
    void push(std::shared_ptr<const std::string> event);
    /// The next event, or null after `timeout_ms` or once closed.
    std::shared_ptr<const std::string> pop(int timeout_ms);
    void close();
    bool closed() const;

  private:
    std::size_t max_;
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::shared_ptr<const std::string>> events_;
    bool closed_ = false;
};

/// What readers see of one agent.
struct AgentStatus {
    std::string name, instance, host;
    bool up = false;
    long packets = 0, reconnects = 0, renewals = 0, last_packet = 0, samples = 0;
    int interval = 0;
    std::string time, last_error;
    std::int64_t last_sample_ms = 0;
    std::size_t history = 0;
};

/// One alert the hub collected, with when it arrived and whether it raised or cleared.
struct AlertRecord {
    Alert alert;
    std::int64_t received_ms = 0;
    bool raised = true;
};

// kSamples: measurements as full JSON; kPackets: the agent's packets as they came;
// kDashboard: measurements in the web page's compact form (vm_dashboard.h).
enum class StreamKind { kSamples, kPackets, kDashboard };

class AgentLink {
  public:
    AgentLink(AgentSpec spec, const HubOptions& options);
    ~AgentLink();
    AgentLink(const AgentLink&) = delete;
    AgentLink& operator=(const AgentLink&) = delete;

    const AgentSpec& spec() const { return spec_; }
    AgentStatus status() const;
    /// The latest measurement as one JSON object; empty before the first.
    std::string latest_json() const;
    std::vector<History::Point> history(const std::string& path) const;
    std::vector<std::string> history_paths() const;
    std::vector<AlertRecord> alerts() const;
    /// The latest measurement; null before the first.
    std::shared_ptr<const Sample> latest() const;
    /// The rules read for this agent, and the names of those an alert has raised.
    std::vector<Rule> rules() const;
    std::set<std::string> firing() const;
    AgentSeries series() const;
    /// A live stream; packet streams start with the definitions in force and the latest
    /// measurement, so a reader joining late can decode what follows.
    std::shared_ptr<Subscriber> subscribe(StreamKind kind);
    void unsubscribe(const std::shared_ptr<Subscriber>& s);

  private:
    void run_data();
    void run_alerts();
    void on_packet(FeedEvent& e);
    void on_notice(const std::string& message, bool up);
    void publish(StreamKind kind, const std::string& event, const std::string& data);
    /// Status and alert events go to both kinds of JSON readers.
    void publish_json(const std::string& event, const std::string& data);
    bool has_readers(StreamKind kind) const;
    std::string latest_json_locked() const;
    void maybe_renew(AgentFeed& feed, const Sample& sample);
    bool send_rules();
    void fetch_alerts();

    AgentSpec spec_;
    HubOptions options_;
    std::atomic<bool> stop_{false};
    std::atomic<long> connections_{0};

    mutable std::mutex mutex_;  // everything below
    AgentStatus status_;
    History history_;
    Accumulator accumulator_;
    std::shared_ptr<const std::vector<Series>> series_;
    std::map<std::string, std::string> attributes_;  // header values in force, by path
    std::shared_ptr<const Sample> latest_;
    std::vector<std::string> definitions_;  // raw packets with header lines, this connection
    std::string latest_raw_;
    std::vector<std::pair<StreamKind, std::shared_ptr<Subscriber>>> subscribers_;
    std::vector<AlertRecord> alerts_;
    std::map<std::string, bool> firing_;  // rule name -> raised
    std::map<std::string, long> alerts_received_;
    std::vector<Rule> rules_;
    RenewalPace renewal_;  // the data thread's own
    std::chrono::steady_clock::time_point last_measurement_;
    bool measured_in_connection_ = false;

    std::thread data_thread_, alert_thread_;
};

class Hub {
  public:
    explicit Hub(HubOptions options) : options_(std::move(options)) {}
    /// Watches exactly `specs`: new agents are connected, dropped ones closed, the rest kept.
    void set_agents(const std::vector<AgentSpec>& specs);
    std::vector<std::shared_ptr<AgentLink>> agents() const;
    std::shared_ptr<AgentLink> find(const std::string& name) const;
    /// The scrape of every agent.
    std::string metrics(bool openmetrics) const;
    const HubOptions& options() const { return options_; }

  private:
    HubOptions options_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<AgentLink>> agents_;
};

}  // namespace vornmon
