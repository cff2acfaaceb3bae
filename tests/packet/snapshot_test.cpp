// The snapshot pass: class order and switches, header versus data packets, verbose log.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_snapshot.h"
#include "support/fixture_roots.h"

namespace {

struct Call {
    int index;
    int header_flag;
    int verbose;
};
std::vector<Call> calls;
int fake_result = 1;

// Every fake appends one header line in a header pass and one data string in a data pass,
// and, to prove data packets drop them, a header line in the data pass too.
template <int Index>
int Fake(char** headers, int* nheaders, char** buffers, int* nbuffers, int header_flag,
         int verbose) {
    calls.push_back({Index, header_flag, verbose});
    char line[64];
    snprintf(line, sizeof line, "fake%d-h%d\n", Index, header_flag);
    headers[*nheaders] = strdup(line);
    n_rtdc_header_len += static_cast<int>(strlen(line) + 1);
    ++*nheaders;
    if (header_flag == 0) {
        snprintf(line, sizeof line, "%d=%d\n", Index, Index * 10);
        buffers[*nbuffers] = strdup(line);
        n_rtdc_data_len += static_cast<int>(strlen(line) + 1);
        ++*nbuffers;
    }
    return fake_result;
}

constexpr ClassCollector kFakes[] = {Fake<0>, Fake<1>, Fake<2>, Fake<3>, Fake<4>, Fake<5>, Fake<6>};

class Pass : public ::testing::Test {
  protected:
    void SetUp() override {
        int count = 0;
        SnapshotClass* classes = rtdc_snapshot_classes(&count);
        ASSERT_EQ(count, 7);
        for (int i = 0; i < count; ++i) {
            saved.push_back(classes[i].collect);
            classes[i].collect = kFakes[i];
        }
        calls.clear();
        fake_result = 1;
        settings = RtaCmdline{};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ctrl_sock = fds[0];
        start_rtdc = 1;
        PacketNumber = 1;
        FirstBuffer = 1;
        FirstPass = 1;
        counter_added = 0;
    }
    void TearDown() override {
        int count = 0;
        SnapshotClass* classes = rtdc_snapshot_classes(&count);
        for (int i = 0; i < count; ++i) classes[i].collect = saved[i];
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
        close(fds[0]);
        close(fds[1]);
        ctrl_sock = 0;
        start_rtdc = 0;
        FirstPass = 1;
        counter_added = 0;
    }
    int Header() {
        return SnapshotHeader(&settings, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                              &n_rtdc_data_buffers);
    }
    int Data(int send) {
        return Snapshot(&settings, rtdc_data_headers, &n_rtdc_data_headers, rtdc_data_buffers,
                        &n_rtdc_data_buffers, send);
    }
    std::vector<int> CalledClasses() const {
        std::vector<int> out;
        for (const Call& c : calls) out.push_back(c.index);
        return out;
    }
    std::string Received() {
        std::string text;
        char buf[4096];
        for (;;) {
            ssize_t n = recv(fds[1], buf, sizeof buf, MSG_DONTWAIT);
            if (n <= 0) break;
            text.append(buf, static_cast<size_t>(n));
        }
        return text;
    }

    RtaCmdline settings{};
    std::vector<ClassCollector> saved;
    int fds[2] = {-1, -1};
};

TEST_F(Pass, AllClassesSwitchCoversEveryClassButProcesses) {
    settings.collect_default = 1;
    Header();
    EXPECT_EQ(CalledClasses(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (const Call& c : calls) EXPECT_EQ(c.header_flag, 1);
    calls.clear();
    Data(1);
    EXPECT_EQ(CalledClasses(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (const Call& c : calls) EXPECT_EQ(c.header_flag, 0);
}

TEST_F(Pass, EachClassHasItsOwnSwitch) {
    // processor, machine, metric, disk, network, file system, process
    int32_t RtaCmdline::*switches[] = {&RtaCmdline::class_cpu,    &RtaCmdline::class_processor,
                                       &RtaCmdline::class_vm,     &RtaCmdline::class_disk,
                                       &RtaCmdline::class_net,    &RtaCmdline::class_fs,
                                       &RtaCmdline::class_process};
    for (int i = 0; i < 7; ++i) {
        settings = RtaCmdline{};
        settings.*switches[i] = 1;
        calls.clear();
        Data(0);
        EXPECT_EQ(CalledClasses(), std::vector<int>{i}) << i;
    }
    settings = RtaCmdline{};
    settings.class_process = 1;
    settings.class_cpu = 1;
    settings.class_fs = 1;
    calls.clear();
    Data(0);
    EXPECT_EQ(CalledClasses(), (std::vector<int>{0, 5, 6}));
}

TEST_F(Pass, NoClassGivesEmptySectionsInBothPackets) {
    EXPECT_EQ(Header(), 1);
    EXPECT_EQ(Data(1), 1);
    std::string sent = Received();
    size_t first = sent.find("<HEADER>\n </HEADER>\n<DATA>\n </DATA>\n</START>\n");
    ASSERT_NE(first, std::string::npos) << sent;
    EXPECT_NE(sent.find("<HEADER>\n </HEADER>\n<DATA>\n </DATA>\n</START>\n", first + 1),
              std::string::npos);
    EXPECT_NE(sent.find("<PACKET>\n1\n"), std::string::npos);
    EXPECT_NE(sent.find("<PACKET>\n2\n"), std::string::npos);
    EXPECT_EQ(FirstPass, 0);
    EXPECT_EQ(counter_added, 1);
}

TEST_F(Pass, HeaderPacketCarriesHeadersDataPacketNever) {
    settings.class_cpu = 1;
    Header();
    std::string header_packet = Received();
    EXPECT_NE(header_packet.find("<HEADER>\nfake0-h1\n</HEADER>\n<DATA>\n </DATA>\n"),
              std::string::npos)
        << header_packet;
    // The data pass appends a header line too; the data packet leaves it out.
    Data(1);
    std::string data_packet = Received();
    EXPECT_NE(data_packet.find("<HEADER>\n </HEADER>\n<DATA>\n0=0\n</DATA>\n"), std::string::npos)
        << data_packet;
    // Nothing is sent when the pass is not asked to, or when no console wants data.
    Data(0);
    EXPECT_EQ(Received(), "");
    start_rtdc = 0;
    Data(1);
    Header();
    EXPECT_EQ(Received(), "");
}

TEST_F(Pass, NegativeResultPrintsTheClassErrorAndThePassGoesOn) {
    settings.collect_default = 1;
    settings.class_process = 1;
    fake_result = -1;
    testing::internal::CaptureStdout();
    Data(0);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "vornrta: error getcpu class...\nvornrta: error getmachine class...\n"
              "vornrta: error get metric class...\nvornrta: error getdisk class...\n"
              "vornrta: GetNetClassInfo returned error ...\nvornrta: error get fs class...\n"
              "error get process class...");
    EXPECT_EQ(calls.size(), 7u);
    // A collector that returns 0 is passed over silently.
    fake_result = 0;
    testing::internal::CaptureStdout();
    Data(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(Pass, VerboseLogNamesTheClasses) {
    vorntest::TempTree tree;
    snprintf(logfilec, sizeof logfilec, "%s/pass.log", tree.root().c_str());
    rtdc_log_reset_for_tests();
    settings.collect_default = 1;
    settings.class_process = 1;
    settings.verbose = 1;
    Header();
    Data(0);
    RTDCCloseLog();
    std::ifstream in(logfilec);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string log = ss.str();
    logfilec[0] = '\0';
    rtdc_log_reset_for_tests();

    for (const char* label :
         {"GetCPUCLassInfo", "GetMachineClassInfo", "GetMetricClassInfo", "GetDiskClassInfo",
          "GetNetClassInfo", "GetFsClassInfo", "GetProcessClassInfo"})
        EXPECT_NE(log.find(std::string("SnapshotHeader: Call  ") + label + " ..(Headers "),
                  std::string::npos)
            << label;
    EXPECT_NE(log.find("SnapshotHeader: Call  GetCPUCLassInfo ..(Headers 0, Databufs 0)\n"),
              std::string::npos);
    EXPECT_NE(log.find("SnapshotHeader: Call  GetMachineClassInfo ..(Headers 1, Databufs 0)\n"),
              std::string::npos);
    EXPECT_NE(log.find("SnapshotHeader: building packet ..(Headers 7, Databufs 0)  (Header Len 70, "
                       "DataLen 0)\n"),
              std::string::npos)
        << log;
    // The data pass names only three of its calls.
    EXPECT_NE(log.find("Snapshot: Call  GetCPUClassInfo ..(Headers 7, Databufs 0)\n"),
              std::string::npos);
    EXPECT_NE(log.find("Snapshot: Call  GetDiskClassInfo ..("), std::string::npos);
    EXPECT_NE(log.find("Snapshot: Call  GetProcessClassInfo ..("), std::string::npos);
    EXPECT_EQ(log.find("Snapshot: Call  GetMachineClassInfo"), std::string::npos);
    EXPECT_EQ(log.find("Snapshot: Call  GetFsStatClassInfo"), std::string::npos);
    EXPECT_NE(log.find("Snapshot: building packet ..(Headers 14, Databufs 7)"), std::string::npos);
    EXPECT_NE(log.find("Snapshot:  returning...\n"), std::string::npos);
    for (const Call& c : calls) EXPECT_EQ(c.verbose, 1);
}

}  // namespace
