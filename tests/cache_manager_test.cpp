#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"
#include "QelHttpDnsSDK/Platform/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FakeClock.h"
#include "support/FileBytes.h"
#include "support/ScratchDirectory.h"

using qel::platform::Data;
using qel::platform::UserDefaults;

namespace {

std::shared_ptr<QelDNSIPModel> record(const std::string& ip, int64_t ttl, double lookupTime) {
    auto r = std::make_shared<QelDNSIPModel>();
    r->setDomain("example.test");
    r->setType(1);
    r->setIp(ip);
    r->setTtl(ttl);
    r->setLookupTime(lookupTime);
    return r;
}

QelDNSIPModelListRef list(std::initializer_list<std::shared_ptr<QelDNSIPModel>> records) {
    return std::make_shared<const QelDNSIPModelList>(records.begin(), records.end());
}

std::vector<std::string> ips(const QelDNSIPModelListRef& records) {
    std::vector<std::string> out;
    for (const auto& r : *records) out.push_back(r->ip().value_or("(null)"));
    return out;
}

// Same keys as a record, another class.
class OtherRecord final : public qel::platform::Coding {
public:
    std::string_view className() const override { return "OtherRecord"; }
    void encodeWithCoder(qel::platform::KeyedArchiver& coder) const override {
        coder.encodeString("a.test", "domain");
        coder.encodeInt32(1, "type");
        coder.encodeString("1.2.3.4", "ip");
        coder.encodeInt64(60, "ttl");
        coder.encodeInt64(1000, "lookupTime");
    }
};

class CacheManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("XDG_DATA_HOME", dir_.file("xdg").c_str(), 1);  // never the real home
        ASSERT_TRUE(UserDefaults::setStandardPath(storePath()));
    }

    std::string storePath() const { return dir_.file("defaults.sqlite3"); }
    static QelDNSCacheManager& cache() { return QelDNSCacheManager::shared(); }
    static UserDefaults& store() { return UserDefaults::standard(); }

    qel::test::ScratchDirectory dir_;
    qel::test::FakeClock clock_{1000.25};
};

}  // namespace

TEST_F(CacheManagerTest, MemoryHitHandsOutTheSavedListAndFiltersStrictly) {
    auto endsNow = record("10.0.0.1", 60, 940.25);  // lookupTime + ttl == now: dropped
    auto alive = record("10.0.0.2", 60, 940.5);
    auto old = record("10.0.0.3", 60, 900);
    const auto saved = list({endsNow, alive, old});
    cache().saveIPs(saved, "a.test_v4", false);

    EXPECT_EQ(cache().getIPsWithDomain("a.test_v4", true), saved);
    const auto fresh = cache().getIPsWithDomain("a.test_v4", false);
    ASSERT_TRUE(fresh);
    ASSERT_EQ(fresh->size(), 1u);
    EXPECT_EQ((*fresh)[0], alive) << "the filter keeps the records themselves";
    EXPECT_EQ(saved->size(), 3u);

    // Within the same second the filter already drops what isExpired still keeps.
    clock_.set(1000.7);
    const auto none = cache().getIPsWithDomain("a.test_v4", false);
    ASSERT_TRUE(none) << "all expired is an empty list, not a miss";
    EXPECT_TRUE(none->empty());
    EXPECT_FALSE(alive->isExpired());

    EXPECT_FALSE(store().data("a.test_v4")) << "cacheToDisk false writes nothing";
    EXPECT_FALSE(cache().getIPsWithDomain("b.test_v4", true));
}

TEST_F(CacheManagerTest, EmptyListInMemoryFallsBackToTheStoreOnEveryLookup) {
    const auto saved = list({record("10.0.0.1", 600, 1000.9)});
    cache().saveIPs(saved, "a.test_v4", true);
    cache().saveIPs(list({}), "a.test_v4", false);

    const auto first = cache().getIPsWithDomain("a.test_v4", true);
    ASSERT_TRUE(first);
    EXPECT_EQ(ips(first), std::vector<std::string>{"10.0.0.1"});
    EXPECT_EQ((*first)[0]->lookupTime(), 1000.0);
    const auto second = cache().getIPsWithDomain("a.test_v4", true);
    ASSERT_TRUE(second);
    EXPECT_NE((*second)[0], (*first)[0]) << "each miss decodes the stored entry again";
    EXPECT_TRUE(cache().dict().at("a.test_v4")->empty());
}

TEST_F(CacheManagerTest, SavingWithoutDiskLeavesTheEarlierPersistedEntry) {
    cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), "a.test_v4", true);
    const auto newer = list({record("10.0.0.2", 600, 1000)});
    cache().saveIPs(newer, "a.test_v4", false);
    EXPECT_EQ(cache().getIPsWithDomain("a.test_v4", true), newer);
    const auto persisted = cache().getCacheWithDomain("a.test_v4");
    ASSERT_TRUE(persisted);
    EXPECT_EQ(ips(persisted), std::vector<std::string>{"10.0.0.1"});
}

TEST_F(CacheManagerTest, OnlyListsSavedToDiskAreFoundByTheNextProcess) {
    // The writer is a separate process that ends before this one first touches the cache or
    // the store, so everything read below comes from the file.
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        QelDNSCacheManager& cache = QelDNSCacheManager::shared();
        cache.saveIPs(list({record("10.0.0.1", 600, 1000.9), record("10.0.0.2", 0, 1000.9)}),
                      "a.test_v4", true);
        cache.saveIPs(list({record("::1", 600, 1000.9)}), "b.test_v6", false);
        const bool inMemory = cache.getIPsWithDomain("b.test_v6", true) != nullptr;
        _exit(inMemory ? 0 : 3);
    }
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

    const auto found = cache().getIPsWithDomain("a.test_v4", true);
    ASSERT_TRUE(found);
    ASSERT_EQ(ips(found), (std::vector<std::string>{"10.0.0.1", "10.0.0.2"}));
    for (const auto& r : *found) {
        EXPECT_EQ(r->lookupTime(), 1000.0);
        EXPECT_EQ(r->domain(), "example.test");
        EXPECT_EQ(r->type(), 1);
    }
    EXPECT_EQ((*found)[0]->ttl(), 600);
    EXPECT_EQ(cache().dict().count("a.test_v4"), 0u);
    // Cut to whole seconds, the ttl-0 record now ends before the current time.
    EXPECT_EQ(ips(cache().getIPsWithDomain("a.test_v4", false)),
              std::vector<std::string>{"10.0.0.1"});
    EXPECT_FALSE(cache().getIPsWithDomain("b.test_v6", true));
}

TEST_F(CacheManagerTest, ClearForOneDomainRemovesItFromMemoryAndStoreOnly) {
    cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), "a.test_v4", true);
    cache().saveIPs(list({record("10.0.0.2", 600, 1000)}), "b.test_v4", true);
    cache().clearCacheForDomain("a.test_v4");
    cache().clearCacheForDomain("never.test_v4");
    EXPECT_FALSE(cache().getIPsWithDomain("a.test_v4", true));
    EXPECT_TRUE(cache().getIPsWithDomain("b.test_v4", true));
    EXPECT_EQ(store().allKeys(), std::vector<std::string>{"b.test_v4"});
}

TEST_F(CacheManagerTest, ClearAllRemovesEveryStoreKeyContainingASuffixAnywhere) {
    store().setString("my_v4_setting", "1");
    store().setData("prefs_v6", Data{1});
    store().setString("x_v6y", "1");
    store().setString("theme", "dark");
    store().setString("v4", "1");
    store().setString("a_V4", "1");
    store().setData("ipv6", Data{1});
    cache().saveIPs(list({record("10.0.0.1", 600, 1000)}), "a.test_v4", true);
    cache().saveIPs(list({record("::1", 600, 1000)}), "b.test_v6", true);
    cache().saveIPs(list({record("10.0.0.3", 600, 1000)}), "memory.test_v4", false);

    cache().clearAllCache();
    EXPECT_TRUE(cache().dict().empty());
    EXPECT_FALSE(cache().getIPsWithDomain("memory.test_v4", true));
    EXPECT_EQ(store().allKeys(), (std::vector<std::string>{"a_V4", "ipv6", "theme", "v4"}));
    EXPECT_EQ(store().string("theme"), "dark");
}

TEST_F(CacheManagerTest, ForeignValuesUnderCacheKeysReadAsNoRecordsAndStayPut) {
    const Data valid = *cache().archivedDataWithObjects(*list({record("10.0.0.1", 600, 1000)}));
    store().setData("noise.test_v4", qel::test::randomBytes(64, 3));
    store().setData("other.test_v4", *qel::platform::KeyedArchiver::archivedDataWithRootObjects(
                                         std::vector<std::shared_ptr<OtherRecord>>{
                                             std::make_shared<OtherRecord>()}));
    store().setData("truncated.test_v4", Data(valid.begin(), valid.end() - 1));
    store().setData("empty.test_v4", Data{});
    store().setString("text.test_v4", "10.0.0.1");
    store().setString("app_setting", "keep");
    const auto keys = store().allKeys();

    for (const std::string& key : keys) {
        if (key == "app_setting") continue;
        EXPECT_FALSE(cache().getIPsWithDomain(key, true)) << key;
        EXPECT_FALSE(cache().getIPsWithDomain(key, false)) << key;
    }
    EXPECT_EQ(store().allKeys(), keys);
    EXPECT_TRUE(cache().dict().empty());
}

namespace {

// What every damaged store must still allow: memory caching, no records from disk, no crash.
void expectMemoryOnlyCache(QelDNSCacheManager& cache) {
    const auto saved = list({record("10.0.0.1", 600, 1000)});
    cache.saveIPs(saved, "a.test_v4", true);
    EXPECT_EQ(cache.getIPsWithDomain("a.test_v4", true), saved);
    EXPECT_FALSE(cache.getCacheWithDomain("a.test_v4"));
    EXPECT_FALSE(cache.getIPsWithDomain("app.test_v4", true));
    cache.clearCacheForDomain("app.test_v4");
    cache.clearAllCache();
    EXPECT_FALSE(cache.getIPsWithDomain("a.test_v4", true));
}

}  // namespace

TEST_F(CacheManagerTest, FileThatIsNotADatabaseLeavesAMemoryOnlyCache) {
    qel::test::CapturingConsole console;
    const Data original = qel::test::randomBytes(10000, 5);
    qel::test::writeFileBytes(storePath(), original);
    expectMemoryOnlyCache(cache());
    EXPECT_EQ(qel::test::readFileBytes(storePath()), original);
    EXPECT_EQ(console.lines().size(), 1u);
}

TEST_F(CacheManagerTest, DamagedDatabaseLeavesAMemoryOnlyCacheAndTheFileAsItWas) {
    {
        qel::platform::SqliteUserDefaults app(storePath());
        for (int i = 0; i < 100; ++i) app.setString("app_v4_" + std::to_string(i), "x");
        app.setData("app.test_v4", *cache().archivedDataWithObjects(
                                       *list({record("10.0.0.9", 600, 1000)})));
    }
    qel::test::scrambleFileAfter(storePath(), 4096, 9);
    const Data damaged = qel::test::readFileBytes(storePath());
    qel::test::CapturingConsole console;
    expectMemoryOnlyCache(cache());
    EXPECT_EQ(qel::test::readFileBytes(storePath()), damaged);
    EXPECT_EQ(console.lines().size(), 1u);
}

TEST_F(CacheManagerTest, ConcurrentSaveGetAndClearNeverExposeAMixedList) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 150;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            QelDNSCacheManager& cache = QelDNSCacheManager::shared();
            for (int i = 0; i < kRounds; ++i) {
                const std::string key = "d" + std::to_string(i % 3) + ".test_v4";
                const std::string ip = std::to_string(t) + "." + std::to_string(i);
                cache.saveIPs(list({record(ip, 600, 1000), record(ip, 600, 1000),
                                    record(ip, 600, 1000)}),
                              key, i % 3 == 0);
                for (bool expired : {true, false}) {
                    const auto found = cache.getIPsWithDomain(key, expired);
                    if (!found) continue;  // another thread cleared it
                    ASSERT_EQ(found->size(), 3u);
                    for (const auto& r : *found) EXPECT_EQ(r->ip(), (*found)[0]->ip());
                }
                if (i % 40 == t) cache.clearAllCache();
                if (i % 25 == t) cache.clearCacheForDomain(key);
                if (i % 30 == 0) {
                    EXPECT_LE(cache.dict().size(), 3u);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& key : store().allKeys()) {
        const auto persisted = cache().getCacheWithDomain(key);
        ASSERT_TRUE(persisted) << key;
        EXPECT_EQ(persisted->size(), 3u);
    }
}
