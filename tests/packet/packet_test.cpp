// Packet framing, sending on a local socket pair, the snapshot pass's header and data packets.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agent/rtdc_log.h"
#include "packet/rtdc_state.h"
#include "packet/rtdc_buffer.h"
#include "packet/rtdc_output.h"
#include "packet/rtdc_packet.h"
#include "packet/rtdc_snapshot.h"
#include "support/second_boundary.h"

namespace {

struct StringSink final : PacketSink {
    void put(std::string_view piece) override { text += piece; }
    std::string text;
};

// The whole packet as a console receives it; checks that its announced size holds.
std::string Text(const PacketLines& lines) {
    const PacketFrame frame(lines);
    StringSink sink;
    frame.write(sink);
    EXPECT_EQ(sink.text.size(), frame.size());
    return sink.text;
}

class Framing : public ::testing::Test {
  protected:
    void SetUp() override { PacketNumber = 5, FirstBuffer = 1, scan_intvl = 2; }
    void TearDown() override { PacketNumber = 1, FirstBuffer = 1; }
    // The lines (the first `nheaders` header lines) framed as the pass does: prefix, body.
    static std::pair<std::string, std::string> Pack(std::vector<std::string> lines,
                                                    int nheaders = 0) {
        std::vector<char*> p;
        for (auto& s : lines) p.push_back(s.data());
        const std::string packet =
            Text({p.data(), nheaders, nullptr, p.data() + nheaders,
                  static_cast<int>(p.size()) - nheaders});
        const std::string lead = " \nBUFFERSIZE=";
        EXPECT_EQ(packet.compare(0, lead.size(), lead), 0) << packet;
        size_t eol = packet.find('\n', lead.size());
        return {packet.substr(lead.size(), eol - lead.size()), packet.substr(eol + 1)};
    }
};

TEST_F(Framing, SectionsLengthPrefixAndPacketNumbers) {
    auto [prefix, body] = Pack({});
    // The time is zone, hours:minutes:seconds, day-month-year.
    const std::regex shape(
        "<START>\n<PACKET>\n5\n</PACKET>\n<TIME>\n.* \\d\\d:\\d\\d:\\d\\d "
        "\\d\\d-\\w+-\\d{4}\n</TIME>\n"
        "<INTERVAL>\n2\n</INTERVAL>\n<HEADER>\n </HEADER>\n<DATA>\n </DATA>\n</START>\n");
    EXPECT_TRUE(std::regex_match(body, shape)) << body;
    EXPECT_EQ(prefix.size(), 6u);
    EXPECT_EQ(std::stoul(prefix), body.size());
    body = Pack({"h1\n", "h2\n", "1=5\n2=6\n", "3=7\n"}, 2).second;
    EXPECT_NE(body.find("</INTERVAL>\n<HEADER>\nh1\nh2\n</HEADER>\n<DATA>\n1=5\n2=6\n3=7\n"
                        "</DATA>\n</START>\n"),
              std::string::npos)
        << body;
    PacketNumber = 1000000000;  // the last number before it wraps to 1
    EXPECT_EQ(Pack({}).second.find("<PACKET>\n1000000000\n"), 8u);
    EXPECT_EQ(Pack({}).second.find("<PACKET>\n1\n"), 8u);
}

TEST_F(Framing, LengthPrefixIsZeroPaddedAndNeverTruncated) {
    // The packet number and time keep their length, so a probe packet gives the fixed part.
    const size_t fixed = Pack({"x\n"}).second.size() - 2;
    for (auto [want, prefix] :
         {std::pair<size_t, const char*>{987, "000987"}, {1234567, "1234567"}}) {
        PacketNumber = 5;
        auto packet = Pack({std::string(want - fixed - 1, 'v') + "\n"});
        EXPECT_EQ(packet.second.size(), want);
        EXPECT_EQ(packet.first, prefix);
    }
    FirstBuffer = 0;  // later packets have no leading blank line
    PacketNumber = 5;
    EXPECT_TRUE(std::regex_match(Text({}).substr(0, 18), std::regex("BUFFERSIZE=\\d{6}\n")));
    // A buffer too small for the lines is refused, not overrun.
    std::vector<char> out(10000 + 8192, 'q');
    std::string big(10000, 'z');
    char* lines[1] = {big.data()};
    EXPECT_EQ(rtdc_packetize_data(nullptr, 0, lines, 1, out.data(), 100), 0);
    EXPECT_EQ(out[0], '\0');
    EXPECT_EQ(PacketNumber, 6);  // not used up
    ASSERT_EQ(rtdc_packetize_data(nullptr, 0, lines, 1, out.data(), 10000), 1);
    EXPECT_EQ(strlen(out.data()), Text({nullptr, 0, nullptr, lines, 1}).size());
    // A pass nobody receives still uses up its number.
    rtdc_skip_packet();
    EXPECT_NE(Text({}).find("<PACKET>\n9\n"), std::string::npos);
}

TEST_F(Framing, TimeIsTheSecondThePacketIsMadeIn) {
    // The tick wakes exactly as the second turns and packetizes at once: the packet must
    // not name the second before. Several wake-ups, as one may land after a clock update.
    for (int tick = 0; tick < 3; ++tick) {
        const time_t woke = vorntest::wake_on_next_second();
        const std::string body = Pack({}).second;
        const time_t done = vorntest::precise_second();
        char first[80], last[80];
        TimeString(woke, first);
        TimeString(done, last);
        const size_t from = body.find("<TIME>\n") + 7;
        const std::string when = body.substr(from, body.find('\n', from) - from);
        EXPECT_TRUE(when == first || when == last) << when << " made in " << first;
    }
}

// A socket pair whose every write arrives as one record, showing how the text was cut.
class Sending : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
        start_rtdc = collect_started = 1;
        exit_recieved = 0;
    }
    void TearDown() override {
        for (int& fd : fds)
            if (fd >= 0) close(fd), fd = -1;
        ctrl_sock = start_rtdc = exit_recieved = collect_started = 0;
    }
    std::vector<std::string> Received() {
        std::vector<std::string> records;
        std::vector<char> buf(65536);
        for (ssize_t n; (n = recv(fds[1], buf.data(), buf.size(), MSG_DONTWAIT)) > 0;)
            records.emplace_back(buf.data(), n);
        return records;
    }
    int fds[2] = {-1, -1};
};

TEST_F(Sending, SmallTextGoesInOneWriteLargeInKilobyteChunks) {
    ASSERT_EQ(send(fds[1], "ack", 3, 0), 3);  // what the console sent back is drained
    EXPECT_EQ(rtdc_send_packet(fds[0], std::string(8192, 's').c_str(), 0), 1);
    char c;
    EXPECT_EQ(recv(fds[0], &c, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(rtdc_send_packet(fds[0], std::string(8193, 'l').c_str(), 0), 1);
    std::vector<std::string> expected(10, std::string(1024, 'l'));  // 8193: 8 kilobytes and 1
    expected.front() = std::string(8192, 's'), expected.back() = "l";
    EXPECT_EQ(Received(), expected);
    EXPECT_EQ(start_rtdc, 1);
}

void* SendOnThread(void* fd) {
    rtdc_send_packet(*static_cast<int*>(fd), "<START>\n", 0);
    *static_cast<int*>(fd) = -2;  // reached only if the call came back
    return nullptr;
}

TEST_F(Sending, FailedSmallWriteEndsTheThreadAndReleasesTheDataConnection) {
    close(fds[1]), fds[1] = -1;
    int fd = ctrl_sock = fds[0];
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, nullptr, SendOnThread, &fd), 0);
    ASSERT_EQ(pthread_join(t, nullptr), 0);
    EXPECT_EQ(fd, fds[0]);  // the collection thread does not come back
    EXPECT_EQ(start_rtdc + collect_started + ctrl_sock, 0);
    EXPECT_EQ(exit_recieved, 1);
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);  // closed
    fds[0] = -1;
}

TEST_F(Sending, FailedLargeWriteOnlyStopsSending) {
    for (auto [name, data_connection, peer_stalls] :
         {std::tuple{"peer gone", true, false},
          {"not the data connection", false, false},
          {"peer stops reading: the send timeout ends retrying", true, true}}) {
        SCOPED_TRACE(name);
        TearDown();
        SetUp();
        timeval tv{0, 200000};  // the socket buffers fill long before 4 MB, then writes wait
        if (peer_stalls) setsockopt(fds[0], SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        if (!peer_stalls) close(fds[1]), fds[1] = -1;
        ctrl_sock = data_connection ? fds[0] : 0;
        const std::string text(peer_stalls ? 4 << 20 : 20000, 'l');
        EXPECT_EQ(rtdc_send_packet(fds[0], text.c_str(), 0), 1);
        EXPECT_EQ(start_rtdc + exit_recieved + ctrl_sock, 0);
        EXPECT_EQ(fcntl(fds[0], F_GETFD) == -1, data_connection);  // only that one is closed
        if (data_connection) fds[0] = -1;
    }
}

std::vector<std::pair<int, int>> calls;  // class index, header flag
int fake_result = 1;

// A fake class: a header line every pass, a data string in data passes only.
template <int Index>
int Fake(char** headers, int* nheaders, char** buffers, int* nbuffers, int header_flag, int) {
    calls.push_back({Index, header_flag});
    const std::string i = std::to_string(Index);
    headers[(*nheaders)++] =
        strdup(("fake" + i + "-h" + std::to_string(header_flag) + "\n").c_str());
    if (header_flag == 0) buffers[(*nbuffers)++] = strdup((i + "=" + i + "0\n").c_str());
    return fake_result;
}

// A process class that announces 200 processes through the agent's output in a header pass.
int AnnouncingProcesses(char** headers, int* nheaders, char** buffers, int* nbuffers,
                        int header_flag, int) {
    static CounterDef table[] = {{1, 0, "Level", 4, "level", 0, "%", 1}, {}};
    static const double level = 1.5;
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    for (long pid = 1; header_flag && pid <= 200; ++pid)
        out.announce_process("probe", pid, table, &level);
    return 1;
}

class Pass : public Sending {
  protected:
    void SetUp() override {
        Sending::SetUp();
        const ClassCollector fakes[] = {Fake<0>, Fake<1>, Fake<2>, Fake<3>,
                                        Fake<4>, Fake<5>, Fake<6>};
        SnapshotClass* classes = rtdc_snapshot_classes(&count);
        ASSERT_EQ(count, 7);
        for (int i = 0; i < count; ++i) saved[i] = std::exchange(classes[i].collect, fakes[i]);
        ctrl_sock = fds[0];
        PacketNumber = FirstBuffer = FirstPass = fake_result = 1;
        counter_added = 0;
    }
    void TearDown() override {
        for (int i = 0; i < count; ++i) rtdc_snapshot_classes(&count)[i].collect = saved[i];
        rtdc_free_lines(rtdc_data_headers, &n_rtdc_data_headers, &n_rtdc_header_len);
        rtdc_free_lines(rtdc_data_buffers, &n_rtdc_data_buffers, &n_rtdc_data_len);
        counter_added = 0, FirstPass = 1;
        Sending::TearDown();
    }
    // The classes a header or data pass called; -1 for one called with the other flag.
    std::vector<int> Run(int header_flag, int send = 1) {
        calls.clear();
        EXPECT_EQ(header_flag ? SnapshotHeader(&settings, rtdc_data_headers, &n_rtdc_data_headers,
                                               rtdc_data_buffers, &n_rtdc_data_buffers)
                              : Snapshot(&settings, rtdc_data_headers, &n_rtdc_data_headers,
                                         rtdc_data_buffers, &n_rtdc_data_buffers, send),
                  1);
        std::vector<int> called;
        for (auto [index, flag] : calls) called.push_back(flag == header_flag ? index : -1);
        return called;
    }

    RtaCmdline settings{};
    ClassCollector saved[7] = {};
    int count = 0;
};

TEST_F(Pass, SwitchesSelectClassesInPassOrder) {
    using R = RtaCmdline;
    const std::vector<int32_t R::*> own = {&R::class_cpu,    &R::class_processor, &R::class_vm,
                                           &R::class_disk,   &R::class_net,       &R::class_fs,
                                           &R::class_process};
    // The all-classes switch leaves out processes, which are costly enough to need theirs.
    std::vector<std::pair<std::vector<int32_t R::*>, std::vector<int>>> rows = {
        {{&R::collect_default}, {0, 1, 2, 3, 4, 5}},
        {{&R::collect_default, &R::class_process}, {0, 1, 2, 3, 4, 5, 6}},
        {{&R::class_process, &R::class_cpu, &R::class_fs}, {0, 5, 6}}};
    for (int i = 0; i < 7; ++i) rows.push_back({{own[i]}, {i}});  // each class its own switch
    for (size_t row = 0; row < rows.size(); ++row) {
        settings = RtaCmdline{};
        for (auto s : rows[row].first) settings.*s = 1;
        EXPECT_EQ(Run(1), rows[row].second) << "row " << row;
        EXPECT_EQ(Run(0), rows[row].second) << "row " << row;
    }
}

TEST_F(Pass, HeaderPacketCarriesHeadersDataPacketNever) {
    settings.class_cpu = 1;
    Run(1);
    EXPECT_EQ(FirstPass, 0);  // the first header pass is over and registered the counters
    EXPECT_EQ(counter_added, 1);
    Run(0);
    std::vector<std::string> sent = Received();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_NE(sent[0].find("<HEADER>\nfake0-h1\n</HEADER>\n<DATA>\n </DATA>\n"), std::string::npos);
    EXPECT_NE(sent[1].find("<HEADER>\n </HEADER>\n<DATA>\n0=00\n</DATA>\n"), std::string::npos);
    // Nothing is sent when the pass is not asked to, or when no console wants data.
    Run(0, 0);
    start_rtdc = 0;
    Run(0);
    Run(1);
    EXPECT_TRUE(Received().empty());
}

TEST_F(Pass, ProcessHeaderLinesEndTheHeaderSectionOfTheSentPacket) {
    settings.class_cpu = settings.class_process = 1;
    rtdc_snapshot_classes(&count)[6].collect = AnnouncingProcesses;
    Run(1);
    std::string packet;
    for (const std::string& record : Received()) {
        EXPECT_LE(record.size(), 1024u);  // over 8 KiB: sent in kilobyte chunks
        packet += record;
    }
    const std::string lead = " \nBUFFERSIZE=";
    ASSERT_EQ(packet.compare(0, lead.size(), lead), 0) << packet.substr(0, 100);
    const size_t eol = packet.find('\n', lead.size());
    EXPECT_EQ(std::stoul(packet.substr(lead.size())), packet.size() - eol - 1);
    EXPECT_NE(packet.find("<HEADER>\nfake0-h1\nProcess->probe  (1)->Level::"), std::string::npos);
    EXPECT_NE(packet.find("Process->probe  (200)->Level::"), std::string::npos);
    EXPECT_NE(packet.find("::level::0,%,1\n</HEADER>\n<DATA>\n </DATA>\n</START>\n"),
              std::string::npos);
    EXPECT_EQ(n_rtdc_data_headers, 1);  // the array holds none of them
    EXPECT_EQ(rtdc_pass_process_headers().entries(), 0);  // forgotten once sent
}

TEST_F(Pass, FailingClassPrintsItsErrorAndThePassGoesOn) {
    settings.collect_default = settings.class_process = 1;
    for (int result : {-1, 0}) {  // 0 is passed over silently
        fake_result = result;
        testing::internal::CaptureStdout();
        EXPECT_EQ(Run(0, 0).size(), 7u);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  result ? "vornrta: error getcpu class...\nvornrta: error getmachine class...\n"
                           "vornrta: error get metric class...\nvornrta: error getdisk class...\n"
                           "vornrta: GetNetClassInfo returned error ...\n"
                           "vornrta: error get fs class...\nerror get process class..."
                         : "");
    }
}

}  // namespace
