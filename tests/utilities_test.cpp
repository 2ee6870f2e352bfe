#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "QelHttpDnsSDK/Other/QelDNSJSONValue.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "support/Md5.h"
#include "support/ScratchDirectory.h"

using namespace std::string_literals;

TEST(QelDNSUntil, TellsAddressesFromHostNamesUpToTheFirstNul) {
    // One row per kind of text; the fuzzer compares every other text with a reference.
    const struct { std::string text; bool ip, domain; } cases[] = {
        {"127.0.0.1", true, true}, {"2001:db8::1", true, false}, {"a-b.c1", false, true},
        {"", false, false}, {"a..test", false, false}, {"\u212A.test", false, false},
        {"127.0.0.1\0.evil.test"s, true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(QelDNSUntil::isIP(c.text), c.ip) << c.text;
        EXPECT_EQ(QelDNSUntil::isDomain(c.text), c.domain) << c.text;
    }
    EXPECT_FALSE(QelDNSUntil::isIP(std::nullopt) || QelDNSUntil::isDomain(std::nullopt));
    // Megabyte inputs: a backtracking engine recurses or explodes, the answers must be exact.
    std::string labels;
    while (labels.size() < (1u << 20)) labels += "ab-c.";
    EXPECT_FALSE(QelDNSUntil::isDomain(labels));
    EXPECT_TRUE(QelDNSUntil::isDomain(labels + "end"));
    EXPECT_FALSE(QelDNSUntil::isDomain("a" + std::string(1u << 20, '-')));
}

// The number and the text a field of a service answer reads as.
TEST(QelDNSJSONValue, NumbersReadSaturatedFromLeadingIntegersAndTextIsCompact) {
    const struct { const char* json; int32_t number; std::string text; } cases[] = {
        {R"(" -12abc")", -12, " -12abc"}, {R"("99999999999")", INT32_MAX, "99999999999"},
        {"-3.9", -3, "-3.9"}, {"null", 0, ""}, {R"([1, {"a": "é"}])", 0, "[1,{\"a\":\"é\"}]"},
    };
    for (const auto& c : cases) {
        const auto value = nlohmann::json::parse(c.json);
        EXPECT_EQ(QelDNSJSONValue::int32Value(&value), c.number) << c.json;
        EXPECT_EQ(QelDNSJSONValue::descriptionValue(&value), c.text) << c.json;
    }
}

TEST(QelDNSUntil, Md5DigestsTheUtf8BytesUpToTheFirstNulEvenWhereOnlyFipsIsAllowed) {
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("中文"), "a7bac2239fcdcb3a067903d8077c4a07");
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("abc\0def"s), qel::test::md5Hex("abc"));
    // OpenSSL reads its configuration once, possibly while the program loads, so the check
    // runs in a child that has the configuration in its environment from the start.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    qel::test::ScratchDirectory scratch;
    const std::string config = scratch.file("openssl.cnf");
    std::ofstream(config) << "openssl_conf = init\n[init]\nproviders = providers\n"
                             "alg_section = algorithms\n[providers]\nbase = base\n"
                             "[base]\nactivate = 1\n[algorithms]\ndefault_properties = fips=yes\n";
    ::setenv("OPENSSL_CONF", config.c_str(), 1);
    EXPECT_EXIT(
        {
            unsigned char digest[EVP_MAX_MD_SIZE];
            unsigned int length = 0;
            const bool refused = EVP_Digest("abc", 3, digest, &length, EVP_md5(), nullptr) != 1;
            std::filesystem::remove_all(scratch.path());  // no destructor runs in this process
            std::fprintf(stderr, "%s [%s]\n", refused ? "refused" : "allowed",
                         QelDNSUntil::MD5ForLower32Bate("abc").c_str());
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "refused \\[900150983cd24fb0d6963f7d28e17f72\\]");
    ::unsetenv("OPENSSL_CONF");
}
