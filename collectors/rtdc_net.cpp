// The network class: TCP, UDP and IP protocol counters as events per second.
#include "collectors/rtdc_net.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "collectors/rtdc_complain.h"
#include "collectors/rtdc_rate.h"
#include "packet/rtdc_output.h"
#include "platform/clock.h"

NetRecord rtdc_net_record{};

namespace {
constexpr const char* kClass = "Network";

// Rows of NetCounters, in table order (row k's value is value[k]).
enum Row {
    kTcpSent,
    kTcpReceived,
    kTcpBytesSent,
    kTcpBytesReceived,
    kSentData,
    kSentAck,
    kSentUrg,
    kSentRetrans,
    kRecvInOrder,
    kRecvOutOfOrder,
    kRecvDuplicate,
    kRecvAck,
    kRecvDupAck,
    kConnections,
    kActive,
    kPassive,
    kAttemptFail,
    kEstabReset,
    kUdpSent,
    kUdpReceived,
    kIpSent,
    kIpReceived,
    kIpOutRequests,
    kIpOutDiscards,
    kIpDelivered,
    kIpInDiscards,
    kIpUnknownProto,
    kIpForwarded,
    kIpAddrErrors,
    kIpHdrErrors,
    kIpOther,
    kRows
};
static_assert(kRows == 31, "one value per live row of NetCounters");

platform::NetProtoCounters previous;  // zero at start: the first rates average since boot
RtdcInterval interval;
Complaint failures;

platform::NetProtoCounters growth(const platform::NetProtoCounters& now,
                                  const platform::NetProtoCounters& before) {
    platform::NetProtoCounters d;
    auto delta = [&](uint64_t platform::NetProtoCounters::*field) {
        d.*field = rtdc_counter_delta(now.*field, before.*field);
    };
    using N = platform::NetProtoCounters;
    for (auto field : {&N::tcp_out_segs,      &N::tcp_in_segs,          &N::tcp_retrans_segs,
                       &N::tcp_active_opens,  &N::tcp_passive_opens,    &N::tcp_attempt_fails,
                       &N::tcp_estab_resets,  &N::tcp_in_order,         &N::tcp_out_of_order,
                       &N::tcp_dup_received,  &N::tcp_acks_received,    &N::ip_out_requests,
                       &N::ip_in_receives,    &N::ip_out_discards,      &N::ip_in_delivers,
                       &N::ip_in_discards,    &N::ip_in_unknown_protos, &N::ip_forw_datagrams,
                       &N::ip_in_addr_errors, &N::ip_in_hdr_errors,     &N::ip_in_octets,
                       &N::ip_out_octets,     &N::udp_out_datagrams,    &N::udp_in_datagrams,
                       &N::tcp_data_sent,     &N::ip6_in_octets,        &N::ip6_out_octets})
        delta(field);
    d.tcp_curr_estab = now.tcp_curr_estab;  // a level, reported as it stands
    return d;
}
}  // namespace

int PerfNet(const platform::NetProtoCounters* delta, double seconds, NetRecord* record) {
    if (seconds <= 0) return 0;
    const platform::NetProtoCounters& d = *delta;
    int64_t* v = record->value;
    auto rate = [seconds](uint64_t events) { return rtdc_per_second_ll(events, seconds); };
    v[kTcpSent] = rate(d.tcp_out_segs);
    v[kTcpReceived] = rate(d.tcp_in_segs);
    // The kernel keeps no byte total per protocol; the octets of IP, over both address
    // families, are the nearest figure.
    v[kTcpBytesSent] = rate(d.ip_out_octets + d.ip6_out_octets);
    v[kTcpBytesReceived] = rate(d.ip_in_octets + d.ip6_in_octets);
    v[kSentData] = rate(d.tcp_data_sent);
    v[kSentAck] = 0;  // the kernel counts neither ACK-only nor urgent segments sent
    v[kSentUrg] = 0;
    v[kSentRetrans] = rate(d.tcp_retrans_segs);
    v[kRecvInOrder] = rate(d.tcp_in_order);
    v[kRecvOutOfOrder] = rate(d.tcp_out_of_order);
    v[kRecvDuplicate] = rate(d.tcp_dup_received);
    v[kRecvAck] = rate(d.tcp_acks_received);
    v[kRecvDupAck] = 0;  // nor duplicate ACKs received
    v[kConnections] =
        d.tcp_curr_estab > INT64_MAX ? INT64_MAX : static_cast<int64_t>(d.tcp_curr_estab);
    v[kActive] = rate(d.tcp_active_opens);
    v[kPassive] = rate(d.tcp_passive_opens);
    v[kAttemptFail] = rate(d.tcp_attempt_fails);
    v[kEstabReset] = rate(d.tcp_estab_resets);
    v[kUdpSent] = rate(d.udp_out_datagrams);
    v[kUdpReceived] = rate(d.udp_in_datagrams);
    v[kIpSent] = rate(d.ip_out_requests);
    v[kIpReceived] = rate(d.ip_in_receives);
    v[kIpOutRequests] = rate(d.ip_out_requests);
    v[kIpOutDiscards] = rate(d.ip_out_discards);
    v[kIpDelivered] = rate(d.ip_in_delivers);
    v[kIpInDiscards] = rate(d.ip_in_discards);
    v[kIpUnknownProto] = rate(d.ip_in_unknown_protos);
    v[kIpForwarded] = rate(d.ip_forw_datagrams);
    v[kIpAddrErrors] = rate(d.ip_in_addr_errors);
    v[kIpHdrErrors] = rate(d.ip_in_hdr_errors);
    // What arrived but is in none of the outcomes above (reassembly in progress, mostly).
    uint64_t accounted = d.ip_in_delivers + d.ip_in_discards + d.ip_in_unknown_protos +
                         d.ip_forw_datagrams + d.ip_in_addr_errors + d.ip_in_hdr_errors;
    v[kIpOther] = rate(rtdc_counter_delta(d.ip_in_receives, accounted));
    return 1;
}

int GetNetClassInfo(char** headers, int* nheaders, char** buffers, int* nbuffers, int header_flag,
                    int /*verbose*/) {
    PacketOutput out(headers, nheaders, buffers, nbuffers);
    return rtdc_collect_net(out, header_flag);
}

int rtdc_collect_net(ClassOutput& out, int header_flag) {
    if (header_flag == 1) {
        // Every row is a rate: the headers carry no value, so nothing is read here and
        // the rate baseline stays where the last data pass left it.
        out.announce(kClass, NetCounters, &rtdc_net_record);
        return 1;
    }
    platform::NetProtoCounters now;
    if (!platform::read_net(now)) {
        char text[256];
        snprintf(text, sizeof text, "GetNetClassInfo: cannot read the protocol counters: %s\n",
                 strerror(errno));
        failures.fail(text);
        return 0;
    }
    failures.ok();
    double time_now = platform::seconds_since_boot();
    double seconds = interval.elapsed(time_now);
    if (seconds > 0) {
        platform::NetProtoCounters d = growth(now, previous);
        PerfNet(&d, seconds, &rtdc_net_record);
        previous = now;
        interval.advance(time_now);
    }
    out.report(&rtdc_net_record, NetCounters);
    return 1;
}

void rtdc_net_reset_for_tests() {
    previous = platform::NetProtoCounters{};
    interval.reset();
    rtdc_net_record = NetRecord{};
    failures.ok();
}
