#include <gtest/gtest.h>

#include <random>

#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"

using qel::platform::Coding;
using qel::platform::Data;
using qel::platform::KeyedArchiver;
using qel::platform::KeyedUnarchiver;
using Allowed = KeyedUnarchiver::AllowedClass;

namespace {

// A second coding class with the record's very keys, so only the class tells them apart.
class OtherRecord final : public Coding {
public:
    static constexpr std::string_view kClassName = "OtherRecord";
    static bool supportsSecureCoding() { return true; }
    static std::shared_ptr<OtherRecord> initWithCoder(const KeyedUnarchiver&) {
        return std::make_shared<OtherRecord>();
    }
    std::string_view className() const override { return kClassName; }
    void encodeWithCoder(qel::platform::KeyedArchiver& coder) const override {
        coder.encodeString("a.test", "domain");
        coder.encodeInt32(1, "type");
        coder.encodeString("1.2.3.4", "ip");
        coder.encodeInt64(60, "ttl");
        coder.encodeInt64(1000, "lookupTime");
    }
};

// A class that has not opted into secure decoding.
class InsecureRecord final : public Coding {
public:
    static constexpr std::string_view kClassName = "InsecureRecord";
    static bool supportsSecureCoding() { return false; }
    static std::shared_ptr<InsecureRecord> initWithCoder(const KeyedUnarchiver&) {
        return std::make_shared<InsecureRecord>();
    }
    std::string_view className() const override { return kClassName; }
    void encodeWithCoder(qel::platform::KeyedArchiver& coder) const override {
        coder.encodeInt32(1, "type");
    }
};

std::shared_ptr<QelDNSIPModel> record(const std::string& ip) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain("example.test");
    r->setType(1);
    r->setIp(ip);
    r->setTtl(600);
    r->setLookupTime(1.7e9);
    return r;
}

const std::vector<Allowed> kRecordClasses = {Allowed::array(), Allowed::of<QelDNSIPModel>(),
                                             Allowed::string()};

template <class T = QelDNSIPModel>
std::optional<std::vector<std::shared_ptr<T>>> decode(const Data& data,
                                                      const std::vector<Allowed>& allowed =
                                                          kRecordClasses) {
    return KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<T>>(data, allowed);
}

Data twoRecords() {
    return *KeyedArchiver::archivedDataWithRootObjects(
        std::vector<std::shared_ptr<QelDNSIPModel>>{record("10.0.0.1"), record("10.0.0.2")});
}

}  // namespace

TEST(KeyedArchive, EmptyListAndSymbolReuse) {
    auto empty = KeyedArchiver::archivedDataWithRootObjects(std::vector<QelDNSIPModel*>{});
    ASSERT_TRUE(empty);
    auto decoded = decode(*empty);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(decoded->empty());

    // The class name and each key are written once per archive; later records refer to them.
    const Data two = twoRecords();
    const std::string text(two.begin(), two.end());
    for (const char* symbol : {"QelDNSIPModel", "domain", "type", "ip\x01", "ttl", "lookupTime"}) {
        const size_t first = text.find(symbol);
        EXPECT_NE(first, std::string::npos) << symbol;
        EXPECT_EQ(text.find(symbol, first + 1), std::string::npos) << symbol;
    }
}

TEST(KeyedArchive, NullElementIsNotArchived) {
    std::vector<std::shared_ptr<QelDNSIPModel>> records = {record("10.0.0.1"), nullptr};
    EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObjects(records));
}

TEST(KeyedArchive, SecureDecodingRefusesClassesOutsideTheAllowList) {
    const Data records = twoRecords();
    EXPECT_FALSE(decode(records, {Allowed::array(), Allowed::string()}));
    EXPECT_FALSE(decode(records, {Allowed::of<QelDNSIPModel>(), Allowed::string()}));
    EXPECT_FALSE(decode(records, {Allowed::array(), Allowed::of<QelDNSIPModel>()}));

    const Data other = *KeyedArchiver::archivedDataWithRootObjects(
        std::vector<std::shared_ptr<OtherRecord>>{std::make_shared<OtherRecord>()});
    EXPECT_FALSE(decode(other));
    // Allowed, but not the class the caller asked for.
    EXPECT_FALSE(decode(other, {Allowed::array(), Allowed::of<QelDNSIPModel>(),
                                Allowed::of<OtherRecord>(), Allowed::string()}));
    EXPECT_TRUE(decode<OtherRecord>(other, {Allowed::array(), Allowed::of<OtherRecord>(),
                                            Allowed::string()}));

    const Data insecure = *KeyedArchiver::archivedDataWithRootObjects(
        std::vector<std::shared_ptr<InsecureRecord>>{std::make_shared<InsecureRecord>()});
    EXPECT_FALSE(decode<InsecureRecord>(insecure, {Allowed::array(), Allowed::of<InsecureRecord>()}));
}

TEST(KeyedArchive, DamagedDataYieldsNothing) {
    const Data good = twoRecords();
    ASSERT_TRUE(decode(good));
    for (size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(decode(Data(good.begin(), good.begin() + static_cast<long>(length))))
            << "prefix of " << length << " bytes";
    }
    Data trailing = good;
    trailing.push_back(0);
    EXPECT_FALSE(decode(trailing));
    Data laterVersion = good;
    laterVersion[3] = 2;
    EXPECT_FALSE(decode(laterVersion));

    // Counts far beyond the data must fail before anything is allocated for them.
    EXPECT_FALSE(decode(Data{'Q', 'K', 'A', 1, 0x04, 0xff, 0xff, 0xff, 0xff, 0x0f}));
    EXPECT_FALSE(decode(Data{'Q', 'K', 'A', 1, 0x04, 1, 0x05, 0, 1, 'X', 0xff, 0xff, 0x7f}));
    // A varint longer than 64 bits, a symbol reference to nothing, an unknown tag.
    EXPECT_FALSE(decode(Data{'Q', 'K', 'A', 1, 0x04, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
                             0x80, 0x80, 0x02}));
    EXPECT_FALSE(decode(Data{'Q', 'K', 'A', 1, 0x04, 1, 0x05, 7, 0}));
    EXPECT_FALSE(decode(Data{'Q', 'K', 'A', 1, 0x07}));
}

TEST(KeyedArchive, RandomDamageNeverReadsOutOfBoundsOrYieldsAHalfList) {
    const Data good = twoRecords();
    std::mt19937 random(42);
    for (int trial = 0; trial < 3000; ++trial) {
        Data damaged = good;
        const int flips = 1 + trial % 4;
        for (int i = 0; i < flips; ++i) {
            damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
        }
        if (trial % 3 == 0) damaged.resize(random() % damaged.size());
        auto decoded = decode(damaged);
        if (decoded) {
            EXPECT_EQ(decoded->size(), 2u);
            for (const auto& r : *decoded) EXPECT_TRUE(r);
        }
    }
    Data noise(200);
    for (auto& b : noise) b = static_cast<uint8_t>(random());
    EXPECT_FALSE(decode(noise));
}
