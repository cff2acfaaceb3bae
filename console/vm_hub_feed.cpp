#include "console/vm_hub_feed.h"

#include <httplib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

namespace vornmon {
namespace {

using Clock = std::chrono::steady_clock;

// The hub writes ": idle" every second; this much silence means it is gone.
constexpr int kSilenceS = 10;

// A JSON string starting at `at` (the opening quote), unescaped; `at` moves past it.
std::string json_string(const std::string& s, std::size_t& at) {
    std::string out;
    for (++at; at < s.size() && s[at] != '"'; ++at) {
        if (s[at] != '\\' || at + 1 >= s.size()) {
            out += s[at];
            continue;
        }
        char c = s[++at];
        if (c == 'u' && at + 4 < s.size()) {
            unsigned code = std::stoul(s.substr(at + 1, 4), nullptr, 16);
            out += code < 0x80 ? static_cast<char>(code) : '?';
            at += 4;
        } else {
            out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c;
        }
    }
    ++at;
    return out;
}

}  // namespace

std::vector<SseEvent> take_sse_events(std::string& buffer) {
    std::vector<SseEvent> out;
    std::size_t start = 0;
    for (std::size_t end; (end = buffer.find("\n\n", start)) != std::string::npos;
         start = end + 2) {
        SseEvent e;
        bool has_data = false;
        for (std::size_t line = start; line <= end;) {
            std::size_t nl = buffer.find('\n', line);
            std::string_view text(buffer.data() + line, nl - line);
            line = nl + 1;
            if (text.rfind("event:", 0) == 0) {
                e.name = std::string(text.substr(text.size() > 6 && text[6] == ' ' ? 7 : 6));
            } else if (text.rfind("data:", 0) == 0) {
                if (has_data) e.data += '\n';
                e.data += text.substr(text.size() > 5 && text[5] == ' ' ? 6 : 5);
                has_data = true;
            }
        }
        if (has_data || !e.name.empty()) out.push_back(std::move(e));
    }
    buffer.erase(0, start);
    return out;
}

std::vector<std::string> agent_names(const std::string& json) {
    std::vector<std::string> names;
    const std::string key = "{\"name\":";
    for (std::size_t at = json.find(key); at != std::string::npos; at = json.find(key, at)) {
        at += key.size();
        if (at < json.size() && json[at] == '"') names.push_back(json_string(json, at));
    }
    return names;
}

HubFeed::HubFeed(std::string url, std::string agent, int timeout_ms, int give_up_s)
    : url_(std::move(url)),
      agent_(std::move(agent)),
      timeout_ms_(timeout_ms),
      give_up_s_(give_up_s),
      wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

HubFeed::~HubFeed() {
    stop_ = true;
    if (reader_.joinable()) reader_.join();
    if (wake_fd_ >= 0) close(wake_fd_);
}

bool HubFeed::start(std::string& err) {
    httplib::Client client(url_);
    if (!client.is_valid()) {
        err = "--hub needs a URL such as http://127.0.0.1:9108, got '" + url_ + "'";
        return false;
    }
    client.set_connection_timeout(std::chrono::milliseconds(timeout_ms_));
    client.set_read_timeout(std::chrono::milliseconds(timeout_ms_));
    auto res = client.Get("/api/agents");
    if (!res || res->status != 200) {
        err = "cannot reach the hub at " + url_ + ": " +
              (res ? "status " + std::to_string(res->status) : httplib::to_string(res.error()));
        return false;
    }
    std::vector<std::string> names = agent_names(res->body);
    if (agent_.empty() && names.size() == 1) agent_ = names[0];
    if (std::find(names.begin(), names.end(), agent_) == names.end()) {
        std::string list;
        for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
        err = (agent_.empty() ? std::string("the hub watches several agents")
                              : "the hub at " + url_ + " watches no agent named '" + agent_ + "'") +
              "; name one with --agent (" + list + ")";
        return false;
    }
    reader_ = std::thread([this] { run(); });
    return true;
}

void HubFeed::push(SseEvent e) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(e));
    }
    std::uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) < 0) {
        // The counter is saturated: the reader is woken already.
    }
}

// Reads the hub's packet stream, and reads it again after a pause when it ends, until the
// feed is dropped or, with a give-up time, the hub stays away that long.
void HubFeed::run() {
    Clock::time_point last_good = Clock::now();
    int pause_ms = 250;
    while (!stop_) {
        httplib::Client client(url_);
        client.set_connection_timeout(std::chrono::milliseconds(timeout_ms_));
        client.set_read_timeout(std::chrono::seconds(kSilenceS));
        std::string buffer;
        bool got = false;
        auto res = client.Get("/api/agents/" + agent_ + "/packets",
                              [&](const char* data, std::size_t size) {
                                  buffer.append(data, size);
                                  for (SseEvent& e : take_sse_events(buffer)) {
                                      got = true;
                                      push(std::move(e));
                                  }
                                  return !stop_ && buffer.size() < (64u << 20);
                              });
        if (stop_) return;
        if (got) {
            last_good = Clock::now();
            pause_ms = 250;
        }
        std::string why = res ? "the hub at " + url_ + " ended the stream (status " +
                                    std::to_string(res->status) + ")"
                              : "the hub at " + url_ + ": " + httplib::to_string(res.error());
        if (give_up_s_ > 0 && Clock::now() - last_good > std::chrono::seconds(give_up_s_)) {
            push({"failed", why + "; gave up after " + std::to_string(give_up_s_) + " s"});
            return;
        }
        push({"lost", why + "; reconnecting"});
        for (int slept = 0; slept < pause_ms && !stop_; slept += 50)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pause_ms = std::min(pause_ms * 2, 8000);
    }
}

FeedEvent HubFeed::next() {
    FeedEvent event;
    SseEvent e;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (events_.empty()) {
            std::uint64_t count;
            if (read(wake_fd_, &count, sizeof count) < 0) {
                // Nothing was pending.
            }
            return event;
        }
        e = std::move(events_.front());
        events_.pop_front();
    }
    if (e.name == "failed" || e.name == "lost" || e.name == "notice") {
        event.kind = e.name == "failed" ? FeedEvent::Kind::kFailed : FeedEvent::Kind::kNotice;
        event.message = e.data;
        return event;
    }
    if (e.name == "alert" || e.name == "cleared") {
        std::string err;
        if (parse_alert_line(e.data, event.alert, err)) {
            event.kind = FeedEvent::Kind::kAlert;
            event.raised = e.name == "alert";
        }
        return event;
    }
    if (e.name != "header" && e.name != "first" && e.name != "sample") return event;
    Framer framer;
    framer.feed(e.data);
    std::string err;
    if (next_packet(framer, event.packet, err) != Framer::Result::kPacket ||
        !session_.accept(event.packet, event.sample, err)) {
        event.kind = FeedEvent::Kind::kMalformed;
        event.message = "malformed packet from the hub at " + url_ + ": " + err;
        return event;
    }
    event.kind = FeedEvent::Kind::kPacket;
    event.measurement = e.name == "sample";
    return event;
}

}  // namespace vornmon
