#include "console/vm_hub.h"

#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

#include "console/vm_dashboard.h"
#include "console/vm_json.h"

namespace vornmon {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxHistoryPaths = 4096;
constexpr std::size_t kMaxAlertRecords = 1000;
constexpr std::size_t kMaxDefinitionPackets = 8;

std::int64_t unix_ms_now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool read_file(const std::string& path, std::string& text, std::string& err) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        err = "cannot read " + path;
        return false;
    }
    std::ostringstream s;
    s << f.rdbuf();
    text = s.str();
    return true;
}

// Sleeps `ms` in short steps so that a stop request is seen quickly.
void nap(const std::atomic<bool>& stop, int ms) {
    for (int slept = 0; slept < ms && !stop; slept += 100)
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(100, ms - slept)));
}

}  // namespace

std::string sse_event(const std::string& name, const std::string& data) {
    std::string out = "event: " + name + "\n";
    out.reserve(data.size() + data.size() / 16 + 32);
    std::size_t start = 0;
    for (;;) {
        std::size_t nl = data.find('\n', start);
        out += "data: ";
        out.append(data, start, nl == std::string::npos ? std::string::npos : nl - start);
        out += '\n';
        if (nl == std::string::npos) break;
        start = nl + 1;
    }
    return out + "\n";
}

bool parse_agent_spec(std::string_view text, AgentSpec& out, std::string& err) {
    out = AgentSpec{};
    std::size_t eq = text.find('=');
    std::string_view address = eq == std::string_view::npos ? text : text.substr(eq + 1);
    if (!parse_host_port(address, out.endpoint, err)) return false;
    if (out.endpoint.port == 0) {
        err = "an agent needs a port from 1 to 65535, got '" + std::string(text) + "'";
        return false;
    }
    out.name = eq == std::string_view::npos ? out.endpoint.text() : std::string(text.substr(0, eq));
    if (out.name.empty() || out.name.find_first_of("/?#% \t") != std::string::npos) {
        err = "an agent name may not be empty nor hold '/', '?', '#', '%' or blanks: '" +
              std::string(text) + "'";
        return false;
    }
    return true;
}

bool parse_agents_text(std::string_view text, std::vector<AgentSpec>& out, std::string& err) {
    std::istringstream lines{std::string(text)};
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        std::istringstream words(line);
        std::string address, rules, extra;
        if (!(words >> address) || address[0] == '#') continue;
        words >> rules >> extra;
        AgentSpec spec;
        if (!extra.empty()) err = "expected [NAME=]HOST:PORT [RULES_FILE]";
        if (!extra.empty() || !parse_agent_spec(address, spec, err)) {
            err = "line " + std::to_string(number) + ": " + err;
            return false;
        }
        spec.rules_file = rules;
        out.push_back(std::move(spec));
    }
    std::set<std::string> names;
    for (const AgentSpec& s : out)
        if (!names.insert(s.name).second) {
            err = "agent '" + s.name + "' is listed twice";
            return false;
        }
    return true;
}

void Subscriber::push(std::shared_ptr<const std::string> event) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        if (events_.size() >= max_) {
            // Too far behind: end this reader's stream rather than hold packets for it.
            closed_ = true;
            events_.clear();
        } else {
            events_.push_back(std::move(event));
        }
    }
    ready_.notify_one();
}

std::shared_ptr<const std::string> Subscriber::pop(int timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                    [&] { return closed_ || !events_.empty(); });
    if (closed_ || events_.empty()) return nullptr;
    auto event = std::move(events_.front());
    events_.pop_front();
    return event;
}

void Subscriber::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    ready_.notify_all();
}

bool Subscriber::closed() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
}

AgentLink::AgentLink(AgentSpec spec, const HubOptions& options)
    : spec_(std::move(spec)),
      options_(options),
      history_(static_cast<std::size_t>(
                   std::max(1, options.history_s / std::max(1, options.interval) + 1)),
               kMaxHistoryPaths),
      accumulator_(options.expose),
      renewal_(std::chrono::seconds(options.renew_s)) {
    status_.name = spec_.name;
    status_.instance = spec_.endpoint.text();
    status_.host = spec_.endpoint.host;
    std::string rules_file = spec_.rules_file.empty() ? options_.rules_file : spec_.rules_file;
    std::string text, err;
    if (!rules_file.empty() &&
        (!read_file(rules_file, text, err) || !parse_rules_text(text, rules_, err)))
        status_.last_error = rules_file + ": " + err;
    data_thread_ = std::thread([this] { run_data(); });
    if (!rules_.empty()) alert_thread_ = std::thread([this] { run_alerts(); });
}

AgentLink::~AgentLink() {
    stop_ = true;
    if (data_thread_.joinable()) data_thread_.join();
    if (alert_thread_.joinable()) alert_thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [kind, s] : subscribers_) s->close();
}

void AgentLink::run_data() {
    AgentFeed feed(spec_.endpoint, options_.interval, options_.timeout_ms, 0);
    std::string err;
    if (feed.start(err)) {
        on_notice("", true);
    } else {
        on_notice(err, false);
        feed.retry_later();
    }
    while (!stop_) {
        FeedEvent e = wait_event(feed, 250);
        switch (e.kind) {
            case FeedEvent::Kind::kIdle:
            case FeedEvent::Kind::kAlert:  // the agent's own data connection carries none
                break;
            case FeedEvent::Kind::kPacket:
                // Before the sample is handed on: it says whether processes lack a name.
                if (!e.packet.headers.empty()) renewal_.header_arrived(e.packet.headers.size());
                if (e.measurement) maybe_renew(feed, e.sample);
                on_packet(e);
                break;
            case FeedEvent::Kind::kNotice:
                on_notice(e.message, feed.fd() >= 0);
                break;
            case FeedEvent::Kind::kMalformed:
            case FeedEvent::Kind::kFailed:
                on_notice(e.message, false);
                break;
        }
    }
}

void AgentLink::on_notice(const std::string& message, bool up) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (up) {
        ++connections_;  // the alert side sends the rules again
        if (status_.packets > 0 || !status_.last_error.empty()) ++status_.reconnects;
    } else {
        status_.last_error = message;
    }
    status_.up = up;
    measured_in_connection_ = false;
    publish(StreamKind::kPackets, "notice", up ? "connected to " + status_.instance : message);
    publish_json("status", "{\"agent\":" + json_quote(spec_.name) +
                               ",\"up\":" + (up ? "true" : "false") +
                               ",\"message\":" + json_quote(message) + "}");
}

void AgentLink::on_packet(FeedEvent& e) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++status_.packets;
    status_.up = true;
    status_.last_packet = e.packet.number;
    status_.interval = e.packet.interval;
    status_.time = e.packet.time;
    if (!e.packet.headers.empty()) {
        if (e.packet.number == 1) {
            // A new connection numbers its counters afresh: what came before no longer
            // decodes against these definitions.
            definitions_.clear();
            latest_raw_.clear();
            measured_in_connection_ = false;
        }
        if (definitions_.size() < kMaxDefinitionPackets) definitions_.push_back(e.packet.raw);
        for (const HeaderLine& h : e.packet.headers)
            if (h.value) attributes_[metric_key(h.prefix, h.name)] = *h.value;
    }
    const char* kind = !e.packet.headers.empty() ? "header" : e.measurement ? "sample" : "first";
    publish(StreamKind::kPackets, kind, e.packet.raw);
    if (!e.measurement) return;
    // Counters grow by what the interval held: the time between two measurements on this
    // connection, or the interval the agent prints for the first one.
    Clock::time_point now = Clock::now();
    double printed = std::max(1, e.packet.interval);
    double seconds = measured_in_connection_
                         ? std::chrono::duration<double>(now - last_measurement_).count()
                         : printed;
    seconds = std::clamp(seconds, 0.1, printed * 10);
    measured_in_connection_ = true;
    last_measurement_ = now;
    latest_raw_ = e.packet.raw;
    series_ = std::make_shared<const std::vector<Series>>(
        accumulator_.add(e.sample, seconds, attributes_));
    status_.last_sample_ms = unix_ms_now();
    history_.add(status_.last_sample_ms, e.sample);
    status_.history = history_.size();
    ++status_.samples;
    latest_ = std::make_shared<const Sample>(std::move(e.sample));
    if (has_readers(StreamKind::kSamples))
        publish(StreamKind::kSamples, "sample", latest_json_locked());
    if (has_readers(StreamKind::kDashboard))
        publish(StreamKind::kDashboard, "sample",
                compact_sample_json(spec_.name, *latest_, status_.last_sample_ms));
}

bool AgentLink::has_readers(StreamKind kind) const {
    return std::any_of(subscribers_.begin(), subscribers_.end(),
                       [kind](auto& s) { return s.first == kind; });
}

void AgentLink::publish_json(const std::string& event, const std::string& data) {
    publish(StreamKind::kSamples, event, data);
    publish(StreamKind::kDashboard, event, data);
}

std::string AgentLink::latest_json_locked() const {
    if (!latest_) return "";
    static const Session no_definitions;
    std::string json = sample_json(*latest_, Packet{}, no_definitions);
    return "{\"agent\":" + json_quote(spec_.name) + "," + json.substr(1);
}

std::string AgentLink::latest_json() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return latest_json_locked();
}

void AgentLink::publish(StreamKind kind, const std::string& event, const std::string& data) {
    std::shared_ptr<const std::string> text;
    for (auto& [k, s] : subscribers_) {
        if (k != kind) continue;
        if (!text) text = std::make_shared<const std::string>(sse_event(event, data));
        s->push(text);
    }
    std::erase_if(subscribers_, [](auto& s) { return s.second->closed(); });
}

void AgentLink::maybe_renew(AgentFeed& feed, const Sample& sample) {
    bool unnamed = std::any_of(
        sample.readings.begin(), sample.readings.end(),
        [](const Reading& r) { return r.metric->is_process && r.metric->process_name.empty(); });
    if (!unnamed || !renewal_.due(Clock::now())) return;
    // A new <DATA> on the hub's own connection: the agent answers with a header pass that
    // names every process running now.
    feed.renew();
    std::lock_guard<std::mutex> lock(mutex_);
    ++status_.renewals;
}

std::shared_ptr<Subscriber> AgentLink::subscribe(StreamKind kind) {
    auto s = std::make_shared<Subscriber>(options_.queue_events);
    std::lock_guard<std::mutex> lock(mutex_);
    if (kind == StreamKind::kPackets) {
        for (const std::string& d : definitions_)
            s->push(std::make_shared<const std::string>(sse_event("header", d)));
        if (!latest_raw_.empty())
            s->push(std::make_shared<const std::string>(sse_event("sample", latest_raw_)));
        // A reader that joins late still learns which rules are firing.
        std::set<std::string> told;
        for (auto r = alerts_.rbegin(); r != alerts_.rend(); ++r)
            if (auto f = firing_.find(r->alert.name);
                r->raised && f != firing_.end() && f->second && told.insert(f->first).second)
                s->push(
                    std::make_shared<const std::string>(sse_event("alert", alert_line(r->alert))));
    } else if (latest_) {
        std::string json = kind == StreamKind::kDashboard
                               ? compact_sample_json(spec_.name, *latest_, status_.last_sample_ms)
                               : latest_json_locked();
        s->push(std::make_shared<const std::string>(sse_event("sample", json)));
    }
    subscribers_.emplace_back(kind, s);
    return s;
}

void AgentLink::unsubscribe(const std::shared_ptr<Subscriber>& s) {
    s->close();
    std::lock_guard<std::mutex> lock(mutex_);
    std::erase_if(subscribers_, [&](auto& entry) { return entry.second == s; });
}

AgentStatus AgentLink::status() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

std::vector<History::Point> AgentLink::history(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return history_.points(path);
}

std::vector<std::string> AgentLink::history_paths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> paths = history_.paths();
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::vector<AlertRecord> AgentLink::alerts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return alerts_;
}

std::shared_ptr<const Sample> AgentLink::latest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return latest_;
}

std::vector<Rule> AgentLink::rules() const {
    return rules_;  // read once when the link is made, never changed after
}

std::set<std::string> AgentLink::firing() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::string> names;
    for (auto& [name, raised] : firing_)
        if (raised) names.insert(name);
    return names;
}

AgentSeries AgentLink::series() const {
    std::lock_guard<std::mutex> lock(mutex_);
    AgentSeries a;
    a.instance = status_.instance;
    a.host = status_.host;
    a.up = status_.up;
    a.packets = static_cast<double>(status_.packets);
    a.series = series_;
    for (const Rule& r : rules_) {
        std::string labels = "rule=\"" + label_value(r.name) + "\"";
        auto f = firing_.find(r.name);
        a.alerts.push_back({&kAlertsFiring, labels, f != firing_.end() && f->second ? 1.0 : 0.0});
        auto n = alerts_received_.find(r.name);
        a.alerts.push_back(
            {&kAlertsReceived, labels, n == alerts_received_.end() ? 0.0 : double(n->second)});
    }
    return a;
}

void AgentLink::run_alerts() {
    long sent_for = 0;
    Clock::time_point next_fetch = Clock::now();
    while (!stop_) {
        nap(stop_, 250);
        long connections = connections_.load();
        bool up = status().up;
        if (up && connections != sent_for && send_rules()) {
            sent_for = connections;
            next_fetch = Clock::now() + std::chrono::seconds(options_.alert_interval_s);
        }
        if (up && sent_for != 0 && Clock::now() >= next_fetch) {
            fetch_alerts();
            next_fetch = Clock::now() + std::chrono::seconds(options_.alert_interval_s);
        }
    }
}

// The alert interval first, then the leaf list, which also restarts the agent's alert
// countdown from that interval; then the rules whose paths resolve (the agent stops reading
// at the first it cannot find). They replace what the hub's address sent before, and the
// agent's alert state starts over with them, so nothing is firing.
bool AgentLink::send_rules() {
    Exchange ex;
    std::string err;
    std::vector<Leaf> leaves;
    std::vector<Rule> good;
    std::string refused;
    bool ok = exchange(spec_.endpoint,
                       "<ALERT_INTERVAL>\n" + std::to_string(options_.alert_interval_s) +
                           "\n</ALERT_INTERVAL>\n",
                       false, options_.timeout_ms, alert_interval_reply_complete, ex, err) &&
              exchange(spec_.endpoint, "<DESC>\n", false, options_.timeout_ms, desc_reply_complete,
                       ex, err) &&
              parse_desc_reply(ex.reply, leaves, err);
    if (ok) {
        std::set<std::string> paths = rule_paths(leaves);
        for (const Rule& r : rules_) {
            if (rule_resolves(r, paths, err))
                good.push_back(r);
            else
                refused += (refused.empty() ? "" : "; ") + ("rule '" + r.name + "': " + err);
        }
        ok = exchange(spec_.endpoint, expdef_request(good), true, options_.timeout_ms, nullptr, ex,
                      err);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (!ok) {
        status_.last_error = "sending the rules failed: " + err;
        return false;
    }
    if (!refused.empty()) status_.last_error = refused;
    firing_.clear();
    return true;
}

void AgentLink::fetch_alerts() {
    Exchange ex;
    std::string err;
    std::vector<Alert> got;
    bool no_rules = false;
    bool ok = exchange(spec_.endpoint, "<GETALERTS>\n", false, options_.timeout_ms,
                       alerts_reply_complete, ex, err) &&
              parse_alerts_reply(ex.reply, got, no_rules, err);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!ok) {
        status_.last_error = "collecting alerts failed: " + err;
        return;
    }
    if (no_rules) ++connections_;  // the agent lost them (restarted between two fetches)
    for (Alert& a : got) {
        // The agent raises an alert when a rule's condition has held for its duration and
        // sends one more when it stops holding: each alert of a rule flips it.
        bool raised = !firing_[a.name];
        firing_[a.name] = raised;
        ++alerts_received_[a.name];
        std::string json = "{\"agent\":" + json_quote(spec_.name) +
                           ",\"raised\":" + (raised ? "true" : "false") +
                           ",\"alert\":" + alert_json(a) + "}";
        publish_json("alert", json);
        publish(StreamKind::kPackets, raised ? "alert" : "cleared", alert_line(a));
        alerts_.push_back({std::move(a), unix_ms_now(), raised});
    }
    if (alerts_.size() > kMaxAlertRecords)
        alerts_.erase(alerts_.begin(), alerts_.end() - kMaxAlertRecords);
}

void Hub::set_agents(const std::vector<AgentSpec>& specs) {
    std::vector<std::shared_ptr<AgentLink>> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::shared_ptr<AgentLink>> next;
        for (const AgentSpec& spec : specs) {
            auto it = std::find_if(agents_.begin(), agents_.end(),
                                   [&](auto& a) { return a->spec() == spec; });
            next.push_back(it != agents_.end() ? *it : std::make_shared<AgentLink>(spec, options_));
        }
        for (auto& a : agents_)
            if (std::find(next.begin(), next.end(), a) == next.end()) dropped.push_back(a);
        agents_ = std::move(next);
    }
    // Closing a dropped agent waits for its threads: outside the lock, so readers go on.
    dropped.clear();
}

std::vector<std::shared_ptr<AgentLink>> Hub::agents() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return agents_;
}

std::shared_ptr<AgentLink> Hub::find(const std::string& name) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& a : agents_)
        if (a->spec().name == name) return a;
    return nullptr;
}

std::string Hub::metrics(bool openmetrics) const {
    std::vector<AgentSeries> all;
    for (auto& a : agents()) all.push_back(a->series());
    return exposition_text(all, openmetrics);
}

}  // namespace vornmon
