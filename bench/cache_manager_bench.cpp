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

// Keeps each benchmark's time per iteration so the ratios can be printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With --benchmark_repetitions the median stands for the benchmark.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Iteration && !nanos_.count(run.run_name.str())) {
                nanos_[run.run_name.str()] = run.GetAdjustedRealTime();
            } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                nanos_[run.run_name.str()] = run.GetAdjustedRealTime();
            }
        }
    }

    void printRatios() const {
        auto ratio = [&](const char* name, const char* baseline, const char* target) {
            const auto a = nanos_.find(name);
            const auto b = nanos_.find(baseline);
            if (a == nanos_.end() || b == nanos_.end()) return;
            std::printf("%-32s / %-28s = %5.2fx  (target %s)\n", name, baseline,
                        a->second / b->second, target);
        };
        ratio("BM_MemoryHit/expired:1", "BM_BareUnorderedMapLookup", "<= 5x");
        ratio("BM_MemoryHit/expired:0", "BM_BareUnorderedMapLookup", "<= 5x");
        ratio("BM_PersistedRead/expired:1", "BM_BareSqlitePointQuery", "<= 2x");
        ratio("BM_PersistedRead/expired:0", "BM_BareSqlitePointQuery", "<= 2x");
    }

private:
    std::map<std::string, double> nanos_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    fixture();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    std::filesystem::remove_all(fixture().dir);
    return 0;
}
