// The cache at scale, N = 1 000, 4 096, 100 000 and 1 000 000 names of 40 characters with two
// IPv4 records each, against bare baselines measured in the same run:
//   random hit of getIPV4ByDomain over N cached names   vs  a std::unordered_map find and copy
//   filling the memory cache (saveIPs)                  vs  filling it and the store
//   a hit found only in the store (every name after a restart)  vs  a memory hit
//   heap bytes per cached name
//   resident memory while 1 000 000 new names are read and saved, with a bound of 100 000 and
//   without; the store's file while names that expired are saved, with a maximum age and without
// The ratios are printed after the table.
//
//   build/release/bench/cache_scale_bench
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BenchMain.h"
#include "BenchSdk.h"
#include "QelHttpDnsSDK/Extras/QelDNSCacheProfile.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/FakeReachability.h"
#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

namespace {

using Ips = std::optional<std::vector<std::string>>;
using qel::bench::divide;
using qel::bench::MedianReporter;
using qel::bench::printRatio;

constexpr int kSizes[] = {1000, 4096, 100000, 1000000};
constexpr int kStoreNames = 20000;  // the store part: SQLite writes are per name

// 40 characters: "n0000042.scale-benchmark.example.test.x" and so on.
std::string nameOf(int i) {
    char name[48];
    std::snprintf(name, sizeof name, "n%07d.scale-benchmark.example.test.xx", i);
    return name;
}

QelDNSIPModelListRef listOf(int i, double lookupTime = 4e9, int64_t ttl = 3600) {
    QelDNSIPModelList records;
    for (int r = 0; r < 2; ++r) {
        auto record = std::make_shared<QelDNSIPModel>();
        record->setDomain(nameOf(i));
        record->setType(1);
        record->setIp("10." + std::to_string(i % 250) + "." + std::to_string(i / 250 % 250) + "." +
                      std::to_string(r + 1));
        record->setTtl(ttl);
        record->setLookupTime(lookupTime);  // by default alive for the whole run
        records.push_back(std::move(record));
    }
    return std::make_shared<const QelDNSIPModelList>(std::move(records));
}

// The public manager logged in to a service on loopback, so that a lookup reaches the cache.
struct Fixture {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::ResolutionService service{"acct", "secret", "com.example.scale"};
    std::vector<std::string> names;
    std::vector<int> order;  // random indexes, the same for every N (taken modulo N)
    int filled = 0;          // the N the memory cache holds now

    Fixture() {
        qel::platform::Console::setSink([](const std::string&) {});
        qel::platform::MainBundle::setIdentifier("com.example.scale");
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        qel::bench::logInAndWarm(service.baseUrl(), "acct", "secret");
        for (int i = 0; i < kSizes[3]; ++i) names.push_back(nameOf(i));
        std::mt19937 random(7);
        order.resize(1 << 16);
        for (int& index : order) index = static_cast<int>(random() & 0x7fffffff);
    }

    // The memory cache and the bare map hold exactly the first n names, made in turn so that
    // both live in the same state of the heap.
    void fill(int n) {
        if (filled == n) return;
        QelDNSCacheManager& cache = QelDNSCacheManager::shared();
        cache.setDict({});
        bare = {};  // as the cache's table, new
        bare.reserve(n);
        for (int i = 0; i < n; ++i) {
            cache.saveIPs(listOf(i), names[i] + "_v4", false);
            bare.emplace(names[i] + "_v4", std::vector<std::string>{"10.0.0.1", "10.0.0.2"});
        }
        filled = n;
    }
    std::unordered_map<std::string, std::vector<std::string>> bare;
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}

// Looks the first n names up in random order; every lookup must be a cache hit.
void lookUpAtRandom(benchmark::State& state, int n) {
    Fixture& f = fixture();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    std::vector<std::optional<std::string>> asked;
    for (int index : f.order) asked.emplace_back(f.names[index % n]);
    size_t next = 0;
    int64_t hits = 0;
    for (auto _ : state) {
        dns.getIPV4ByDomain(asked[next++ & 0xffff], [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

void BM_Hit_RandomOfN(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Fixture& f = fixture();
    f.fill(n);
    lookUpAtRandom(state, n);
}

void BM_BareMap_RandomOfN(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    Fixture& f = fixture();
    f.fill(n);
    const auto& map = f.bare;
    size_t next = 0;
    for (auto _ : state) {
        // The key is built as a lookup builds it, from the name asked.
        const std::string key = f.names[f.order[next++ & 0xffff] % n] + "_v4";
        Ips ips;
        if (const auto found = map.find(key); found != map.end()) ips = found->second;
        benchmark::DoNotOptimize(ips);
    }
}

// Saves kStoreNames names, range(0) 0 in memory only, 1 in memory and the store; per name.
void BM_Fill(benchmark::State& state) {
    const bool toStore = state.range(0) != 0;
    Fixture& f = fixture();
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    for (auto _ : state) {
        for (int i = 0; i < kStoreNames; ++i) cache.saveIPs(listOf(i), f.names[i] + "_v4", toStore);
    }
    // The store's thread writes the batches later; done now, they do not share the cores with
    // the next benchmark.
    qel::platform::UserDefaults::standard().synchronize();
    f.filled = -1;
    state.SetItemsProcessed(state.iterations() * kStoreNames);
}

// A hit of a name the store holds and memory does not (range(0) 1), against a memory hit (0).
void BM_StoreHit(benchmark::State& state) {
    const bool storeOnly = state.range(0) != 0;
    Fixture& f = fixture();
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    static const bool stored = [&] {
        for (int i = 0; i < kStoreNames; ++i) cache.saveIPs(listOf(i), f.names[i] + "_v4", true);
        return qel::platform::UserDefaults::standard().synchronize();
    }();
    (void)stored;
    if (storeOnly) {
        cache.setDict({});
        f.filled = 0;
    } else {
        f.fill(kStoreNames);
    }
    lookUpAtRandom(state, kStoreNames);
}

BENCHMARK(BM_Hit_RandomOfN)->ArgName("names")->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2])->Arg(kSizes[3]);
BENCHMARK(BM_BareMap_RandomOfN)->ArgName("names")->Arg(kSizes[0])->Arg(kSizes[1])->Arg(kSizes[2])->Arg(kSizes[3]);
BENCHMARK(BM_Fill)->ArgName("store")->Arg(0)->Arg(1)->Iterations(1);
BENCHMARK(BM_StoreHit)->ArgName("storeOnly")->Arg(0)->Arg(1);

// Heap bytes per name of a memory cache of n names, filled through saveIPs.
double bytesPerName(int n) {
    Fixture& f = fixture();
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    cache.setDict({});
    f.filled = -1;
    malloc_trim(0);
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < n; ++i) cache.saveIPs(listOf(i), f.names[i] + "_v4", false);
    const size_t after = mallinfo2().uordblks;
    return double(after - before) / n;
}

size_t residentKiB() {
    long pages = 0, resident = 0;
    if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// A miss's way through the cache for 1 000 000 names never seen before (a read that finds
// nothing, then the answer saved in memory and the store), with at most `bound` names kept
// (0: no bound). Run in a child process of its own, before anything else, so that the figures
// are this part's alone.
void printResidentWhileBounded(int bound) {
    qel::test::ScratchDirectory scratch;
    qel::platform::Console::setSink([](const std::string&) {});
    qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    cache.setMaxLists(static_cast<size_t>(bound));
    std::printf("resident memory, 1 000 000 new names, at most %d kept (0: no bound): %zu KiB at start\n",
                bound, residentKiB());
    QelDNSCacheManager::Addresses found;
    for (int i = 0; i < kSizes[3]; ++i) {
        const std::string key = nameOf(i) + "_v4";
        if (cache.readAddresses(key, false, found)) std::printf("  unexpected hit\n");
        cache.saveIPs(listOf(i), key, true);
        if ((i + 1) % 100000 == 0) std::printf("  %7d names  %7zu KiB\n", i + 1, residentKiB());
    }
    qel::platform::UserDefaults::standard().synchronize();
    std::fflush(stdout);
}

// Rounds of 20 000 new names whose records expired long ago, saved to the store, with a
// maximum age of 1 s (0: none): the size of the store's file after each round and a pass.
void printStoreSizeWithMaximumAge(int maxAge) {
    qel::test::ScratchDirectory scratch;
    qel::platform::Console::setSink([](const std::string&) {});
    const std::string path = scratch.file("defaults.sqlite3");
    qel::platform::UserDefaults::setStandardPath(path);
    QelDNSCacheProfile::enable({0, static_cast<double>(maxAge), 0, false});
    std::printf("store file, rounds of 20 000 new names, maximum age %d s (0: none):", maxAge);
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    for (int round = 0, next = 0; round < 6; ++round) {
        for (int i = 0; i < 20000; ++i, ++next) {
            cache.saveIPs(listOf(next, qel::platform::Clock::currentTime() - 100, 1), nameOf(next) + "_v4", true);
        }
        qel::platform::UserDefaults::standard().synchronize();
        std::this_thread::sleep_for(std::chrono::milliseconds(4000));  // a pass, and its batches
        std::printf(" %.1f", static_cast<double>(std::filesystem::file_size(path)) / 1e6);
    }
    std::printf(" MB\n");
    std::fflush(stdout);
}

template <typename Part>
void runInChild(Part part) {
    const pid_t child = fork();
    if (child == 0) {
        part();
        _exit(0);
    }
    int status = 0;
    if (child > 0) waitpid(child, &status, 0);
}

void report(const MedianReporter& medians) {
    for (int n : kSizes) {
        const std::string arg = "/names:" + std::to_string(n);
        printRatio(("random hit over " + std::to_string(n) + " names / bare map:").c_str(),
                   divide(medians.seconds("BM_Hit_RandomOfN" + arg),
                          medians.seconds("BM_BareMap_RandomOfN" + arg)),
                   "<= 2x");
    }
    const auto memoryFill = medians.seconds("BM_Fill/store:0");
    const auto storeFill = medians.seconds("BM_Fill/store:1");
    if (memoryFill && storeFill) {
        std::printf("%-58s %6.2f us and %.2f us per name\n",
                    "fill, memory only and memory and store:", *memoryFill / kStoreNames * 1e6,
                    *storeFill / kStoreNames * 1e6);
    }
    printRatio("fill, memory and store / memory only:", divide(storeFill, memoryFill));
    printRatio("hit found only in the store / memory hit:",
               divide(medians.seconds("BM_StoreHit/storeOnly:1"),
                      medians.seconds("BM_StoreHit/storeOnly:0")));
    for (int n : kSizes) {
        std::printf("%-58s %6.0f B  (target <= 400 B)\n",
                    ("memory per cached name, " + std::to_string(n) + " names:").c_str(),
                    bytesPerName(n));
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Before any thread exists: the children fork a process with none.
    for (int bound : {100000, 0}) runInChild([bound] { printResidentWhileBounded(bound); });
    for (int maxAge : {1, 0}) runInChild([maxAge] { printStoreSizeWithMaximumAge(maxAge); });
    fixture();
    const int status = qel::bench::run(argc, argv, report, 5);
    std::filesystem::remove_all(fixture().scratch.path());
    return status;
}
