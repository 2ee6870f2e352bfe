#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "support/CapturingConsole.h"
#include "support/Md5.h"
#include "support/ScratchDirectory.h"

using namespace std::string_literals;

TEST(IsIP, AcceptsOnlyWhatInetPtonAcceptsUpToTheFirstNul) {
    for (const char* ip : {"127.0.0.1", "::1", "0.0.0.0", "2001:db8::1", "::ffff:1.2.3.4"}) {
        EXPECT_TRUE(QelDNSUntil::isIP(std::string(ip))) << ip;
    }
    for (const char* text : {"", "1.2.3", "256.1.1.1", "example.test", "[::1]", "fe80::1%eth0",
                             " 127.0.0.1", "127.0.0.1 ", "01.2.3.4x", "1.2.3.4:80"}) {
        EXPECT_FALSE(QelDNSUntil::isIP(std::string(text))) << text;
    }
    EXPECT_FALSE(QelDNSUntil::isIP(std::nullopt));
    EXPECT_TRUE(QelDNSUntil::isIP("127.0.0.1\0.evil.test"s));
    EXPECT_FALSE(QelDNSUntil::isIP("\0"s "127.0.0.1"s));
}

TEST(IsDomain, AcceptsHostNamesOfLettersDigitsAndInnerHyphensOnly) {
    for (const char* name : {"a", "a-b.c1", "EXAMPLE.test", "1.2.3.4", "x--y.z", "a.b.c.d.e"}) {
        EXPECT_TRUE(QelDNSUntil::isDomain(std::string(name))) << name;
    }
    for (const char* text : {"", "-a.test", "a-.test", "a..test", "a.test.", ".a.test", "a_b.test",
                             "a test", "a.test\n", "ä.test", "a.test/x", "*.a.test", "[::1]",
                             // the Kelvin sign and the long s, which fold to k and s in Unicode
                             "\u212A.test", "te\u017Ft"}) {
        EXPECT_FALSE(QelDNSUntil::isDomain(std::string(text))) << text;
    }
    EXPECT_FALSE(QelDNSUntil::isDomain(std::nullopt));
    EXPECT_FALSE(QelDNSUntil::isDomain("a\0b.test"s));
}

TEST(IsDomain, HandlesMegabyteInputsWithoutRecursion) {
    // A backtracking engine recurses or explodes on these; the answers must still be exact.
    std::string labels;
    while (labels.size() < (1u << 20)) labels += "ab-c.";
    EXPECT_FALSE(QelDNSUntil::isDomain(labels));  // trailing dot
    labels += "end";
    EXPECT_TRUE(QelDNSUntil::isDomain(labels));
    std::string hyphens = "a" + std::string(1u << 20, '-');
    EXPECT_FALSE(QelDNSUntil::isDomain(hyphens));
    EXPECT_TRUE(QelDNSUntil::isDomain(hyphens + "a"));
}

TEST(MD5ForLower32Bate, DigestsTheUtf8BytesUpToTheFirstNul) {
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("abc"), qel::test::md5Hex("abc"));
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("中文"), "a7bac2239fcdcb3a067903d8077c4a07");
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("abc\0def"s), qel::test::md5Hex("abc"));
    EXPECT_EQ(QelDNSUntil::MD5ForLower32Bate("\0abc"s), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(MD5ForLower32Bate, WorksWhereTheSystemAllowsOnlyFipsAlgorithms) {
    // OpenSSL reads its configuration once, possibly while the program loads (a library that
    // uses it may initialise it then), so the check runs in a child process that has the
    // configuration in its environment from the start.
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

TEST(CurrentPackageName, IsTheBundleIdentifierWhenSetAndNotEmpty) {
    EXPECT_EQ(QelDNSUntil::currentPackageName(), std::nullopt);
    QelDNSApplication::setBundleIdentifier("com.example.app");
    EXPECT_EQ(QelDNSUntil::currentPackageName(), "com.example.app");
    QelDNSApplication::setBundleIdentifier("");
    EXPECT_EQ(QelDNSUntil::currentPackageName(), std::nullopt);
}

TEST(QelDNSLog, PrintsOnlyWhileEnabledAndNeverAsAFormat) {
    qel::test::CapturingConsole console;
    EXPECT_FALSE(QelDNSLog::isEnable());
    QelDNSLog::logWithStr("before");
    QelDNSLog::enable();
    EXPECT_TRUE(QelDNSLog::isEnable());
    QelDNSLog::logWithStr("100% %@ %s %n done");
    QelDNSLog::logWithStr("### 网络不可用 ###");
    QelDNSLog::logWithStr(std::optional<std::string>());
    QelDNSLog::disable();
    QelDNSLog::logWithStr("after");
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{"100% %@ %s %n done", "### 网络不可用 ###", "(null)"}));
}
