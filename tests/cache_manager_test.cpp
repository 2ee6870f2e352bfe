#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Extras/QelDNSCacheProfile.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/ScratchDirectory.h"

using qel::platform::Data;
using qel::platform::UserDefaults;
using Strings = std::vector<std::string>;

namespace {

std::shared_ptr<QelDNSIPModel> record(const std::string& ip, int64_t ttl, double lookupTime) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain("example.test");
    r->setIp(ip);
    r->setTtl(ttl);
    r->setLookupTime(lookupTime);
    return r;
}

QelDNSIPModelListRef list(std::initializer_list<std::shared_ptr<QelDNSIPModel>> records) {
    return std::make_shared<const QelDNSIPModelList>(records.begin(), records.end());
}

class CacheManagerTest : public ::testing::Test {
protected:
    // Never the real home: a test whose store could not be moved does not run.
    void SetUp() override { ASSERT_TRUE(UserDefaults::setStandardPath(storePath())); }

    static constexpr char kStoreFile[] = "defaults.sqlite3";
    std::string storePath() const { return dir_.file(kStoreFile); }
    static QelDNSCacheManager& cache() { return QelDNSCacheManager::shared(); }
    static UserDefaults& store() { return UserDefaults::standard(); }

    qel::test::ScratchDirectory dir_;
    qel::test::FakeClock clock_{1000.25};
};

}  // namespace

TEST_F(CacheManagerTest, RecordSaysExpiredOnTruncatedTimeAndTheFilterOnExactTime) {
    struct {
        int64_t ttl;
        double lookupTime, now;
        bool expired, kept;
    } cases[] = {
        {60, 1000.5, 1060.49, false, true},
        {60, 1000.5, 1060.7, false, false},
        {60, 1000.5, 1061, true, false},
        {-1, 1000.5, 1000.5, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.ttl << " " << c.lookupTime << " at " << c.now);
        clock_.set(c.now);
        const auto r = record("10.0.0.1", c.ttl, c.lookupTime);
        EXPECT_EQ(r->isExpired(), c.expired);
        EXPECT_EQ(cache().filterExpiredTTL({r}).size(), c.kept ? 1u : 0u);
    }
}

TEST_F(CacheManagerTest, ClearingRemovesEveryStoreKeyContainingASuffixAnywhere) {
    for (const char* key : {"my_v4_setting", "prefs_v6", "x_v6y", "theme", "v4", "a_V4", "ipv6"}) {
        store().setString(key, "app");
    }
    for (const char* key : {"a.test_v4", "b.test_v6", "c.test_v4"}) {
        cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), key, true);
    }
    cache().clearCacheForDomain("c.test_v4");
    EXPECT_FALSE(cache().getIPsWithDomain("c.test_v4", true));
    EXPECT_FALSE(store().data("c.test_v4"));
    EXPECT_TRUE(store().data("a.test_v4"));

    cache().clearAllCache();
    EXPECT_TRUE(cache().dict().empty());
    EXPECT_EQ(store().allKeys(), (Strings{"a_V4", "ipv6", "theme", "v4"}));
}

TEST_F(CacheManagerTest, DamagedDatabaseLeavesAMemoryOnlyCacheAndTheFileAsItWas) {
    {
        qel::platform::SqliteUserDefaults app(storePath());
        app.setString("app_v4", std::string(20000, 'x'));
        app.setData("app.test_v4", *cache().archivedDataWithObjects(*list({record("10.0.0.9", 600, 1000)})));
    }
    Data file = dir_.read(kStoreFile);  // the header page survives, the table not
    const Data noise = qel::test::randomBytes(file.size() - 4096, 9);
    std::copy(noise.begin(), noise.end(), file.begin() + 4096);
    dir_.write(kStoreFile, file);

    qel::test::CapturingConsole console;
    const auto saved = list({record("10.0.0.1", 600, 1000)});
    cache().saveIPs(saved, "a.test_v4", true);
    EXPECT_EQ(cache().getIPsWithDomain("a.test_v4", true)->at(0)->ip(), "10.0.0.1");
    EXPECT_TRUE(store().synchronize()) << "a write the file cannot take is dropped, not kept";
    EXPECT_FALSE(cache().getCacheWithDomain("a.test_v4"));
    EXPECT_FALSE(cache().getIPsWithDomain("app.test_v4", true));
    cache().clearAllCache();
    EXPECT_EQ(dir_.read(kStoreFile), file) << "the application's keys are kept";
    EXPECT_EQ(console.lines().size(), 1u);
}

// Kept as one block, a list gives back every field of every record, absent texts included.
TEST_F(CacheManagerTest, AKeptListGivesBackEveryFieldOfItsRecords) {
    using Fields = std::tuple<std::optional<std::string>, int32_t, std::optional<std::string>, int64_t, double>;
    const std::vector<Fields> rows = {
        {"a.test", 1, "10.0.0.1", 60, 1000.5}, {"a.test", 1, std::nullopt, 60, 999},  // the domain shared
        {std::nullopt, 2, "::1", -5, 0},       {"b.test", 0, "", INT64_MAX, -1e300},
        {"a.test", 7, "x", 1, 1e18},
    };
    QelDNSIPModelList records;
    for (const auto& [domain, type, ip, ttl, lookupTime] : rows) {
        auto r = std::make_shared<QelDNSIPModel>();
        r->setDomain(domain), r->setType(type), r->setIp(ip), r->setTtl(ttl), r->setLookupTime(lookupTime);
        records.push_back(r);
    }
    cache().saveIPs(std::make_shared<const QelDNSIPModelList>(records), "a.test_v4", false);
    std::vector<Fields> kept;
    const auto got = cache().getIPsWithDomain("a.test_v4", true);
    for (const auto& r : *got) {
        kept.emplace_back(r->domain(), r->type(), r->ip(), r->ttl(), r->lookupTime());
    }
    EXPECT_EQ(kept, rows);
    QelDNSCacheManager::Addresses alive;  // at 1000.25: the first, the second (no address) and the last
    ASSERT_TRUE(cache().readAddresses("a.test_v4", false, alive));
    EXPECT_EQ(alive.ips, (Strings{"10.0.0.1", "x"}));
    EXPECT_EQ(alive.secondsLeft, 59);
}

// Past the bound the hand evicts the first unread name from the oldest on, clearing read marks
// on its way; names read since survive a pass.
TEST_F(CacheManagerTest, PastTheBoundTheFirstUnreadNameFromTheHandGoes) {
    cache().setMaxLists(3);
    const auto put = [](const char* name) { cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), name, false); };
    const auto kept = [] {
        Strings keys;
        for (const auto& [key, records] : cache().dict()) keys.push_back(key);
        std::sort(keys.begin(), keys.end());
        return keys;
    };
    for (const char* name : {"a", "b", "c"}) put(name);
    cache().getIPsWithDomain("a", false);
    put("d");
    EXPECT_EQ(kept(), (Strings{"a", "c", "d"}));
    put("e");
    EXPECT_EQ(kept(), (Strings{"a", "d", "e"}));
    cache().getIPsWithDomain("d", false);
    put("f");
    EXPECT_EQ(kept(), (Strings{"a", "d", "f"}));
    cache().setMaxLists(1);
    EXPECT_EQ(kept().size(), 1u);
    cache().setMaxLists(0);
}

// With a maximum age the store loses the entries whose every record expired longer ago, in
// passes of a batch at a time; the application's keys and younger entries stay.
TEST_F(CacheManagerTest, AMaximumAgeSweepsOldEntriesFromTheStore) {
    store().setString("old_v4_setting", "app");
    for (int i = 0; i < 150; ++i) {  // more than a batch: old ones on both sides of younger ones
        const double lookupTime = i % 3 == 0 ? 1000 : i % 3 == 1 ? 900 : 950;  // alive, old, expired 5 s ago
        cache().saveIPs(list({record("10.0.0.1", i % 3 == 2 ? 45 : 60, lookupTime)}), "n" + std::to_string(i) + "_v4", true);
    }
    QelDNSCacheProfile::enable({0, 10, 0, false});
    EXPECT_TRUE(qel::test::eventually([] { return store().allKeys().size() == 101; })) << store().allKeys().size();
    EXPECT_TRUE(store().data("n0_v4") && store().data("n2_v4") && !store().data("n1_v4") && store().string("old_v4_setting"));
    QelDNSCacheProfile::disable();
}

// A name found only in the store is decoded once and remembered, until this process changes the
// entry or another connection commits (seen at the next look, 100 ms apart at most).
TEST_F(CacheManagerTest, AStoreEntryIsDecodedOnceUntilItChanges) {
    const auto ipOf = [] {
        QelDNSCacheManager::Addresses found;
        return cache().readAddresses("a.test_v4", false, found) && found.fromStore ? found.ips.at(0) : "";
    };
    cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), "a.test_v4", true);
    cache().setDict({});
    EXPECT_EQ(ipOf(), "10.0.0.1");
    ASSERT_TRUE(store().synchronize());
    qel::platform::SqliteUserDefaults app(storePath());
    const auto archive = [](const char* ip) { return *cache().archivedDataWithObjects(*list({record(ip, 600, 1000)})); };
    app.setData("a.test_v4", archive("10.0.0.2"));
    EXPECT_EQ(ipOf(), "10.0.0.1") << "remembered";
    clock_.set(1000.5);
    EXPECT_EQ(ipOf(), "10.0.0.2") << "another connection's commit, seen";
    cache().saveCaches(*list({record("10.0.0.3", 600, 1000)}), "a.test_v4");
    EXPECT_EQ(ipOf(), "10.0.0.3") << "this process's change";
    cache().clearCacheForDomain("a.test_v4");
    EXPECT_EQ(ipOf(), "");
}
