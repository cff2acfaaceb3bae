// A Feed that reads one agent through a hub: the hub's packet stream carries the agent's
// packets as they arrived, starting with the definitions in force, each marked as header,
// first data packet or measurement. Many readers share the hub's one data connection.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "console/vm_feed.h"

namespace vornmon {

/// One server-sent event: its name and its data lines joined by line feeds.
struct SseEvent {
    std::string name, data;
};
/// Takes the complete events off the front of `buffer`; comments are skipped.
std::vector<SseEvent> take_sse_events(std::string& buffer);

/// The names in a hub's /api/agents reply.
std::vector<std::string> agent_names(const std::string& json);

class HubFeed : public Feed {
  public:
    /// `agent` may be empty when the hub watches exactly one agent.
    HubFeed(std::string url, std::string agent, int timeout_ms, int give_up_s);
    ~HubFeed() override;

    bool start(std::string& err) override;
    int fd() const override { return wake_fd_; }
    int wait_ms() const override { return 1000; }
    FeedEvent next() override;
    /// The hub asks its agent for a fresh header pass itself when processes have no name.
    void renew() override {}
    const Session& session() const override { return session_; }
    std::string source() const override { return agent_ + " via " + url_; }

  private:
    void run();
    void push(SseEvent e);

    std::string url_, agent_;
    int timeout_ms_, give_up_s_;
    int wake_fd_ = -1;
    Session session_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::deque<SseEvent> events_;
    std::thread reader_;
};

}  // namespace vornmon
