#include "agent/rtdc_access.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace rtdc_access {

bool parse_ipv4(const std::string& text, uint32_t* address) {
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
    *address = ntohl(a.s_addr);
    return true;
}

namespace {

bool parse_entry(const std::string& entry, Prefix* out) {
    size_t slash = entry.find('/');
    uint32_t address = 0;
    if (!parse_ipv4(entry.substr(0, slash), &address)) return false;
    int bits = 32;
    if (slash != std::string::npos) {
        const std::string length = entry.substr(slash + 1);
        if (length.empty() || length.size() > 2 ||
            length.find_first_not_of("0123456789") != std::string::npos)
            return false;
        bits = atoi(length.c_str());
        if (bits > 32) return false;
    }
    out->mask = bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
    out->network = address & out->mask;
    return true;
}

}  // namespace

bool parse_allow_list(const std::string& text, std::vector<Prefix>* out, std::string* bad) {
    out->clear();
    static const char kSeparators[] = ", \t\r\n";
    size_t pos = text.find_first_not_of(kSeparators);
    while (pos != std::string::npos) {
        size_t end = text.find_first_of(kSeparators, pos);
        std::string entry = text.substr(pos, end == std::string::npos ? end : end - pos);
        Prefix prefix;
        if (!parse_entry(entry, &prefix)) {
            if (bad) *bad = entry;
            out->clear();
            return false;
        }
        out->push_back(prefix);
        pos = end == std::string::npos ? end : text.find_first_not_of(kSeparators, end);
    }
    return true;
}

bool allowed(const std::vector<Prefix>& allow, uint32_t address) {
    if (allow.empty()) return true;
    for (const Prefix& p : allow)
        if ((address & p.mask) == p.network) return true;
    return false;
}

bool ReportLimiter::should_report(uint32_t address, Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = last_.find(address);
    if (it != last_.end()) {
        if (now - it->second < every_) return false;
        it->second = now;
        return true;
    }
    if (last_.size() >= capacity_) {
        // Forget the addresses whose quiet time is over; they would be reported again anyway.
        for (auto i = last_.begin(); i != last_.end();)
            i = now - i->second >= every_ ? last_.erase(i) : std::next(i);
        if (last_.size() >= capacity_) return false;
    }
    last_.emplace(address, now);
    return true;
}

ConnectionCounts::Admit ConnectionCounts::admit(uint32_t address, int per_address, int total) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (total_ >= total) return Admit::AllFull;
    int& open = open_[address];
    if (open >= per_address) return Admit::AddressFull;
    ++open;
    ++total_;
    return Admit::Yes;
}

void ConnectionCounts::release(uint32_t address) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = open_.find(address);
    if (it == open_.end()) return;
    --total_;
    if (--it->second <= 0) open_.erase(it);
}

int ConnectionCounts::total() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return total_;
}

std::string dotted(uint32_t address) {
    in_addr a{htonl(address)};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

}  // namespace rtdc_access
