#include <gtest/gtest.h>

#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"
#include "support/FakeClock.h"

using qel::platform::Data;
using qel::platform::KeyedArchiver;
using qel::platform::KeyedUnarchiver;

namespace {

std::shared_ptr<QelDNSIPModel> record(std::optional<std::string> domain, int32_t type,
                                      std::optional<std::string> ip, int64_t ttl,
                                      double lookupTime) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain(std::move(domain));
    r->setType(type);
    r->setIp(std::move(ip));
    r->setTtl(ttl);
    r->setLookupTime(lookupTime);
    return r;
}

std::optional<std::vector<std::shared_ptr<QelDNSIPModel>>> decode(const Data& data) {
    return KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<QelDNSIPModel>>(
        data, {KeyedUnarchiver::AllowedClass::array(),
               KeyedUnarchiver::AllowedClass::of<QelDNSIPModel>(),
               KeyedUnarchiver::AllowedClass::string()});
}

Data bytes(std::initializer_list<int> values) {
    Data out;
    for (int v : values) out.push_back(static_cast<uint8_t>(v));
    return out;
}

void append(Data& data, const std::string& text) { data.insert(data.end(), text.begin(), text.end()); }

// Two records as version 1 of the archive stores them, written out by hand from
// docs/archive-format.md: a.test / 1 / 1.2.3.4 / ttl 60 / lookupTime 1000, then
// (no domain) / 2 / ::1 / ttl -1 / lookupTime 0, whose class and keys refer back to symbols.
Data versionOneArchive() {
    Data d = bytes({'Q', 'K', 'A', 1, 0x04, 2, 0x05, 0, 13});
    append(d, "QelDNSIPModel");
    d.push_back(5);
    d.insert(d.end(), {0, 6}), append(d, "domain"), d.insert(d.end(), {0x01, 6}), append(d, "a.test");
    d.insert(d.end(), {0, 4}), append(d, "type"), d.insert(d.end(), {0x02, 2});
    d.insert(d.end(), {0, 2}), append(d, "ip"), d.insert(d.end(), {0x01, 7}), append(d, "1.2.3.4");
    d.insert(d.end(), {0, 3}), append(d, "ttl"), d.insert(d.end(), {0x03, 0x78});
    d.insert(d.end(), {0, 10}), append(d, "lookupTime"), d.insert(d.end(), {0x03, 0xD0, 0x0F});
    d.insert(d.end(), {0x05, 1, 5, 2, 0x00, 3, 0x02, 4, 4, 0x01, 3});
    append(d, "::1");
    d.insert(d.end(), {5, 0x03, 1, 6, 0x03, 0});
    return d;
}

}  // namespace

TEST(QelDNSIPModel, IsExpiredComparesTheTruncatedTimeAndCountsEqualityAsExpired) {
    qel::test::FakeClock clock;
    auto r = record("a.test", 1, "1.2.3.4", 60, 1000.0);  // deadline 1060.0
    clock.set(1059.99);
    EXPECT_FALSE(r->isExpired());
    clock.set(1060.0);
    EXPECT_TRUE(r->isExpired());
    clock.set(1060.4);
    EXPECT_TRUE(r->isExpired());

    r->setLookupTime(1000.5);  // deadline 1060.5: still alive until second 1061
    clock.set(1060.7);
    EXPECT_FALSE(r->isExpired());
    clock.set(1061.0);
    EXPECT_TRUE(r->isExpired());

    r->setTtl(-1);
    clock.set(1000.5);
    EXPECT_TRUE(r->isExpired());
    r->setTtl(0);
    r->setLookupTime(1000.2);
    clock.set(1000.9);
    EXPECT_FALSE(r->isExpired());
    clock.set(1001.0);
    EXPECT_TRUE(r->isExpired());
}

TEST(QelDNSIPModel, ArchiveRoundTripKeepsFieldsAndCutsLookupTimeToWholeSeconds) {
    ASSERT_TRUE(QelDNSIPModel::supportsSecureCoding());
    const std::vector<std::shared_ptr<QelDNSIPModel>> records = {
        record("a.test", 1, "1.2.3.4", 60, 1000.9),
        record(std::nullopt, 2, std::string("::1\0x", 5), INT64_MIN, -1.9),
        record("", INT32_MIN, "", INT64_MAX, 1.7e9 + 0.5),
        record("b.test", INT32_MAX, std::nullopt, 0, 0),
    };
    auto data = KeyedArchiver::archivedDataWithRootObjects(records);
    ASSERT_TRUE(data);
    auto decoded = decode(*data);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), records.size());
    const double wholeSeconds[] = {1000.0, -1.0, 1.7e9, 0.0};
    for (size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE(i);
        const QelDNSIPModel& in = *records[i];
        const QelDNSIPModel& out = *(*decoded)[i];
        EXPECT_EQ(out.domain(), in.domain());
        EXPECT_EQ(out.type(), in.type());
        EXPECT_EQ(out.ip(), in.ip());
        EXPECT_EQ(out.ttl(), in.ttl());
        EXPECT_EQ(out.lookupTime(), wholeSeconds[i]);
    }
}

TEST(QelDNSIPModel, StoredFormOfVersionOneIsReadAndWrittenByteForByte) {
    const Data archive = versionOneArchive();
    auto decoded = decode(archive);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 2u);
    const QelDNSIPModel& first = *(*decoded)[0];
    EXPECT_EQ(first.domain(), "a.test");
    EXPECT_EQ(first.type(), 1);
    EXPECT_EQ(first.ip(), "1.2.3.4");
    EXPECT_EQ(first.ttl(), 60);
    EXPECT_EQ(first.lookupTime(), 1000.0);
    const QelDNSIPModel& second = *(*decoded)[1];
    EXPECT_FALSE(second.domain().has_value());
    EXPECT_EQ(second.type(), 2);
    EXPECT_EQ(second.ip(), "::1");
    EXPECT_EQ(second.ttl(), -1);
    EXPECT_EQ(second.lookupTime(), 0.0);

    const std::vector<std::shared_ptr<QelDNSIPModel>> records = {
        record("a.test", 1, "1.2.3.4", 60, 1000.9), record(std::nullopt, 2, "::1", -1, 0.3)};
    EXPECT_EQ(KeyedArchiver::archivedDataWithRootObjects(records), archive);
}

TEST(QelDNSIPModel, MissingOrMistypedFieldsReadAsEmptyAndUnknownFieldsAreIgnored) {
    // A record from another version: "ip" only, "ttl" as a string, plus a field this version
    // does not know.
    Data d = bytes({'Q', 'K', 'A', 1, 0x04, 1, 0x05, 0, 13});
    append(d, "QelDNSIPModel");
    d.push_back(3);
    d.insert(d.end(), {0, 6}), append(d, "future"), d.insert(d.end(), {0x03, 0x02});
    d.insert(d.end(), {0, 2}), append(d, "ip"), d.insert(d.end(), {0x01, 1}), append(d, "x");
    d.insert(d.end(), {0, 3}), append(d, "ttl"), d.insert(d.end(), {0x01, 1}), append(d, "9");
    auto decoded = decode(d);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 1u);
    const QelDNSIPModel& r = *(*decoded)[0];
    EXPECT_EQ(r.ip(), "x");
    EXPECT_FALSE(r.domain().has_value());
    EXPECT_EQ(r.type(), 0);
    EXPECT_EQ(r.ttl(), 0);
    EXPECT_EQ(r.lookupTime(), 0.0);
    qel::test::FakeClock clock(0.0);
    EXPECT_TRUE(r.isExpired());
}

TEST(QelDNSIPModel, TypeWiderThanThirtyTwoBitsMakesTheArchiveDamaged) {
    auto encodeType = [](uint8_t tag, std::initializer_list<int> value) {
        Data d = bytes({'Q', 'K', 'A', 1, 0x04, 1, 0x05, 0, 13});
        append(d, "QelDNSIPModel");
        d.push_back(1);
        d.insert(d.end(), {0, 4}), append(d, "type"), d.push_back(tag);
        for (int b : value) d.push_back(static_cast<uint8_t>(b));
        return d;
    };
    // A 64-bit field that fits is widened to the 32-bit type; 2^31 (zigzag 2^32) is not.
    auto fits = decode(encodeType(0x03, {0x04}));
    ASSERT_TRUE(fits);
    EXPECT_EQ((*fits)[0]->type(), 2);
    EXPECT_FALSE(decode(encodeType(0x03, {0x80, 0x80, 0x80, 0x80, 0x10})));
    EXPECT_FALSE(decode(encodeType(0x02, {0x80, 0x80, 0x80, 0x80, 0x10})));
}
