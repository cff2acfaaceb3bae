// A live feed of one agent's packets, whoever delivers them: the agent's own data connection
// or a hub that holds that connection for everybody. Every live command is a loop around a
// Feed; which packets are measurements is decided here, once.
#pragma once

#include <string>

#include "console/vm_model.h"
#include "console/vm_net.h"
#include "console/vm_requests.h"

namespace vornmon {

struct FeedEvent {
    enum class Kind {
        kIdle,       // nothing new
        kPacket,     // a packet, decoded against the definitions in force
        kNotice,     // the connection was lost or came back; `message` says which
        kMalformed,  // the source sent something that is not a packet; `packet.raw` holds it
        kFailed,     // the source is gone for good; `message` says why
        kAlert,      // a rule's alert was raised or cleared (hubs only: they hold the rules)
    };
    Kind kind = Kind::kIdle;
    Packet packet;
    Sample sample;
    /// The packet covers one scan interval. See FirstPacketRule.
    bool measurement = false;
    std::string message;
    Alert alert;
    bool raised = false;
};

/// The agent answers `<DATA>` with two packets built back to back in the same request: the
/// header packet, which defines the counters, and a first data packet that covers no interval
/// (its rates are averages since boot or since a process started, its disk counts span an
/// unknown time). Every later packet of that connection covers one scan interval.
class FirstPacketRule {
  public:
    void connection_started() { packets_ = 0; }
    /// Counts `packet` as the connection's next one; true when it is a measurement.
    bool is_measurement() { return ++packets_ >= 3; }

  private:
    long packets_ = 0;
};

class Feed {
  public:
    virtual ~Feed() = default;
    /// Makes the first connection; false with the reason when the source cannot be reached.
    virtual bool start(std::string& err) = 0;
    /// A descriptor that turns readable when next() may have news; -1 to wait by time only.
    virtual int fd() const = 0;
    /// The longest a caller may wait before calling next() again.
    virtual int wait_ms() const = 0;
    /// The next event, without blocking.
    virtual FeedEvent next() = 0;
    /// Asks for a fresh header pass, which names the processes started since the last one.
    virtual void renew() = 0;
    /// The definitions of the current connection.
    virtual const Session& session() const = 0;
    /// What the feed reads from, for titles and messages.
    virtual std::string source() const = 0;
};

/// Waits up to `timeout_ms` for the next event; kIdle when none came.
FeedEvent wait_event(Feed& feed, int timeout_ms);

/// The agent's own data connection, reconnected with growing pauses when it is lost.
/// `give_up_s` > 0 ends the feed after that long without a packet; 0 retries for ever.
class AgentFeed : public Feed {
  public:
    AgentFeed(Endpoint agent, int interval, int timeout_ms, int give_up_s);

    bool start(std::string& err) override;
    int fd() const override { return stream_.fd(); }
    int wait_ms() const override;
    FeedEvent next() override;
    void renew() override;
    /// After a failed start: try again after the usual pause.
    void retry_later() { reconnector_.lost(); }
    const Session& session() const override { return session_; }
    std::string source() const override { return stream_.endpoint().text(); }

  private:
    FeedEvent reconnect();
    void opened();

    DataStream stream_;
    Session session_;
    Reconnector reconnector_;
    FirstPacketRule first_packet_;
    int give_up_s_;
};

}  // namespace vornmon
