// What the web dashboard is given: the compact measurement, the fleet figures (rates per
// second, partitions not counted twice), and the page files, served only from their own
// directory with a content type and a validator.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "console/vm_dashboard.h"
#include "console/vm_hub.h"
#include "console/vm_web.h"
#include "test_util.h"

using namespace vornmon_test;

namespace {

Sample decoded(const std::vector<std::string>& headers, const std::string& data) {
    Session s;
    Sample out;
    std::string err;
    EXPECT_TRUE(decode(s, frame(body(1, headers, "")) + frame(body(2, {}, data)), out, err)) << err;
    return out;
}

const std::vector<std::string> kHeaders = {
    "Cpu~^1~^-> 0->Total::1::x::1,%,1",
    "Cpu~^1~^-> 1->Total::2::x::1,%,1",
    "Disk~^1~^->sda->Total Operations::3::x::1,/Sec,1",
    "Disk~^1~^->sda->Total Transfers::4::x::1,/Sec,1",
    "Disk~^1~^->sda1->Total Operations::5::x::1,/Sec,1",
    "Disk~^1~^->sda1->Total Transfers::6::x::1,/Sec,1",
    "Memory~^1~^-> System Memory (MB)::7::Total Memory::1, ,0,1024",
    "Network->TCP->Data Rate->Received::8::x::0,/Sec,1",
    "Process~^1~^->make  (100)->User Name::67339::x::1, ,0,root",
    "Process~^1~^->make  (100)->% CPU Utilization::67341::x::1,%,1",
    "Process~^1~^->make  (100)->Rss (Kb)::67352::x::1,Kb,1"};
// The agent's interval is 2 s: disk counts are per interval, the network's per second.
const std::string kData =
    "1=10.00\n2=30.00\n3=40\n4=8192\n5=40\n6=8192\n7=1024\n8=500\n67339=root\n67341=12.50\n"
    "67352=2048\n70941=3.00\n";

std::string temp_dir() {
    char templ[] = "/tmp/vorn-web-XXXXXX";
    return mkdtemp(templ) ? templ : "";
}

void write(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

}  // namespace

TEST(Dashboard, CompactSampleNamesEveryColumnOnce) {
    std::string json = compact_sample_json("db1", decoded(kHeaders, kData), 1700000000123);
    EXPECT_TRUE(has(json, "{\"agent\":\"db1\",\"packet\":2,"));
    EXPECT_TRUE(has(json, "\"unix_ms\":1700000000123,"));
    EXPECT_TRUE(has(json, "\"values\":{\"Cpu-> 0->Total\":10,\"Cpu-> 1->Total\":30,"));
    EXPECT_TRUE(has(json, "\"Network->TCP->Data Rate->Received\":500}"));
    EXPECT_TRUE(has(json, "\"texts\":{\"Memory-> System Memory (MB)\":\"1024\"}"));
    EXPECT_TRUE(has(json, "\"process_columns\":[\"pid\",\"name\",\"ParentPID\",\"User Name\","));
    // pid 100 was named by a header line; pid 300 started after it and has no name yet.
    EXPECT_TRUE(has(json, "[100,\"make\",null,\"root\",null,12.5,"));
    EXPECT_TRUE(has(json, ",2048,null]"));
    EXPECT_TRUE(has(json, "[300,null,null,null,null,3,"));
    EXPECT_EQ(json.find("Process->"), std::string::npos) << "no process path is spelled out";
}

TEST(Dashboard, PartitionsOfListedDevices) {
    const std::vector<std::string> devices = {"sda",   "sda1",    "nvme0n1",   "nvme0n1p2", "dm-1",
                                              "dm-10", "mmcblk0", "mmcblk0p1", "vdb"};
    std::string partitions;
    for (const std::string& d : devices) partitions += is_partition(d, devices) ? "1" : "0";
    EXPECT_EQ(partitions, "010100010");
    EXPECT_FALSE(is_partition("sda1", {"sdb"}));
    EXPECT_FALSE(is_partition("sda", {}));
}

// Rates per second: the disk's per-interval counts are divided by the interval, and a
// partition's work is already in its disk's.
TEST(Dashboard, FleetFiguresArePerSecondOverWholeDisks) {
    FleetFigures f = fleet_figures(decoded(kHeaders, kData));
    EXPECT_EQ(f.processors, 2);
    EXPECT_DOUBLE_EQ(f.disk_ops, 20);
    EXPECT_DOUBLE_EQ(f.disk_bytes, 4096);
    EXPECT_DOUBLE_EQ(f.net_in, 500);
    EXPECT_DOUBLE_EQ(f.memory_total_mb, 1024);
    EXPECT_EQ(f.processes, 2);

    AgentStatus status;
    status.name = "db1";
    Sample s = decoded(kHeaders, kData);
    EXPECT_TRUE(
        has(fleet_row_json(status, &s, {1.26, 99}, 3, 1),
            "\"rules\":3,\"firing\":1,\"cpu_recent\":[1.3,99],\"figures\":{\"processors\":2,"));
    EXPECT_TRUE(
        has(fleet_row_json(status, nullptr, {}, 0, 0), "\"cpu_recent\":[],\"figures\":null}"));
}

TEST(WebFiles, OnlyPlainRelativePaths) {
    const std::pair<const char*, const char*> cases[] = {
        {"/", "index.html"},
        {"/agent.html", "agent.html"},
        {"/vendor/chart.min.js", "vendor/chart.min.js"},
        {"/docs/", "docs/index.html"},
        {"/../etc/passwd", nullptr},
        {"/vendor/../../etc/passwd", nullptr},
        {"/./agent.html", nullptr},
        {"//etc/passwd", nullptr},
        {"/.git/config", nullptr},
        {"/vendor/.hidden", nullptr},
        {"/a b.html", nullptr},
        {"/a%2e%2e", nullptr},
        {"/a\\..\\b", nullptr},
        {"agent.html", nullptr},
        {"", nullptr},
    };
    for (auto [url, want] : cases) {
        std::string rel;
        bool ok = web_relative_path(url, rel);
        EXPECT_EQ(ok, want != nullptr) << url;
        EXPECT_EQ(ok ? rel : "", want ? want : "") << url;
    }
    EXPECT_EQ(web_content_type("index.html"), "text/html; charset=utf-8");
    EXPECT_EQ(web_content_type("vendor/chart.min.js"), "text/javascript; charset=utf-8");
    EXPECT_EQ(web_content_type("app.css"), "text/css; charset=utf-8");
    EXPECT_EQ(web_content_type("logo.svg"), "image/svg+xml");
    EXPECT_EQ(web_content_type("README"), "application/octet-stream");
}

// Files inside the directory are served with a validator that turns a reload into a 304;
// nothing outside it is, not even through a symbolic link inside it.
TEST(WebFiles, ServedFromTheirDirectoryOnly) {
    std::string top = temp_dir();
    ASSERT_FALSE(top.empty());
    std::string root = top + "/web";
    write(root + "/index.html", "<p>fleet</p>");
    write(root + "/sub/page.js", "let x;");
    write(top + "/secret.txt", "secret");
    ASSERT_EQ(symlink((top + "/secret.txt").c_str(), (root + "/leak.txt").c_str()), 0);
    ASSERT_EQ(symlink((root + "/sub/page.js").c_str(), (root + "/alias.js").c_str()), 0);
    WebFiles found = find_web_files(root, "");
    ASSERT_FALSE(found.root.empty());

    WebReply r = web_file(found.root, "/", "");
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.body, "<p>fleet</p>");
    EXPECT_EQ(r.content_type, "text/html; charset=utf-8");
    ASSERT_FALSE(r.etag.empty());
    WebReply again = web_file(found.root, "/index.html", r.etag);
    EXPECT_EQ(again.status, 304);
    EXPECT_TRUE(again.body.empty());
    EXPECT_EQ(web_file(found.root, "/index.html", "\"other\"").status, 200);
    EXPECT_EQ(web_file(found.root, "/alias.js", "").body, "let x;") << "a link inside stays inside";
    for (const char* refused : {"/leak.txt", "/../secret.txt", "/sub", "/missing.html", "/sub/"})
        EXPECT_EQ(web_file(found.root, refused, "").status, 404) << refused;
    EXPECT_EQ(web_file("", "/", "").status, 404) << "no directory, no file";
    std::filesystem::remove_all(top);
}

// --web first; else share/vornmon/web beside the installed bin/; else the source tree's
// console/web beside a build directory; each place tried is reported.
TEST(WebFiles, FoundBesideTheProgram) {
    std::string top = temp_dir();
    ASSERT_FALSE(top.empty());
    write(top + "/prefix/share/vornmon/web/index.html", "installed");
    write(top + "/src/console/web/index.html", "source");
    std::filesystem::create_directories(top + "/prefix/bin");
    std::filesystem::create_directories(top + "/src/build");
    std::filesystem::create_directories(top + "/empty/bin");

    EXPECT_EQ(find_web_files("", top + "/prefix/bin").root,
              std::filesystem::canonical(top + "/prefix/share/vornmon/web").string());
    EXPECT_EQ(find_web_files("", top + "/src/build").root,
              std::filesystem::canonical(top + "/src/console/web").string());
    EXPECT_EQ(find_web_files(top + "/src/console/web", top + "/prefix/bin").root,
              std::filesystem::canonical(top + "/src/console/web").string());
    WebFiles none = find_web_files("", top + "/empty/bin");
    EXPECT_TRUE(none.root.empty());
    ASSERT_EQ(none.looked_in.size(), 2u);
    EXPECT_TRUE(has(none.looked_in[0], "/empty/bin/../share/vornmon/web"));
    EXPECT_TRUE(find_web_files(top + "/nowhere", top + "/prefix/bin").root.empty())
        << "a --web that does not hold the page is not replaced by another place";
    std::filesystem::remove_all(top);
}
