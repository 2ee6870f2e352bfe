#include <gtest/gtest.h>

#include <climits>
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

// Another coding class, with or without secure coding.
template <bool Secure>
struct Other final : qel::platform::Coding {
    static constexpr std::string_view kClassName = Secure ? "Other" : "Insecure";
    static bool supportsSecureCoding() { return Secure; }
    static std::shared_ptr<Other> initWithCoder(const KeyedUnarchiver&) { return std::make_shared<Other>(); }
    std::string_view className() const override { return kClassName; }
    void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeString("x", "ip"); }
};

std::shared_ptr<QelDNSIPModel> record(std::optional<std::string> domain, int32_t type,
                                      std::optional<std::string> ip, int64_t ttl, double lookupTime) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain(std::move(domain));
    r->setType(type);
    r->setIp(std::move(ip));
    r->setTtl(ttl);
    r->setLookupTime(lookupTime);
    return r;
}

template <class T>
Data archive(const std::vector<std::shared_ptr<T>>& objects) {
    return KeyedArchiver::archivedDataWithRootObjects(objects).value();
}

const std::vector<Allowed> kRecords = {Allowed::array(), Allowed::of<QelDNSIPModel>(), Allowed::string()};

template <class T = QelDNSIPModel>
std::optional<std::vector<std::shared_ptr<T>>> decode(const Data& data,
                                                      const std::vector<Allowed>& allowed = kRecords) {
    return KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<T>>(data, allowed);
}

// Every field of every record, in order; nothing when there is no list.
using Fields = std::tuple<std::optional<std::string>, int32_t, std::optional<std::string>, int64_t, double>;
std::vector<Fields> fields(const std::optional<Records>& records) {
    std::vector<Fields> out;
    for (const auto& r : records.value_or(Records{})) {
        out.emplace_back(r->domain(), r->type(), r->ip(), r->ttl(), r->lookupTime());
    }
    return out;
}

Data bytes(const std::string& text) { return Data(text.begin(), text.end()); }

// Written out by hand from docs/archive-format.md: a.test / 1 / 1.2.3.4 / ttl 60 / lookupTime
// 1000, then (no domain) / 2 / ::1 / ttl -1 / lookupTime 0, whose class and keys refer back to
// the symbols the first one defined.
const std::string kVersionOne =
    "QKA\x01\x04\x02" "\x05\x00\x0dQelDNSIPModel\x05" "\x00\x06" "domain" "\x01\x06" "a.test"
    "\x00\x04" "type" "\x02\x02" "\x00\x02" "ip" "\x01\x07" "1.2.3.4" "\x00\x03" "ttl" "\x03\x78"
    "\x00\x0a" "lookupTime" "\x03\xd0\x0f" "\x05\x01\x05"
    "\x02\x00" "\x03\x02\x04" "\x04\x01\x03" "::1" "\x05\x03\x01" "\x06\x03\x00"s;

}  // namespace

TEST(KeyedArchive, VersionOneRecordsAreReadAndWrittenByteForByteAndExtremesRoundTrip) {
    const Data versionOne = bytes(kVersionOne);
    const Records records = {record("a.test", 1, "1.2.3.4", 60, 1000.9),  // the fraction is cut
                             record(std::nullopt, 2, "::1", -1, 0.3)};
    EXPECT_EQ(archive(records), versionOne);
    records[0]->setLookupTime(1000);
    records[1]->setLookupTime(0);
    EXPECT_EQ(fields(decode(versionOne)), fields(records));

    const Records extremes = {record(std::nullopt, 2, "::1\0x"s, INT64_MIN, -1.9),
                              record("", INT32_MIN, "", INT64_MAX, 1.7e9 + 0.5),
                              record("b.test", INT32_MAX, std::nullopt, 0, 1e300)};
    const auto decoded = decode(archive(extremes));
    const double wholeSeconds[] = {-1.0, 1.7e9, 0x1p63};  // cut toward zero, saturated
    for (size_t i = 0; i < extremes.size(); ++i) extremes[i]->setLookupTime(wholeSeconds[i]);
    EXPECT_EQ(fields(decoded), fields(extremes));
    EXPECT_EQ(decode(archive(Records{})), Records{});
    EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObjects(Records{extremes[0], nullptr}));
}

TEST(KeyedArchive, SecureDecodingRefusesClassesOutsideTheAllowList) {
    const Data records = archive(Records{record("a.test", 1, "10.0.0.1", 600, 0)});
    const Data other = archive(std::vector{std::make_shared<Other<true>>()});
    EXPECT_TRUE(decode(records));
    EXPECT_FALSE(decode(records, {Allowed::array(), Allowed::string()}));
    EXPECT_FALSE(decode(records, {Allowed::of<QelDNSIPModel>(), Allowed::string()}));
    EXPECT_FALSE(decode(records, {Allowed::array(), Allowed::of<QelDNSIPModel>()}));
    EXPECT_TRUE(decode<Other<true>>(other, {Allowed::array(), Allowed::of<Other<true>>(), Allowed::string()}));
    EXPECT_FALSE(decode(other));
    // Allowed, but not the class the caller asked for.
    EXPECT_FALSE(decode(other, {Allowed::array(), Allowed::of<QelDNSIPModel>(),
                                Allowed::of<Other<true>>(), Allowed::string()}));
    // Listed, but not opted into secure coding.
    EXPECT_FALSE(decode<Other<false>>(archive(std::vector{std::make_shared<Other<false>>()}),
                                      {Allowed::array(), Allowed::of<Other<false>>(), Allowed::string()}));
}

TEST(KeyedArchive, DamagedDataYieldsNothingAndIsNeverReadOutOfBounds) {
    const Data good = archive(Records{record("a.test", 1, "10.0.0.1", 600, 1.7e9),
                                      record("a.test", 1, "10.0.0.2", 600, 1.7e9)});
    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(decode(Data(good.begin(), good.begin() + static_cast<long>(length)))) << length;
    }
    Data trailing = good, laterVersion = good;
    trailing.push_back(0);
    laterVersion[3] = 2;
    const std::string object = "QKA\x01\x04\x01\x05\x00\x0dQelDNSIPModel"s;
    for (const Data& damaged : {
             trailing, laterVersion,
             // Counts far beyond the data, which must fail before anything is allocated.
             bytes("QKA\x01\x04\xff\xff\xff\xff\x0f"s), bytes(object + "\xff\xff\x7f"),
             // A varint longer than 64 bits, a symbol reference to nothing, an unknown tag.
             bytes("QKA\x01\x04\x80\x80\x80\x80\x80\x80\x80\x80\x80\x02"s),
             bytes("QKA\x01\x04\x01\x05\x07\x00"s), bytes("QKA\x01\x07"s),
             // A key that refers to a symbol never defined.
             bytes(std::string(kVersionOne).replace(kVersionOne.find("\x05\x01\x05\x02"s), 4,
                                                    "\x05\x01\x05\x09"s)),
             // 2^31 as the record's 32-bit type, whether stored in 32 or in 64 bits.
             bytes(object + "\x01\x00\x04" "type" "\x02\x80\x80\x80\x80\x10"s),
             bytes(object + "\x01\x00\x04" "type" "\x03\x80\x80\x80\x80\x10"s)}) {
        EXPECT_FALSE(decode(damaged)) << testing::PrintToString(damaged);
    }
}
