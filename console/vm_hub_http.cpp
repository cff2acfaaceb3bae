#include "console/vm_hub_http.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>

#include "console/vm_hub_web.h"
#include "console/vm_json.h"

namespace vornmon {
namespace {

constexpr const char* kOpenMetricsType =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";
constexpr const char* kTextFormatType = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kJsonType = "application/json";
constexpr std::size_t kMaxRequestBody = 64 * 1024;
constexpr int kKeepAliveS = 5;
// What a live stream sends when it has nothing new: a comment, which finds readers that left.
constexpr std::string_view kKeepAlive = ": idle\n\n";

std::string status_json(const AgentStatus& s) {
    return "{\"name\":" + json_quote(s.name) + ",\"instance\":" + json_quote(s.instance) +
           ",\"host\":" + json_quote(s.host) + ",\"up\":" + (s.up ? "true" : "false") +
           ",\"packets\":" + std::to_string(s.packets) +
           ",\"last_packet\":" + std::to_string(s.last_packet) +
           ",\"samples\":" + std::to_string(s.samples) + ",\"time\":" + json_quote(s.time) +
           ",\"interval\":" + std::to_string(s.interval) +
           ",\"last_sample_ms\":" + std::to_string(s.last_sample_ms) +
           ",\"history\":" + std::to_string(s.history) +
           ",\"reconnects\":" + std::to_string(s.reconnects) +
           ",\"renewals\":" + std::to_string(s.renewals) +
           ",\"last_error\":" + json_quote(s.last_error) + "}";
}

std::string alerts_json(const std::vector<AlertRecord>& records) {
    std::string out = "[";
    for (const AlertRecord& r : records) {
        if (out.size() > 1) out += ",";
        out += "{\"received_ms\":" + std::to_string(r.received_ms) +
               ",\"raised\":" + (r.raised ? "true" : "false") +
               ",\"alert\":" + alert_json(r.alert) + "}";
    }
    return out + "]";
}

std::string history_json(const std::string& path, const std::vector<History::Point>& points) {
    std::string out = "{\"path\":" + json_quote(path) + ",\"points\":[";
    for (std::size_t i = 0; i < points.size(); ++i)
        out += (i ? ",[" : "[") + std::to_string(points[i].unix_ms) + "," +
               json_number(points[i].value) + "]";
    return out + "]}";
}

std::string paths_json(const std::vector<std::string>& paths) {
    std::string out = "{\"paths\":[";
    for (std::size_t i = 0; i < paths.size(); ++i) out += (i ? "," : "") + json_quote(paths[i]);
    return out + "]}";
}

void not_found(httplib::Response& res, const std::string& what) {
    res.status = 404;
    res.set_content("{\"error\":" + json_quote(what) + "}", kJsonType);
}

}  // namespace

struct HubServer::Impl {
    Hub& hub;
    HttpOptions options;
    httplib::Server server;
    std::atomic<std::size_t> streams{0};
    std::atomic<bool> stopping{false};
    // The fleet summary the fleet streams send, made at most twice a second for all of them.
    std::mutex fleet_mutex;
    std::chrono::steady_clock::time_point fleet_made;
    std::shared_ptr<const std::string> fleet;

    Impl(Hub& h, HttpOptions o) : hub(h), options(std::move(o)) {}
    void routes();
    bool take_stream(httplib::Response& res);
    void stream(const httplib::Request& req, httplib::Response& res, StreamKind kind);
    void fleet_stream(httplib::Response& res);
    std::shared_ptr<const std::string> fleet_now();
    std::shared_ptr<AgentLink> agent(const httplib::Request& req, httplib::Response& res);
};

std::shared_ptr<AgentLink> HubServer::Impl::agent(const httplib::Request& req,
                                                  httplib::Response& res) {
    auto a = hub.find(req.matches[1]);
    if (!a) not_found(res, "no agent named '" + std::string(req.matches[1]) + "'");
    return a;
}

// Counts a live stream in, or answers 503 when as many are open as allowed.
bool HubServer::Impl::take_stream(httplib::Response& res) {
    if (streams.fetch_add(1) < options.max_streams) return true;
    streams.fetch_sub(1);
    res.status = 503;
    res.set_content("{\"error\":\"too many live streams\"}", kJsonType);
    return false;
}

// A live stream: the provider runs on the reader's own server thread and waits on the
// reader's queue, so a reader that stops reading holds only itself up; a write that cannot
// go out within the I/O timeout ends its stream.
void HubServer::Impl::stream(const httplib::Request& req, httplib::Response& res, StreamKind kind) {
    auto a = agent(req, res);
    if (!a || !take_stream(res)) return;
    auto sub = a->subscribe(kind);
    std::weak_ptr<AgentLink> weak = a;
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, sub](std::size_t, httplib::DataSink& sink) {
            if (stopping) return false;
            auto event = sub->pop(1000);
            if (event) return sink.write(event->data(), event->size());
            if (sub->closed()) return false;
            return sink.write(kKeepAlive.data(), kKeepAlive.size());
        },
        [this, sub, weak](bool) {
            if (auto link = weak.lock()) link->unsubscribe(sub);
            streams.fetch_sub(1);
        });
}

// The fleet page's live stream: the fleet summary at once, then again whenever it changed,
// looked at once a second. One stream serves a viewer however many agents there are.
void HubServer::Impl::fleet_stream(httplib::Response& res) {
    if (!take_stream(res)) return;
    auto sent = std::make_shared<std::string>();
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, sent](std::size_t, httplib::DataSink& sink) {
            for (int waited = 0; !sent->empty() && waited < 1000 && !stopping; waited += 100)
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (stopping) return false;
            std::shared_ptr<const std::string> now = fleet_now();
            if (*now == *sent) return sink.write(kKeepAlive.data(), kKeepAlive.size());
            *sent = *now;
            std::string event = sse_event("fleet", *now);
            return sink.write(event.data(), event.size());
        },
        [this](bool) { streams.fetch_sub(1); });
}

std::shared_ptr<const std::string> HubServer::Impl::fleet_now() {
    std::lock_guard<std::mutex> lock(fleet_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (!fleet || now - fleet_made >= std::chrono::milliseconds(500)) {
        fleet = std::make_shared<const std::string>(fleet_json(hub));
        fleet_made = now;
    }
    return fleet;
}

void HubServer::Impl::routes() {
    server.Get("/metrics", [this](const httplib::Request& req, httplib::Response& res) {
        // Prometheus asks for OpenMetrics; other readers get the older text format.
        bool om = req.get_header_value("Accept").find("application/openmetrics-text") !=
                  std::string::npos;
        res.set_content(hub.metrics(om), om ? kOpenMetricsType : kTextFormatType);
    });
    server.Get("/api/agents", [this](const httplib::Request&, httplib::Response& res) {
        std::string out = "[";
        for (auto& a : hub.agents()) out += (out.size() > 1 ? "," : "") + status_json(a->status());
        res.set_content(out + "]", kJsonType);
    });
    server.Get(R"(/api/agents/([^/]+))",
               [this](const httplib::Request& req, httplib::Response& res) {
                   if (auto a = agent(req, res))
                       res.set_content(status_json(a->status()), kJsonType);
               });
    server.Get(R"(/api/agents/([^/]+)/latest)",
               [this](const httplib::Request& req, httplib::Response& res) {
                   auto a = agent(req, res);
                   if (!a) return;
                   std::string json = a->latest_json();
                   if (json.empty()) return not_found(res, "no sample yet");
                   res.set_content(json, kJsonType);
               });
    server.Get(R"(/api/agents/([^/]+)/history)",
               [this](const httplib::Request& req, httplib::Response& res) {
                   auto a = agent(req, res);
                   if (!a) return;
                   if (req.has_param("prefix")) {
                       std::vector<std::string> prefixes;
                       for (std::size_t i = 0;
                            i < req.get_param_value_count("prefix") && i < kMaxHistoryPrefixes; ++i)
                           prefixes.push_back(req.get_param_value("prefix", i));
                       return res.set_content(history_series_json(*a, prefixes), kJsonType);
                   }
                   if (!req.has_param("path"))
                       return res.set_content(paths_json(a->history_paths()), kJsonType);
                   std::string path = req.get_param_value("path");
                   res.set_content(history_json(path, a->history(path)), kJsonType);
               });
    server.Get(R"(/api/agents/([^/]+)/alerts)",
               [this](const httplib::Request& req, httplib::Response& res) {
                   if (auto a = agent(req, res))
                       res.set_content(alerts_json(a->alerts()), kJsonType);
               });
    server.Get(R"(/api/agents/([^/]+)/stream)",
               [this](const httplib::Request& req, httplib::Response& res) {
                   bool compact = req.get_param_value("format") == "compact";
                   stream(req, res, compact ? StreamKind::kDashboard : StreamKind::kSamples);
               });
    server.Get(R"(/api/agents/([^/]+)/packets)",
               [this](const httplib::Request& req, httplib::Response& res) {
                   stream(req, res, StreamKind::kPackets);
               });
    server.Get("/api/fleet/stream",
               [this](const httplib::Request&, httplib::Response& res) { fleet_stream(res); });
    add_dashboard_routes(server, hub, options.web);
}

HubServer::HubServer(Hub& hub, HttpOptions options)
    : impl_(std::make_unique<Impl>(hub, std::move(options))) {
    httplib::Server& s = impl_->server;
    // One thread per open stream and a few for everything else; more connections wait.
    std::size_t threads = impl_->options.max_streams + 8;
    s.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    s.set_read_timeout(impl_->options.io_timeout_s);
    s.set_write_timeout(impl_->options.io_timeout_s);
    s.set_keep_alive_timeout(kKeepAliveS);
    s.set_payload_max_length(kMaxRequestBody);
    impl_->routes();
}

HubServer::~HubServer() {
    stop();
}

bool HubServer::bind(std::string& err) {
    const Endpoint& ep = impl_->options.listen;
    if (ep.port == 0) {
        port_ = impl_->server.bind_to_any_port(ep.host);
    } else if (impl_->server.bind_to_port(ep.host, ep.port)) {
        port_ = ep.port;
    }
    if (port_ <= 0) {
        err = "cannot listen on " + ep.text();
        return false;
    }
    return true;
}

void HubServer::serve() {
    impl_->server.listen_after_bind();
}

void HubServer::stop() {
    impl_->stopping = true;
    impl_->server.stop();
}

}  // namespace vornmon
