// Damaged and random archives, round trips of arbitrary records and allow-lists missing a class
// are the fuzzer's (fuzz/keyed_archive_fuzzer.cpp); here: the format earlier releases wrote.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"

using qel::platform::Data;
using qel::platform::KeyedArchiver;
using qel::platform::KeyedUnarchiver;
using Allowed = KeyedUnarchiver::AllowedClass;
using Records = std::vector<std::shared_ptr<QelDNSIPModel>>;
using namespace std::string_literals;

namespace {

std::shared_ptr<QelDNSIPModel> record(std::optional<std::string> domain, int32_t type, std::optional<std::string> ip, int64_t ttl,
                                      double lookupTime) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain(std::move(domain));
    r->setType(type);
    r->setIp(std::move(ip));
    r->setTtl(ttl);
    r->setLookupTime(lookupTime);
    return r;
}

}  // namespace

// Written out by hand from docs/archive-format.md: a.test / 1 / 1.2.3.4 / ttl 60 / lookupTime
// 1000, then (no domain) / 2 / ::1 / ttl -1 / lookupTime 0, whose class and keys refer back to
// the symbols the first one defined.
TEST(KeyedArchive, VersionOneRecordsAreReadAndWrittenByteForByte) {
    // One field per group of literals.
    // clang-format off
    const std::string v1 =
        "QKA\x01\x04\x02" "\x05\x00\x0dQelDNSIPModel\x05" "\x00\x06" "domain" "\x01\x06" "a.test"
        "\x00\x04" "type" "\x02\x02" "\x00\x02" "ip" "\x01\x07" "1.2.3.4" "\x00\x03" "ttl" "\x03\x78"
        "\x00\x0a" "lookupTime" "\x03\xd0\x0f" "\x05\x01\x05"
        "\x02\x00" "\x03\x02\x04" "\x04\x01\x03" "::1" "\x05\x03\x01" "\x06\x03\x00"s;
    // clang-format on
    const Data versionOne(v1.begin(), v1.end());
    const Records records = {record("a.test", 1, "1.2.3.4", 60, 1000.9),  // the fraction is cut
                             record(std::nullopt, 2, "::1", -1, 0.3)};
    EXPECT_EQ(KeyedArchiver::archivedDataWithRootObjects(records), versionOne);
    const auto decoded = KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<QelDNSIPModel>>(
        versionOne, {Allowed::array(), Allowed::of<QelDNSIPModel>(), Allowed::string()});
    ASSERT_TRUE(decoded && decoded->size() == 2);
    using Fields = std::tuple<std::optional<std::string>, int32_t, std::optional<std::string>, int64_t, double>;
    const auto fields = [](const QelDNSIPModel& r) { return Fields{r.domain(), r.type(), r.ip(), r.ttl(), r.lookupTime()}; };
    EXPECT_EQ(fields(*(*decoded)[0]), (Fields{"a.test", 1, "1.2.3.4", 60, 1000}));
    EXPECT_EQ(fields(*(*decoded)[1]), (Fields{std::nullopt, 2, "::1", -1, 0}));
    EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObjects(Records{records[0], nullptr}));
}
