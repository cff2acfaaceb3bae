// /proc/net/snmp, /proc/net/netstat and /proc/net/snmp6.
//
// The first two hold pairs of lines with the same prefix: "Tcp: RtoAlgorithm RtoMin ..."
// names the columns and the next "Tcp: 1 200 ..." gives their values. Columns are added
// between kernel versions (Ip OutTransmits, many TcpExt fields), so values are found by
// name. snmp6 has one "Ip6InOctets  128" line per counter. TCP itself keeps one set of
// counters for both address families; IP keeps one per family.
#include "platform/net.h"

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "platform/linux/proc_file.h"

namespace platform {
namespace {

using procfs::next_line;
using procfs::next_token;

struct Field {
    std::string_view prefix;  // without the ':'
    std::string_view name;
    uint64_t NetProtoCounters::*target;
    bool add;  // several kernel counters sum into one of ours
};

constexpr Field kFields[] = {
    {"Ip", "InReceives", &NetProtoCounters::ip_in_receives, false},
    {"Ip", "InHdrErrors", &NetProtoCounters::ip_in_hdr_errors, false},
    {"Ip", "InAddrErrors", &NetProtoCounters::ip_in_addr_errors, false},
    {"Ip", "ForwDatagrams", &NetProtoCounters::ip_forw_datagrams, false},
    {"Ip", "InUnknownProtos", &NetProtoCounters::ip_in_unknown_protos, false},
    {"Ip", "InDiscards", &NetProtoCounters::ip_in_discards, false},
    {"Ip", "InDelivers", &NetProtoCounters::ip_in_delivers, false},
    {"Ip", "OutRequests", &NetProtoCounters::ip_out_requests, false},
    {"Ip", "OutDiscards", &NetProtoCounters::ip_out_discards, false},
    {"Tcp", "ActiveOpens", &NetProtoCounters::tcp_active_opens, false},
    {"Tcp", "PassiveOpens", &NetProtoCounters::tcp_passive_opens, false},
    {"Tcp", "AttemptFails", &NetProtoCounters::tcp_attempt_fails, false},
    {"Tcp", "EstabResets", &NetProtoCounters::tcp_estab_resets, false},
    {"Tcp", "CurrEstab", &NetProtoCounters::tcp_curr_estab, false},
    {"Tcp", "InSegs", &NetProtoCounters::tcp_in_segs, false},
    {"Tcp", "OutSegs", &NetProtoCounters::tcp_out_segs, false},
    {"Tcp", "RetransSegs", &NetProtoCounters::tcp_retrans_segs, false},
    {"Udp", "InDatagrams", &NetProtoCounters::udp_in_datagrams, false},
    {"Udp", "OutDatagrams", &NetProtoCounters::udp_out_datagrams, false},
    {"TcpExt", "TCPHPHits", &NetProtoCounters::tcp_in_order, false},
    {"TcpExt", "TCPOFOQueue", &NetProtoCounters::tcp_out_of_order, false},
    {"TcpExt", "TCPDSACKOldSent", &NetProtoCounters::tcp_dup_received, true},
    {"TcpExt", "TCPDSACKOfoSent", &NetProtoCounters::tcp_dup_received, true},
    {"TcpExt", "TCPPureAcks", &NetProtoCounters::tcp_acks_received, true},
    {"TcpExt", "TCPHPAcks", &NetProtoCounters::tcp_acks_received, true},
    {"TcpExt", "TCPOrigDataSent", &NetProtoCounters::tcp_data_sent, false},
    {"IpExt", "InOctets", &NetProtoCounters::ip_in_octets, false},
    {"IpExt", "OutOctets", &NetProtoCounters::ip_out_octets, false},
};

struct Field6 {
    std::string_view name;
    uint64_t NetProtoCounters::*target;
};

constexpr Field6 kFields6[] = {
    {"Ip6InOctets", &NetProtoCounters::ip6_in_octets},
    {"Ip6OutOctets", &NetProtoCounters::ip6_out_octets},
};

const Field* find_field(std::string_view prefix, std::string_view name) {
    for (const Field& f : kFields)
        if (f.prefix == prefix && f.name == name) return &f;
    return nullptr;
}

bool known_prefix(std::string_view prefix) {
    for (const Field& f : kFields)
        if (f.prefix == prefix) return true;
    return false;
}

// Splits "Tcp: a b c" into "Tcp" and " a b c"; false for a line without a prefix.
bool split_prefix(std::string_view line, std::string_view& prefix, std::string_view& rest) {
    size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    prefix = line.substr(0, colon);
    rest = line.substr(colon + 1);
    return true;
}

void parse_table(std::string_view text, NetProtoCounters& out) {
    std::string_view header_prefix, header_names;
    bool have_header = false;
    while (!text.empty()) {
        std::string_view prefix, rest;
        if (!split_prefix(next_line(text), prefix, rest)) {
            have_header = false;
            continue;
        }
        if (!have_header || prefix != header_prefix) {
            header_prefix = prefix;
            header_names = rest;
            have_header = true;
            continue;
        }
        have_header = false;  // the values line closes the pair
        if (!known_prefix(prefix)) continue;
        std::string_view names = header_names;
        // A values line shorter than its header (a cut read) gives only the columns present.
        for (;;) {
            std::string_view name = next_token(names);
            std::string_view value_text = next_token(rest);
            if (name.empty() || value_text.empty()) break;
            const Field* field = find_field(prefix, name);
            if (!field) continue;
            uint64_t v;
            if (!procfs::parse_u64(value_text, v)) {
                int64_t negative;  // Tcp MaxConn prints -1; nothing we count is negative
                if (!procfs::parse_i64(value_text, negative)) continue;
                v = 0;
            }
            if (field->add)
                out.*(field->target) += v;
            else
                out.*(field->target) = v;
        }
    }
}

// "Name value" lines; a line whose value is not a number is skipped.
void parse_snmp6(std::string_view text, NetProtoCounters& out) {
    while (!text.empty()) {
        std::string_view line = next_line(text);
        std::string_view name = next_token(line);
        for (const Field6& f : kFields6) {
            if (f.name != name) continue;
            uint64_t v;
            if (procfs::parse_u64(next_token(line), v)) out.*(f.target) = v;
            break;
        }
    }
}

procfs::ProcFile& snmp_file() {
    static procfs::ProcFile file("net/snmp");
    return file;
}

procfs::ProcFile& netstat_file() {
    static procfs::ProcFile file("net/netstat");
    return file;
}

procfs::ProcFile& snmp6_file() {  // absent when the kernel has no IPv6
    static procfs::ProcFile file("net/snmp6");
    return file;
}

}  // namespace

bool read_net(NetProtoCounters& out) {
    std::string_view text;
    if (!snmp_file().read(text)) {
        errno = snmp_file().error();
        return false;
    }
    NetProtoCounters counters;
    parse_table(text, counters);
    if (netstat_file().read(text)) parse_table(text, counters);
    if (snmp6_file().read(text)) parse_snmp6(text, counters);
    out = counters;
    return true;
}

}  // namespace platform
