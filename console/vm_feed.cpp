#include "console/vm_feed.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace vornmon {

FeedEvent wait_event(Feed& feed, int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        FeedEvent event = feed.next();
        if (event.kind != FeedEvent::Kind::kIdle) return event;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) return event;
        int ms = static_cast<int>(std::min<long long>(left, feed.wait_ms()));
        pollfd p{feed.fd(), POLLIN, 0};
        if (p.fd < 0)
            poll(nullptr, 0, ms);
        else if (poll(&p, 1, ms) < 0 && errno != EINTR)
            return event;
    }
}

AgentFeed::AgentFeed(Endpoint agent, int interval, int timeout_ms, int give_up_s)
    : stream_(std::move(agent), interval, timeout_ms),
      reconnector_(give_up_s),
      give_up_s_(give_up_s) {}

bool AgentFeed::start(std::string& err) {
    if (!stream_.open(err)) return false;
    opened();
    return true;
}

void AgentFeed::opened() {
    session_.reset();
    first_packet_.connection_started();
    reconnector_.connected();
}

int AgentFeed::wait_ms() const {
    return stream_.is_open() ? 1000 : std::clamp(reconnector_.ms_until_due(), 10, 1000);
}

void AgentFeed::renew() {
    // A new <DATA> takes the agent's data connection over, the old one sees end of stream.
    std::string err;
    if (stream_.open(err))
        opened();
    else
        reconnector_.lost();
}

FeedEvent AgentFeed::reconnect() {
    FeedEvent event;
    if (reconnector_.given_up()) {
        event.kind = FeedEvent::Kind::kFailed;
        event.message = "the agent at " + source() + " did not come back within " +
                        std::to_string(give_up_s_) + " s";
        return event;
    }
    if (!reconnector_.due()) return event;
    std::string err;
    if (!stream_.open(err)) {
        reconnector_.failed_attempt();
        return event;
    }
    opened();
    event.kind = FeedEvent::Kind::kNotice;
    event.message = "reconnected to " + source();
    return event;
}

FeedEvent AgentFeed::next() {
    if (!stream_.is_open()) return reconnect();
    FeedEvent event;
    std::string err;
    switch (stream_.pump(event.packet, err)) {
        case DataStream::Status::kIdle:
            return event;
        case DataStream::Status::kLost:
            reconnector_.lost();
            event.kind = FeedEvent::Kind::kNotice;
            event.message = err + "; reconnecting";
            return event;
        case DataStream::Status::kMalformed:
            reconnector_.lost();
            event.kind = FeedEvent::Kind::kMalformed;
            event.message = "malformed packet from " + source() + ": " + err;
            return event;
        case DataStream::Status::kPacket:
            break;
    }
    if (!session_.accept(event.packet, event.sample, err)) {
        stream_.close();
        reconnector_.lost();
        event.kind = FeedEvent::Kind::kMalformed;
        event.message = "malformed packet " + std::to_string(event.packet.number) + " from " +
                        source() + ": " + err;
        return event;
    }
    reconnector_.progress();
    event.kind = FeedEvent::Kind::kPacket;
    event.measurement = first_packet_.is_measurement();
    return event;
}

}  // namespace vornmon
