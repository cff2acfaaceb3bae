// Running `vornmon hub` (and other programs) beside real agents in e2e tests: a child
// process ended by its pid, and plain HTTP requests on loopback.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "agent_harness.h"

extern char** environ;

namespace e2e {

/// A program run in the background with its output in files; SIGTERM, then SIGKILL, ends it.
struct Child {
    pid_t pid = -1;
    std::string out_path;
    Child(const std::vector<std::string>& argv, const std::string& out) : out_path(out) {
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&files, 1, 2);
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawn(&pid, args[0], &files, nullptr, args.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&files);
    }
    ~Child() { stop(); }
    int stop() {
        int status = -1;
        for (int sig : {SIGTERM, SIGKILL}) {
            if (pid <= 0) break;
            kill(pid, sig);
            for (int i = 0; i < 100; ++i) {
                if (waitpid(pid, &status, WNOHANG) == pid) {
                    pid = -1;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
        return status;
    }
    std::string output() const {
        std::ostringstream s;
        s << std::ifstream(out_path).rdbuf();
        return s.str();
    }
};

/// The body of a GET on loopback (empty when the request failed); `status` gets the code.
inline std::string http_get(int port, const std::string& target, int* status = nullptr,
                            const std::string& headers = "") {
    Client c(port);
    std::string reply =
        c.ok() && c.send("GET " + target + " HTTP/1.0\r\nHost: x\r\n" + headers + "\r\n")
            ? c.read_to_end(5000)
            : "";
    if (status) *status = reply.size() > 12 ? std::atoi(reply.c_str() + 9) : 0;
    std::size_t body = reply.find("\r\n\r\n");
    return body == std::string::npos ? "" : reply.substr(body + 4);
}

/// `part` found in `text`, as text or as a pattern (no ".*" on long texts: the matcher
/// recurses per character); the failure shows the start of the text.
inline ::testing::AssertionResult has(const std::string& text, const std::string& part,
                                      bool re = false) {
    if (re ? std::regex_search(text, std::regex(part)) : text.find(part) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no '" << part << "' in:\n" << text.substr(0, 3000);
}

/// Polls `done` every 200 ms until it holds or `seconds` pass.
template <typename F>
bool eventually(int seconds, F done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(200)))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

inline std::string vornmon_binary() {
    return std::string(VORN_BINARY_DIR) + "/vornmon";
}

/// Two agents with process collection at a one-second scan, each on its own install root
/// and port, and the hub a test starts over them; stopped in that order.
struct TwoAgentsAndAHub : ::testing::Test {
    InstallRoot root_a, root_b;
    int port_a = free_port(), port_b = free_port(), http = free_port();
    std::unique_ptr<Agent> a, b;
    std::unique_ptr<Child> hub;

    void start_agents() {
        for (auto [agent, root, port] : {std::tuple{&a, &root_a, port_a}, {&b, &root_b, port_b}}) {
            *agent = std::make_unique<Agent>(
                *root, std::vector<std::string>{"-nofork", "-port", std::to_string(port), "-scan",
                                                "1", "-collectprocess"});
            ASSERT_TRUE((*agent)->wait_listening(port)) << (*agent)->err();
        }
    }
    /// `vornmon hub --listen` on the test's port, with the arguments given.
    void start_hub(std::vector<std::string> args) {
        args.insert(args.begin(),
                    {vornmon_binary(), "hub", "--listen", "127.0.0.1:" + std::to_string(http)});
        hub = std::make_unique<Child>(args, root_a.path + "/hub.out");
    }
    void TearDown() override {
        hub.reset();
        for (auto* agent : {&a, &b})
            if (*agent) {
                EXPECT_EQ((*agent)->stop(), 0) << (*agent)->err();
            }
    }
};

}  // namespace e2e
