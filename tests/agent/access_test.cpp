// Who may connect: the ALLOW~ list, the once-a-minute refusal report, the connection counts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/rtdc_access.h"

namespace {

using namespace rtdc_access;
using namespace std::chrono_literals;

uint32_t ip(const char* text) {
    uint32_t a = 0;
    EXPECT_TRUE(parse_ipv4(text, &a)) << text;
    return a;
}

TEST(AllowList, AddressesAndPrefixesSeparatedByCommasAndBlanks) {
    std::vector<Prefix> allow;
    std::string bad;
    ASSERT_TRUE(
        parse_allow_list(" 10.1.2.3,192.168.0.0/16 \t 172.16.5.9/31,, 127.0.0.1", &allow, &bad));
    ASSERT_EQ(allow.size(), 4u);
    const std::pair<const char*, bool> peers[] = {{"10.1.2.3", true},      {"10.1.2.4", false},
                                                  {"192.168.255.1", true}, {"192.169.0.1", false},
                                                  {"172.16.5.8", true},    {"172.16.5.10", false},
                                                  {"127.0.0.1", true},     {"127.0.0.2", false}};
    for (auto [peer, want] : peers) EXPECT_EQ(allowed(allow, ip(peer)), want) << peer;

    ASSERT_TRUE(parse_allow_list("0.0.0.0/0", &allow, &bad));
    EXPECT_TRUE(allowed(allow, ip("203.0.113.9")));
    ASSERT_TRUE(parse_allow_list(" , ", &allow, &bad));
    EXPECT_TRUE(allow.empty());
    EXPECT_TRUE(allowed(allow, ip("203.0.113.9"))) << "no list: everyone";
}

TEST(AllowList, ABadEntryIsNamed) {
    const std::pair<const char*, const char*> cases[] = {{"10.0.0.1, 10.0.0.300", "10.0.0.300"},
                                                         {"10.0.0.0/33", "10.0.0.0/33"},
                                                         {"10.0.0.0/", "10.0.0.0/"},
                                                         {"10.0.0.0/8x", "10.0.0.0/8x"},
                                                         {"10.1", "10.1"},
                                                         {"localhost", "localhost"},
                                                         {"10.0.0.1;10.0.0.2", "10.0.0.1;10.0.0.2"},
                                                         {"::1", "::1"},
                                                         {"10.0.0.0/-1", "10.0.0.0/-1"}};
    for (auto [text, entry] : cases) {
        std::vector<Prefix> allow;
        std::string bad;
        EXPECT_FALSE(parse_allow_list(text, &allow, &bad)) << text;
        EXPECT_EQ(bad, entry);
        EXPECT_TRUE(allow.empty());
    }
}

TEST(ReportLimiter, OnceAMinutePerAddressWithBoundedMemory) {
    ReportLimiter limiter(60s, 2);
    const auto t0 = Clock::now();
    EXPECT_TRUE(limiter.should_report(1, t0));
    EXPECT_FALSE(limiter.should_report(1, t0 + 59s));
    EXPECT_TRUE(limiter.should_report(2, t0 + 1s));
    EXPECT_FALSE(limiter.should_report(3, t0 + 2s)) << "no room: not reported";
    EXPECT_TRUE(limiter.should_report(1, t0 + 60s));
    EXPECT_TRUE(limiter.should_report(3, t0 + 62s)) << "room again once 2's minute is over";
    EXPECT_FALSE(limiter.should_report(3, t0 + 63s));
}

}  // namespace
