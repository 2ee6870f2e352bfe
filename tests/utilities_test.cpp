#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "support/Md5.h"
#include "support/ScratchDirectory.h"

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
