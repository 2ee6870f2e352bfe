#include <gtest/gtest.h>

#include <string>

#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

using namespace std::string_literals;

TEST(QelDNSUntil, StopsAtTheFirstNulAndDecidesMegabyteTextsWithoutBacktracking) {
    // Every other text is the fuzzer's, against a reference; here the NUL that ends a text.
    EXPECT_TRUE(QelDNSUntil::isIP("127.0.0.1\0.evil.test"s));
    EXPECT_FALSE(QelDNSUntil::isDomain("127.0.0.1\0.evil.test"s));
    EXPECT_FALSE(QelDNSUntil::isIP(std::nullopt) || QelDNSUntil::isDomain(std::nullopt));
    // Megabyte inputs: a backtracking engine recurses or explodes, the answers must be exact.
    std::string labels;
    while (labels.size() < (1u << 20)) labels += "ab-c.";
    EXPECT_FALSE(QelDNSUntil::isDomain(labels));
    EXPECT_TRUE(QelDNSUntil::isDomain(labels + "end"));
    EXPECT_FALSE(QelDNSUntil::isDomain("a" + std::string(1u << 20, '-')));
    // Each rule once, beside the fuzzer's reference: which byte, and which after which.
    for (const char* name : {"a", "Z9", "x-y.b--c.0", "az.AZ.09"}) {
        EXPECT_TRUE(QelDNSUntil::isDomain(name)) << name;
    }
    for (const char* name : {"-a", "a-", "a.", ".a", "a..b", "a.-b", "a-.b", "a_b", "a b", "{",
                             "`", "@", "[", "/", ":"}) {
        EXPECT_FALSE(QelDNSUntil::isDomain(name)) << name;
    }
}
