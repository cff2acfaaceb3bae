// Raw TCP/IP/UDP protocol counters.
#pragma once

#include <cstdint>

namespace platform {

/// Cumulative protocol counters since the network stack started, plus one level
/// (tcp_curr_estab). Counters the kernel does not publish stay 0.
struct NetProtoCounters {
    // TCP
    uint64_t tcp_out_segs = 0;
    uint64_t tcp_in_segs = 0;
    uint64_t tcp_retrans_segs = 0;
    uint64_t tcp_active_opens = 0;
    uint64_t tcp_passive_opens = 0;
    uint64_t tcp_attempt_fails = 0;
    uint64_t tcp_estab_resets = 0;
    uint64_t tcp_curr_estab = 0;  // connections open now: a level, not a counter
    // TCP extensions
    uint64_t tcp_in_order = 0;       // segments taken by the fast path in sequence
    uint64_t tcp_out_of_order = 0;   // segments queued out of order
    uint64_t tcp_dup_received = 0;   // duplicate segments received (reported back as DSACK)
    uint64_t tcp_acks_received = 0;  // pure and fast-path ACKs received
    uint64_t tcp_data_sent = 0;      // segments sent carrying new data (not retransmissions)
    // IP
    uint64_t ip_out_requests = 0;
    uint64_t ip_in_receives = 0;
    uint64_t ip_out_discards = 0;
    uint64_t ip_in_delivers = 0;
    uint64_t ip_in_discards = 0;
    uint64_t ip_in_unknown_protos = 0;
    uint64_t ip_forw_datagrams = 0;
    uint64_t ip_in_addr_errors = 0;
    uint64_t ip_in_hdr_errors = 0;
    uint64_t ip_in_octets = 0;
    uint64_t ip_out_octets = 0;
    // IPv6 (zero on a kernel without IPv6)
    uint64_t ip6_in_octets = 0;
    uint64_t ip6_out_octets = 0;
    // UDP
    uint64_t udp_out_datagrams = 0;
    uint64_t udp_in_datagrams = 0;
};

/// Fills `out`; false (errno set) when the main protocol table cannot be read. A missing
/// extension or IPv6 table leaves its counters at 0.
bool read_net(NetProtoCounters& out);

}  // namespace platform
