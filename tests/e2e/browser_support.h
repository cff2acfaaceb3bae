// A headless Chromium driven through its DevTools protocol on a pipe: load a page, wait until
// an expression holds in it, read what it shows, take a screenshot. A page that keeps a live
// stream open never goes idle, so the command line's --dump-dom (which waits for that) cannot
// be used; the protocol asks the page itself instead. Every wait is bounded.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace e2e {

/// The Chromium of the system, or empty when none is installed.
inline std::string chromium_binary() {
    for (const char* name : {"chromium", "chromium-browser", "google-chrome"}) {
        std::string path;
        for (const char* dir : {"/usr/bin/", "/usr/local/bin/", "/bin/"})
            if (access((std::string(dir) + name).c_str(), X_OK) == 0)
                return std::string(dir) + name;
    }
    return "";
}

/// The text of a JSON string starting at `at` (just after its opening quote).
inline std::string json_string_at(const std::string& json, std::size_t at) {
    std::string out;
    for (std::size_t i = at; i < json.size(); ++i) {
        char c = json[i];
        if (c == '"') break;
        if (c != '\\' || i + 1 >= json.size()) {
            out += c;
            continue;
        }
        char e = json[++i];
        if (e == 'n')
            out += '\n';
        else if (e == 't')
            out += '\t';
        else if (e == 'r')
            out += '\r';
        else if (e == 'b' || e == 'f')
            out += ' ';
        else if (e == 'u' && i + 4 < json.size()) {
            unsigned code = static_cast<unsigned>(std::stoul(json.substr(i + 1, 4), nullptr, 16));
            i += 4;
            if (code < 0x80)
                out += static_cast<char>(code);
            else if (code < 0x800)
                out += static_cast<char>(0xc0 | code >> 6),
                    out += static_cast<char>(0x80 | (code & 0x3f));
            else
                out += static_cast<char>(0xe0 | code >> 12),
                    out += static_cast<char>(0x80 | (code >> 6 & 0x3f)),
                    out += static_cast<char>(0x80 | (code & 0x3f));
        } else
            out += e;
    }
    return out;
}

inline std::string json_escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\', out += c;
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

inline std::string base64_decode(const std::string& in) {
    std::string out;
    unsigned buffer = 0;
    int bits = 0;
    for (char c : in) {
        int v = c >= 'A' && c <= 'Z'   ? c - 'A'
                : c >= 'a' && c <= 'z' ? c - 'a' + 26
                : c >= '0' && c <= '9' ? c - '0' + 52
                : c == '+'             ? 62
                : c == '/'             ? 63
                                       : -1;
        if (v < 0) continue;
        buffer = buffer << 6 | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>(buffer >> bits & 0xff);
        }
    }
    return out;
}

class Browser {
  public:
    /// Starts Chromium headless with a profile in `profile_dir` and its log in `log_path`.
    Browser(const std::string& binary, const std::string& profile_dir,
            const std::string& log_path) {
        int to_browser[2], from_browser[2];
        if (pipe2(to_browser, O_CLOEXEC) != 0 || pipe2(from_browser, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, 1, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&files, 1, 2);
        // Out of the way of 3 and 4 first, so that neither dup2 overwrites the other's source.
        int browser_in = fcntl(to_browser[0], F_DUPFD_CLOEXEC, 10);
        int browser_out = fcntl(from_browser[1], F_DUPFD_CLOEXEC, 10);
        posix_spawn_file_actions_adddup2(&files, browser_in, 3);   // the protocol's input
        posix_spawn_file_actions_adddup2(&files, browser_out, 4);  // and its output
        std::vector<std::string> argv = {binary,
                                         "--headless",
                                         "--no-sandbox",
                                         "--disable-gpu",
                                         "--disable-dev-shm-usage",
                                         "--remote-debugging-pipe",
                                         "--user-data-dir=" + profile_dir,
                                         "--no-first-run",
                                         "--hide-scrollbars",
                                         "--mute-audio",
                                         "--disable-extensions",
                                         "--disable-background-networking",
                                         "--window-size=1400,1000",
                                         "about:blank"};
        std::vector<char*> args;
        for (std::string& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        if (posix_spawn(&pid_, args[0], &files, nullptr, args.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&files);
        for (int fd : {to_browser[0], from_browser[1], browser_in, browser_out}) close(fd);
        in_ = to_browser[1];
        out_ = from_browser[0];
    }
    ~Browser() {
        if (in_ >= 0) close(in_);
        if (out_ >= 0) close(out_);
        for (int sig : {SIGTERM, SIGKILL}) {
            if (pid_ <= 0) break;
            kill(pid_, sig);
            for (int i = 0; i < 60 && pid_ > 0; ++i) {
                if (waitpid(pid_, nullptr, WNOHANG) == pid_)
                    pid_ = -1;
                else
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
    }
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

    /// Opens a page target and attaches to it; false when the browser does not answer.
    bool open(std::string& err) {
        std::string reply;
        if (pid_ <= 0 ||
            !call("Target.createTarget", "{\"url\":\"about:blank\"}", reply, err, false))
            return false;
        std::string target = field(reply, "targetId");
        if (!call("Target.attachToTarget", "{\"targetId\":\"" + target + "\",\"flatten\":true}",
                  reply, err, false))
            return false;
        session_ = field(reply, "sessionId");
        return !session_.empty() && call("Page.enable", "{}", reply, err) &&
               call("Runtime.enable", "{}", reply, err);
    }

    /// Sets the window the page lays itself out in.
    bool resize(int width, int height, std::string& err) {
        std::string reply;
        return call("Emulation.setDeviceMetricsOverride",
                    "{\"width\":" + std::to_string(width) + ",\"height\":" +
                        std::to_string(height) + ",\"deviceScaleFactor\":1,\"mobile\":false}",
                    reply, err);
    }

    bool navigate(const std::string& url, std::string& err) {
        std::string reply;
        return call("Page.navigate", "{\"url\":\"" + json_escape(url) + "\"}", reply, err);
    }

    /// The value of a JavaScript expression that gives a string (empty on failure).
    std::string text(const std::string& expression, std::string& err) {
        std::string reply;
        if (!call("Runtime.evaluate",
                  "{\"expression\":\"String(" + json_escape(expression) +
                      ")\",\"returnByValue\":true}",
                  reply, err))
            return "";
        std::size_t at = reply.find("\"value\":\"");
        return at == std::string::npos ? "" : json_string_at(reply, at + 9);
    }

    /// Polls `expression` every 250 ms until it gives "true" or `seconds` pass.
    bool wait_for(const std::string& expression, int seconds, std::string& err) {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end) {
            if (text("!!(" + expression + ")", err) == "true") return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        err = "timed out waiting for " + expression;
        return false;
    }

    /// Writes a PNG of what the window shows to `path`.
    bool screenshot(const std::string& path, std::string& err) {
        std::string reply;
        if (!call("Page.captureScreenshot", "{\"format\":\"png\"}", reply, err)) return false;
        std::size_t at = reply.find("\"data\":\"");
        if (at == std::string::npos) return err = "no screenshot data", false;
        std::ofstream(path, std::ios::binary) << base64_decode(json_string_at(reply, at + 8));
        return true;
    }

  private:
    // Sends one command and waits (at most 20 s) for its reply; events in between are dropped.
    bool call(const std::string& method, const std::string& params, std::string& reply,
              std::string& err, bool in_session = true) {
        int id = ++next_id_;
        std::string message = "{\"id\":" + std::to_string(id) + ",\"method\":\"" + method +
                              "\",\"params\":" + params +
                              (in_session ? ",\"sessionId\":\"" + session_ + "\"" : "") + "}";
        message.push_back('\0');
        if (write(in_, message.data(), message.size()) != static_cast<ssize_t>(message.size()))
            return err = method + ": the browser is gone", false;
        std::string prefix = "{\"id\":" + std::to_string(id) + ",";
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < end) {
            for (std::size_t nul; (nul = pending_.find('\0')) != std::string::npos;) {
                std::string m = pending_.substr(0, nul);
                pending_.erase(0, nul + 1);
                if (m.rfind(prefix, 0) != 0) continue;
                reply = m;
                if (m.find("\"error\":{") != std::string::npos &&
                    m.find("\"result\"") == std::string::npos)
                    return err = method + ": " + m, false;
                return true;
            }
            pollfd p{out_, POLLIN, 0};
            if (poll(&p, 1, 200) <= 0) continue;
            char buf[65536];
            ssize_t n = read(out_, buf, sizeof buf);
            if (n <= 0) return err = method + ": the browser closed its pipe", false;
            pending_.append(buf, static_cast<std::size_t>(n));
        }
        return err = method + ": no reply within 20 s", false;
    }

    static std::string field(const std::string& json, const std::string& name) {
        std::size_t at = json.find("\"" + name + "\":\"");
        return at == std::string::npos ? "" : json_string_at(json, at + name.size() + 4);
    }

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1;
    int next_id_ = 0;
    std::string session_, pending_;
};

}  // namespace e2e
