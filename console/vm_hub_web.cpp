#include "console/vm_hub_web.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "console/vm_dashboard.h"
#include "console/vm_json.h"

namespace vornmon {
namespace {

constexpr const char* kJsonType = "application/json";
constexpr std::size_t kFleetSparkline = 90;  // the fleet page's recent processor utilisation

// The history keeps single-precision values: printed as such (98.53, not
// 98.52999877929688), a reply is much shorter.
std::string stored_number(double value) {
    float f = static_cast<float>(value);
    if (!std::isfinite(f)) return "null";
    char buf[32];
    auto result = std::to_chars(buf, buf + sizeof buf, f);
    return std::string(buf, result.ptr);
}

std::string points_json(const std::vector<History::Point>& points) {
    std::string out = "[";
    for (const History::Point& p : points)
        out += (out.size() > 1 ? ",[" : "[") + std::to_string(p.unix_ms) + "," +
               stored_number(p.value) + "]";
    return out + "]";
}

std::string rules_json(const AgentLink& agent) {
    std::set<std::string> firing = agent.firing();
    std::string out = "{\"rules\":[";
    bool first = true;
    for (const Rule& r : agent.rules()) {
        out += first ? "{" : ",{";
        first = false;
        out += "\"name\":" + json_quote(r.name) + ",\"path\":" + json_quote(r.path) +
               ",\"condition\":" + json_quote(r.condition) + ",\"limit\":" + json_number(r.limit) +
               ",\"hours\":" + std::to_string(r.hours) +
               ",\"minutes\":" + std::to_string(r.minutes) +
               ",\"description\":" + json_quote(r.description) +
               ",\"firing\":" + (firing.count(r.name) ? "true" : "false") + "}";
    }
    return out + "],\"last_error\":" + json_quote(agent.status().last_error) + "}";
}


// What / says when the page files are missing: the API still works, and how to fix it.
std::string missing_page(const WebFiles& web) {
    std::string html =
        "<!doctype html><meta charset=utf-8><title>vornmon hub</title>"
        "<h1>vornmon hub</h1><p>The dashboard's page files were not found, so there is no web "
        "page to show. Looked in:</p><ul>";
    for (const std::string& place : web.looked_in) {
        std::string escaped;
        for (char c : place) escaped += c == '<' ? "&lt;" : c == '&' ? "&amp;" : std::string(1, c);
        html += "<li><code>" + escaped + "</code></li>";
    }
    return html +
           "</ul><p>Install the console with its page files, or start the hub with "
           "<code>--web DIR</code>. The API is served: <a href=\"api/agents\">api/agents</a>, "
           "<a href=\"metrics\">metrics</a>.</p>";
}

void serve_page_file(const WebFiles& web, const httplib::Request& req, httplib::Response& res) {
    if (web.root.empty() && (req.path == "/" || req.path == "/index.html")) {
        res.status = 404;
        return res.set_content(missing_page(web), "text/html; charset=utf-8");
    }
    WebReply reply = web_file(web.root, req.path, req.get_header_value("If-None-Match"));
    res.status = reply.status;
    if (reply.status == 404) return res.set_content("not found\n", "text/plain; charset=utf-8");
    // Every reload asks again, and an unchanged file costs a 304 without a body.
    res.set_header("Cache-Control", "no-cache");
    res.set_header("ETag", reply.etag);
    res.set_header("X-Content-Type-Options", "nosniff");
    if (reply.status == 200) res.set_content(std::move(reply.body), reply.content_type);
}

}  // namespace

std::string fleet_json(const Hub& hub) {
    const HubOptions& o = hub.options();
    std::string out = "{\"interval\":" + std::to_string(o.interval) +
                      ",\"history_s\":" + std::to_string(o.history_s) + ",\"agents\":[";
    bool first = true;
    for (const auto& a : hub.agents()) {
        auto latest = a->latest();
        std::vector<History::Point> points = a->history("Cpu->Average Utilization");
        std::vector<double> recent;
        for (std::size_t i = points.size() > kFleetSparkline ? points.size() - kFleetSparkline : 0;
             i < points.size(); ++i)
            recent.push_back(points[i].value);
        out += (first ? "" : ",") + fleet_row_json(a->status(), latest.get(), recent,
                                                   static_cast<int>(a->rules().size()),
                                                   static_cast<int>(a->firing().size()));
        first = false;
    }
    return out + "]}";
}

std::string history_series_json(const AgentLink& agent, const std::vector<std::string>& prefixes) {
    std::string out = "{\"series\":[";
    std::size_t count = 0;
    for (const std::string& path : agent.history_paths()) {
        bool wanted = std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& p) {
            return path.compare(0, p.size(), p) == 0;
        });
        if (!wanted) continue;
        if (++count > kMaxHistorySeries) break;
        out += (count > 1 ? ",{\"path\":" : "{\"path\":") + json_quote(path) +
               ",\"points\":" + points_json(agent.history(path)) + "}";
    }
    return out + "]}";
}

void add_dashboard_routes(httplib::Server& server, Hub& hub, const WebFiles& web) {
    server.Get("/api/fleet", [&hub](const httplib::Request&, httplib::Response& res) {
        res.set_content(fleet_json(hub), kJsonType);
    });
    server.Get(R"(/api/agents/([^/]+)/rules)",
               [&hub](const httplib::Request& req, httplib::Response& res) {
                   if (auto a = hub.find(req.matches[1]))
                       return res.set_content(rules_json(*a), kJsonType);
                   res.status = 404;
                   res.set_content("{\"error\":\"no such agent\"}", kJsonType);
               });
    server.Get(R"(/(?!api/|metrics$).*)",
               [web](const httplib::Request& req, httplib::Response& res) {
                   serve_page_file(web, req, res);
               });
}

}  // namespace vornmon
