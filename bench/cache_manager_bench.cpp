// The cache manager against bare baselines measured in the same run:
//   memory hit of getIPsWithDomain     vs  a std::unordered_map lookup of the same list
//   persisted read on a memory miss    vs  a bare SQLite point query of the same blob
//   saveIPs with cacheToDisk (a committed SQLite write, no flush to disk)
// The ratios are printed after the table.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchMain.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"

namespace {

constexpr int kKeys = 1000;
constexpr int kRecordsPerList = 2;

std::string keyOf(int i) { return "host" + std::to_string(i) + ".example.test_v4"; }

QelDNSIPModelListRef makeList(int i) {
    QelDNSIPModelList records;
    for (int r = 0; r < kRecordsPerList; ++r) {
        auto record = std::make_shared<QelDNSIPModel>();
        record->setDomain("host" + std::to_string(i) + ".example.test");
        record->setType(1);
        record->setIp("10.0." + std::to_string(i % 250) + "." + std::to_string(r + 1));
        record->setTtl(3600);
        record->setLookupTime(4e9);  // alive for the whole run
        records.push_back(std::move(record));
    }
    return std::make_shared<const QelDNSIPModelList>(std::move(records));
}

struct Fixture {
    std::string dir;
    std::string path;
    std::unordered_map<std::string, QelDNSIPModelListRef> bareMap;

    // Kept for the life of the process (the shared cache holds its lists); main removes
    // the directory.
    Fixture() {
        char pattern[] = "/tmp/qel-bench-XXXXXX";
        dir = mkdtemp(pattern);
        path = dir + "/defaults.sqlite3";
        qel::platform::UserDefaults::setStandardPath(path);
        QelDNSCacheManager& cache = QelDNSCacheManager::shared();
        for (int i = 0; i < kKeys; ++i) {
            auto list = makeList(i);
            cache.saveIPs(list, keyOf(i), false);
            bareMap.emplace(keyOf(i), list);
        }
        // Persisted only: every lookup of this key misses memory and reads the store.
        cache.saveCaches(*makeList(kKeys), "persisted.example.test_v4");
    }
};

Fixture& fixture() {
    static Fixture* f = new Fixture();
    return *f;
}

void BM_MemoryHit(benchmark::State& state) {
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    const std::string key = keyOf(417);
    const bool expired = state.range(0) != 0;
    for (auto _ : state) benchmark::DoNotOptimize(cache.getIPsWithDomain(key, expired));
}

void BM_BareUnorderedMapLookup(benchmark::State& state) {
    const auto& map = fixture().bareMap;
    const std::string key = keyOf(417);
    for (auto _ : state) {
        QelDNSIPModelListRef found;
        if (auto it = map.find(key); it != map.end()) found = it->second;
        benchmark::DoNotOptimize(found);
    }
}

// The filter must read the clock once per lookup; this is that read alone.
void BM_ClockRead(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(qel::platform::Clock::currentTime());
}

void BM_PersistedRead(benchmark::State& state) {
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    const std::string key = "persisted.example.test_v4";
    const bool expired = state.range(0) != 0;
    for (auto _ : state) {
        auto found = cache.getIPsWithDomain(key, expired);
        if (!found || found->size() != kRecordsPerList) state.SkipWithError("no persisted list");
        benchmark::DoNotOptimize(found);
    }
}

void BM_BareSqlitePointQuery(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(fixture().path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT value FROM user_defaults WHERE key = ?1", -1, &select, nullptr);
    const std::string key = "persisted.example.test_v4";
    for (auto _ : state) {
        sqlite3_bind_text(select, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        if (sqlite3_step(select) != SQLITE_ROW) state.SkipWithError("no row");
        benchmark::DoNotOptimize(sqlite3_column_blob(select, 0));
        benchmark::DoNotOptimize(sqlite3_column_bytes(select, 0));
        sqlite3_reset(select);
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
}

void BM_SaveToDisk(benchmark::State& state) {
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    std::vector<QelDNSIPModelListRef> lists;
    for (int i = 0; i < 64; ++i) lists.push_back(makeList(i));
    size_t i = 0;
    for (auto _ : state) {
        cache.saveIPs(lists[i % lists.size()], keyOf(static_cast<int>(i % kKeys)), true);
        ++i;
    }
}

BENCHMARK(BM_BareUnorderedMapLookup);
BENCHMARK(BM_MemoryHit)->ArgName("expired")->Arg(1)->Arg(0);
BENCHMARK(BM_ClockRead);
BENCHMARK(BM_BareSqlitePointQuery);
BENCHMARK(BM_PersistedRead)->ArgName("expired")->Arg(1)->Arg(0);
BENCHMARK(BM_SaveToDisk);

}  // namespace

int main(int argc, char** argv) {
    fixture();
    const int status = qel::bench::run(argc, argv, [](const qel::bench::MedianReporter& medians) {
        using qel::bench::divide;
        using qel::bench::printRatio;
        const auto map = medians.seconds("BM_BareUnorderedMapLookup");
        const auto sqlite = medians.seconds("BM_BareSqlitePointQuery");
        printRatio("memory hit, expired / bare unordered_map:",
                   divide(medians.seconds("BM_MemoryHit/expired:1"), map), "<= 5x");
        printRatio("memory hit, fresh / bare unordered_map:",
                   divide(medians.seconds("BM_MemoryHit/expired:0"), map), "<= 5x");
        printRatio("store read, expired / bare SQLite query:",
                   divide(medians.seconds("BM_PersistedRead/expired:1"), sqlite), "<= 2x");
        printRatio("store read, fresh / bare SQLite query:",
                   divide(medians.seconds("BM_PersistedRead/expired:0"), sqlite), "<= 2x");
    });
    std::filesystem::remove_all(fixture().dir);
    return status;
}
