// The public manager as an application meets it, QelHttpDnsManager::shared() registered with
// a signature-checking resolution service on loopback (network status faked as up), against
// bare baselines measured in the same run:
//   cache hit of getIPV4ByDomain        vs  a std::unordered_map find and copy of the same list
//   the same hit with a trace observer  vs  without one (added nanoseconds)
//   the same hit                        vs  getaddrinfo("localhost") (/etc/hosts, no DNS)
//   hits from 2 threads                 vs  1 thread, in aggregate throughput
//   hits over 64 and 4096 cached names  vs  a std::unordered_map of as many, round-robin and
//                                           in random order
//   the same hit, resilience profile on  vs  off
//   100 concurrent misses of one name   resilience profile on (one request) vs off
//   miss answered by the service        vs  a bare reused libcurl GET of the same URL
//   bytes in memory per cached domain with two addresses
// The ratios are printed after the table.
//
//   build/release/bench/public_manager_bench
//
// A miss is timed from the call to the moment its callback runs on the platform thread, the
// bare GET to the moment curl returns (manual timing): the benchmark thread's own wake-up is
// the harness's cost, not the library's.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <malloc.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BenchMain.h"
#include "BenchSdk.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "BareCurlGet.h"
#include "support/FakeReachability.h"
#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

using Clock = std::chrono::steady_clock;
using Ips = std::optional<std::vector<std::string>>;

namespace {

using qel::bench::divide;
using qel::bench::MedianReporter;
using qel::bench::printRatio;

constexpr char kId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kApp[] = "com.example.app";
constexpr char kHitDomain[] = "www.hit.example.test";
constexpr char kMissDomain[] = "www.miss.example.test";
const std::vector<std::string> kAddresses = {"192.0.2.1", "192.0.2.2"};
constexpr int kMemoryDomains = 3000;
using Answer = qel::bench::TimedAnswer;


// Never destroyed: the manager it sets up lives for the process, and its sources and requests
// refer to the fake network and the service. main removes the scratch directory.
// The real rtnetlink monitor when this machine has a default route, as an application runs;
// a fake reachable network otherwise (a sandbox without one would refuse every lookup).
bool hasDefaultRoute() {
    std::ifstream routes("/proc/net/route");
    std::string name, destination, rest;
    std::getline(routes, rest);  // header
    while (routes >> name >> destination && std::getline(routes, rest)) {
        if (destination == "00000000") return true;
    }
    return false;
}

struct Fixture {
    std::optional<qel::test::FakeReachabilityFactory> network =
        hasDefaultRoute() ? std::nullopt
                          : std::optional<qel::test::FakeReachabilityFactory>(
                                std::in_place, qel::platform::ReachabilityFlags::Reachable);
    qel::test::ScratchDirectory scratch;
    qel::test::ResolutionService service{kId, kSecret, kApp};

    Fixture() {
        qel::platform::Console::setSink([](const std::string&) {});
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        service.setAddresses(kHitDomain, kAddresses);
        service.setAddresses(kMissDomain, kAddresses);
        for (int i = 0; i < kMemoryDomains; ++i) {
            for (bool longName : {false, true})
                service.setAddresses(memoryDomain(i, longName), kAddresses);
        }

        QelHttpDnsManager& dns = QelHttpDnsManager::shared();
        dns.customServerUrl(service.baseUrl());
        dns.registerAuthId(std::string(kId), std::string(kSecret));
        for (int i = 0; i < 2000 && dns.initStatus() != 4; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (dns.initStatus() != 4) fail("the login did not succeed");
        dns.enableCacheIP(true);
        // The first lookups store under the suffix of the type before them; once a type-1
        // lookup has gone before, every type-1 lookup of the domain hits.
        for (int i = 0; i < 3 && !lookUp(kHitDomain); ++i) {}
        if (!lookUp(kHitDomain)) fail("a cached domain was not answered on the calling thread");
    }

    /// 9 to 12 characters, which std::string keeps inline, or 18 to 21, which it allocates.
    static std::string memoryDomain(int i, bool longName) {
        return (longName ? "host" : "h") + std::to_string(i) +
               (longName ? ".example.test" : ".ex.com");
    }

    /// Looks `domain` up and waits for the addresses; true when they came before the call
    /// returned.
    static bool lookUp(const std::string& domain) {
        Answer answer(kAddresses);
        QelHttpDnsManager::shared().getIPV4ByDomain(
            domain, [&answer](std::optional<QelDNSError>, Ips ips) { answer.set(ips); });
        const bool synchronous = answer.answered();
        if (!answer.wait()) fail(("no addresses for " + domain).c_str());
        return synchronous;
    }

    [[noreturn]] static void fail(const char* what) {
        std::fprintf(stderr, "public_manager_bench: %s\n", what);
        std::exit(1);
    }
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}

// ---------------------------------------------------------------------- hits

void BM_Hit_getIPV4ByDomain(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    int64_t hits = 0;
    for (auto _ : state) {
        dns.getIPV4ByDomain(domain, [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    // Every answer ran before its call returned, with both addresses.
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

// The same hit with a trace observer installed that only counts the traces.
void BM_Hit_getIPV4ByDomain_Traced(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    int64_t hits = 0;
    auto traces = std::make_shared<std::atomic<int64_t>>(0);
    QelDNSTraceObserver::install([traces](const QelDNSLookupTrace& trace) {
        if (trace.source == QelDNSLookupTrace::Source::Memory) {
            traces->fetch_add(1, std::memory_order_relaxed);
        }
    });
    for (auto _ : state) {
        dns.getIPV4ByDomain(domain, [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    QelDNSTraceObserver::remove();
    if (hits != state.iterations() || traces->load() != hits) {
        state.SkipWithError("a lookup missed the cache or was not traced");
    }
}

// The same hit through the resilience profile, which reads the lookup's own key.
void BM_Hit_getIPV4ByDomain_Resilient(benchmark::State& state) {
    QelDNSResilience::enable();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    Fixture::lookUp(kHitDomain);  // the own key may not be stored yet
    int64_t hits = 0;
    for (auto _ : state) {
        dns.getIPV4ByDomain(domain, [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    QelDNSResilience::disable();
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

// Requests the service received per batch of 100 concurrent misses, by profile (off, on).
double requestsPerBatch[2] = {0, 0};

// 100 lookups of one name not in the cache, made at once, until every one is answered.
// range(0): the resilience profile off (each miss sends its own request) or on (one request).
void BM_Misses_100Concurrent(benchmark::State& state) {
    const bool resilient = state.range(0) != 0;
    if (resilient) QelDNSResilience::enable();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kMissDomain;
    auto answered = std::make_shared<std::atomic<int>>(0);
    const size_t before = fixture().service.resolvedHosts().size();
    for (auto _ : state) {
        state.PauseTiming();
        QelDNSCacheManager::shared().clearCacheForDomain(std::string(kMissDomain) + "_v4");
        answered->store(0);
        state.ResumeTiming();
        for (int i = 0; i < 100; ++i) {
            dns.getIPV4ByDomain(domain,
                                [answered](std::optional<QelDNSError>, Ips) { ++*answered; });
        }
        while (answered->load() < 100) std::this_thread::yield();
    }
    if (resilient) QelDNSResilience::disable();
    requestsPerBatch[resilient] =
        double(fixture().service.resolvedHosts().size() - before) / double(state.iterations());
    state.counters["requests"] = requestsPerBatch[resilient];
}

void BM_BareMap_FindAndCopy(benchmark::State& state) {
    static const auto* const map = [] {
        auto* made = new std::unordered_map<std::string, std::vector<std::string>>();
        (*made)[std::string(kHitDomain) + "_v4"] = kAddresses;
        (*made)[std::string(kMissDomain) + "_v4"] = kAddresses;
        return made;
    }();
    const std::string key = std::string(kHitDomain) + "_v4";
    for (auto _ : state) {
        Ips ips;
        if (const auto found = map->find(key); found != map->end()) ips = found->second;
        benchmark::DoNotOptimize(ips);
    }
}

void BM_Getaddrinfo_Localhost(benchmark::State& state) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    for (auto _ : state) {
        addrinfo* found = nullptr;
        if (getaddrinfo("localhost", nullptr, &hints, &found) != 0 || !found) {
            state.SkipWithError("localhost did not resolve");
            break;
        }
        freeaddrinfo(found);
    }
}

// The steps of a hit, each alone, to show where its time goes: the checks before the cache,
// then the resolver's part (pending lookup, key, cache, addresses, callback), and within it
// the cache manager's.

void BM_Step_CheckDomainIsValid(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    for (auto _ : state) benchmark::DoNotOptimize(dns.checkDomainIsValid(domain));
}

void BM_Step_CheckNetworkAvailable(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    for (auto _ : state) benchmark::DoNotOptimize(dns.checkNetworkAvailable());
}

void BM_Step_ResolverHit(benchmark::State& state) {
    QelHttpDnsCenterManager& resolver = QelHttpDnsCenterManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    int64_t hits = 0;
    for (auto _ : state) {
        resolver.getIPsWithDomain(domain, 1, [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

// As the resolver reads the cache on a hit.
void BM_Step_CacheManagerHit(benchmark::State& state) {
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    const std::string key = std::string(kHitDomain) + "_v4";
    size_t records = 0;
    for (auto _ : state) {
        cache.readIPsWithDomain(
            key, false, [&records](const QelDNSIPModelListRef& ips) { records += ips->size(); });
    }
    if (records != 2 * static_cast<size_t>(state.iterations())) state.SkipWithError("not a hit");
}

// ---------------------------------------------------------------------- hits over many names

// `count` names, each cached in memory with two addresses under its "_v4" key, and the order
// to ask them in: each in turn, or a fixed random sequence.
struct ManyNames {
    std::vector<std::optional<std::string>> names;
    std::vector<uint32_t> order;  // a power of two long

    ManyNames(int count, bool random) {
        QelDNSCacheManager& cache = QelDNSCacheManager::shared();
        for (int i = 0; i < count; ++i) {
            names.push_back("n" + std::to_string(i) + ".names.example.test");
            auto records = std::make_shared<QelDNSIPModelList>();
            for (const std::string& ip : kAddresses) {
                auto record = std::make_shared<QelDNSIPModel>();
                record->setDomain(names.back());
                record->setIp(ip);
                record->setTtl(86400);
                record->setLookupTime(qel::platform::Clock::currentTime());
                records->push_back(record);
            }
            cache.saveIPs(records, *names.back() + "_v4", false);
        }
        std::mt19937 shuffle(7);
        order.resize(1 << 16);
        for (size_t i = 0; i < order.size(); ++i) {
            order[i] = static_cast<uint32_t>(random ? shuffle() % count : i % count);
        }
    }

    static const ManyNames& get(int count, bool random) {
        static std::map<std::pair<int, bool>, ManyNames*> made;
        auto& entry = made[{count, random}];
        if (!entry) entry = new ManyNames(count, random);
        return *entry;
    }
};

// range(0) names, range(1) 0 round-robin or 1 random.
void BM_Hit_ManyNames(benchmark::State& state) {
    const ManyNames& many = ManyNames::get(static_cast<int>(state.range(0)), state.range(1) != 0);
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const size_t mask = many.order.size() - 1;
    size_t next = 0;
    int64_t hits = 0;
    for (auto _ : state) {
        dns.getIPV4ByDomain(
            many.names[many.order[next++ & mask]],
            [&hits](std::optional<QelDNSError>, Ips ips) { hits += ips && ips->size() == 2; });
    }
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

void BM_BareMap_ManyNames(benchmark::State& state) {
    const ManyNames& many = ManyNames::get(static_cast<int>(state.range(0)), state.range(1) != 0);
    std::unordered_map<std::string, std::vector<std::string>> map;
    for (const auto& name : many.names) map[*name + "_v4"] = kAddresses;
    const size_t mask = many.order.size() - 1;
    size_t next = 0;
    for (auto _ : state) {
        // The key is built as a lookup builds it, from the name asked.
        const std::string key = *many.names[many.order[next++ & mask]] + "_v4";
        Ips ips;
        if (const auto found = map.find(key); found != map.end()) ips = found->second;
        benchmark::DoNotOptimize(ips);
    }
}

BENCHMARK(BM_Hit_ManyNames)
    ->ArgNames({"names", "random"})
    ->ArgsProduct({{64, 4096}, {0, 1}})
    ->UseRealTime();
BENCHMARK(BM_BareMap_ManyNames)
    ->ArgNames({"names", "random"})
    ->ArgsProduct({{64, 4096}, {0, 1}})
    ->UseRealTime();

BENCHMARK(BM_Step_CheckDomainIsValid)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Step_CheckNetworkAvailable)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Step_ResolverHit)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Step_CacheManagerHit)->ThreadRange(1, 2)->UseRealTime();

// ---------------------------------------------------------------------- misses

// The lookup's GET of the miss domain, made once, signed as the library signs it and checked
// by the service.
struct BareGet {
    const double timestamp = qel::platform::Clock::currentTime() * 1000.0;
    qel::bench::BareCurlGet get{
        fixture().service.baseUrl() + "/" + kId +
            "/resolve?timestamp=" + std::to_string(static_cast<int64_t>(timestamp)) +
            "&host=" + kMissDomain + "&type=1&app_id=" + kApp,
        "MD5 " + QelDNSGetIPs::calcSignWithAuthSecret(std::string(kSecret), timestamp,
                                                      std::string(kMissDomain), 1)};
    CURL* easy = get.easy();

    /// Whether the last GET brought the addresses (the body is the service's JSON answer).
    bool answered() {
        const std::string body = get.takeBody();
        return get.status() == 200 && body.find(kAddresses[0]) != std::string::npos &&
               body.find(kAddresses[1]) != std::string::npos;
    }
};

void BM_Miss_BareCurl(benchmark::State& state) {
    BareGet get;
    int failures = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const CURLcode result = curl_easy_perform(get.easy);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (result != CURLE_OK || !get.answered()) ++failures;
    }
    if (failures) state.SkipWithError("requests failed");
    if (fixture().service.badSignatures() != 0)
        state.SkipWithError("a signature did not check out");
}

// range(0) 0: caching off, every lookup asks the service. 1: caching on, the domain's entry
// cleared (outside the timing) before each lookup, so each one also reads the store and then
// stores the answer in memory and in the store.
void BM_Miss_getIPV4ByDomain(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const bool cached = state.range(0) != 0;
    const std::optional<std::string> domain = kMissDomain;
    const std::string key = std::string(kMissDomain) + "_v4";
    static Answer answer(kAddresses);  // outlives a late callback of the last lookup
    int failures = 0;
    dns.enableCacheIP(cached);
    for (auto _ : state) {
        if (cached) QelDNSCacheManager::shared().clearCacheForDomain(key);
        answer.reset();
        const auto start = Clock::now();
        dns.getIPV4ByDomain(domain, [](std::optional<QelDNSError>, Ips ips) { answer.set(ips); });
        if (!answer.wait()) ++failures;
        state.SetIterationTime(answer.secondsSince(start));
    }
    dns.enableCacheIP(true);
    if (failures) state.SkipWithError("lookups failed");
    if (fixture().service.badSignatures() != 0)
        state.SkipWithError("a signature did not check out");
}

BENCHMARK(BM_BareMap_FindAndCopy)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Hit_getIPV4ByDomain)->ThreadRange(1, 2)->UseRealTime();
BENCHMARK(BM_Hit_getIPV4ByDomain_Traced)->UseRealTime();
BENCHMARK(BM_Hit_getIPV4ByDomain_Resilient)->UseRealTime();
BENCHMARK(BM_Misses_100Concurrent)->ArgName("resilient")->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_Getaddrinfo_Localhost)->UseRealTime();
BENCHMARK(BM_Miss_BareCurl)->UseManualTime();
BENCHMARK(BM_Miss_getIPV4ByDomain)->ArgName("cacheIP")->Arg(0)->Arg(1)->UseManualTime();

// ---------------------------------------------------------------------- memory

// Heap bytes in use (glibc's count over every arena: the chunks, headers included).
size_t heapInUse() { return mallinfo2().uordblks; }

// Looks up kMemoryDomains new domains through the manager, each stored from the service's
// answer, then empties the memory cache: what that releases, per domain, is what an entry holds
// (the dictionary's node and key, the list's one block).
double bytesPerCachedDomain(bool longNames) {
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    cache.setDict({});
    for (int i = 0; i < kMemoryDomains; ++i) Fixture::lookUp(Fixture::memoryDomain(i, longNames));
    // Every lookup of the run is of type 1, so each domain has one entry, under "_v4". The copy
    // that counts them makes record objects, freed before the heap is read.
    if (cache.dict().size() != static_cast<size_t>(kMemoryDomains)) {
        Fixture::fail("the lookups did not leave one entry per domain");
    }
    const size_t filled = heapInUse();
    cache.setDict({});
    const size_t emptied = heapInUse();
    Fixture::lookUp(kHitDomain);  // cached again, as before
    return static_cast<double>(filled - emptied) / kMemoryDomains;
}

// ---------------------------------------------------------------------- report

void printBytes(const char* names, double bytes) {
    std::printf("memory per cached domain, two addresses, %-17s %8.0f B  (target <= 512 B)\n",
                names, bytes);
}

// What the medians say, after the table.
void report(const MedianReporter& medians) {
    const double shortNames = bytesPerCachedDomain(false);
    const double longNames = bytesPerCachedDomain(true);

    std::printf("Network monitoring: %s\n", fixture().network
                                                ? "a fake reachable network (no default route here)"
                                                : "the real rtnetlink monitor");
    const auto hit = medians.seconds("BM_Hit_getIPV4ByDomain");
    printRatio("hit / bare map find and copy:",
               divide(hit, medians.seconds("BM_BareMap_FindAndCopy")), "<= 10x");
    // On a shared machine the real time also counts the waits for a core; the CPU time does not.
    if (const auto traced = medians.seconds("BM_Hit_getIPV4ByDomain_Traced"); traced && hit) {
        std::printf("%-58s %+8.1f ns  (target <= +100 ns)\n",
                    "hit with a trace observer - hit without, real time:", (*traced - *hit) * 1e9);
        const auto tracedCpu = medians.cpuSeconds("BM_Hit_getIPV4ByDomain_Traced");
        const auto hitCpu = medians.cpuSeconds("BM_Hit_getIPV4ByDomain");
        std::printf("%-58s %+8.1f ns\n", "  the same in CPU time:", (*tracedCpu - *hitCpu) * 1e9);
    }
    printRatio("hit, resilience profile on / off:",
               divide(medians.seconds("BM_Hit_getIPV4ByDomain_Resilient"), hit), "<= 1.05x");
    printRatio("100 concurrent misses of one name, profile on / off:",
               divide(medians.seconds("BM_Misses_100Concurrent/resilient:1"),
                      medians.seconds("BM_Misses_100Concurrent/resilient:0")));
    std::printf("%-58s %.1f off, %.1f on (target 1)\n",
                "requests per 100 concurrent misses:", requestsPerBatch[0], requestsPerBatch[1]);
    printRatio("getaddrinfo(\"localhost\") / hit:",
               divide(medians.seconds("BM_Getaddrinfo_Localhost"), hit), ">= 100x");
    // Throughput on two threads needs two free cores. Where others' work takes them, the CPU
    // time each lookup costs on two threads against one tells what sharing memory adds; twice
    // its inverse is the throughput two free cores would give.
    std::printf(
        "2 threads / 1 thread:                 throughput   CPU per call   2 x CPU ratio\n");
    for (const char* name :
         {"BM_Hit_getIPV4ByDomain", "BM_BareMap_FindAndCopy", "BM_Step_CheckDomainIsValid",
          "BM_Step_CheckNetworkAvailable", "BM_Step_ResolverHit", "BM_Step_CacheManagerHit"}) {
        const auto throughput = divide(medians.seconds(name), medians.seconds(name, 2));
        const auto cpu = divide(medians.cpuSeconds(name, 2), medians.cpuSeconds(name));
        if (!throughput || !cpu) continue;
        std::printf("  %-34s %9.2fx  %11.2fx  %12.2fx%s\n", name + 3, *throughput, *cpu, 2 / *cpu,
                    name == std::string("BM_Hit_getIPV4ByDomain") ? "  (target >= 1.5x)" : "");
    }
    for (const char* names :
         {"names:64/random:0", "names:64/random:1", "names:4096/random:0", "names:4096/random:1"}) {
        const std::string suffix = std::string("/") + names;
        printRatio(("hit over " + std::string(names) + " / bare map:").c_str(),
                   divide(medians.seconds("BM_Hit_ManyNames" + suffix),
                          medians.seconds("BM_BareMap_ManyNames" + suffix)));
    }
    std::printf("steps of a hit, ns per call on 1 thread:");
    for (const char* step : {"BM_Step_CheckDomainIsValid", "BM_Step_CheckNetworkAvailable",
                             "BM_Step_ResolverHit", "BM_Step_CacheManagerHit"}) {
        if (const auto one = medians.seconds(step)) std::printf("  %s %.1f", step + 8, *one * 1e9);
    }
    std::printf("\n");
    const auto bare = medians.seconds("BM_Miss_BareCurl");
    printRatio("miss, cacheIP off / bare libcurl GET:",
               divide(medians.seconds("BM_Miss_getIPV4ByDomain/cacheIP:0"), bare), "<= 1.3x");
    printRatio("miss, cacheIP on, answer stored / bare libcurl GET:",
               divide(medians.seconds("BM_Miss_getIPV4ByDomain/cacheIP:1"), bare));
    printBytes("short names:", shortNames);
    printBytes("long names:", longNames);
}

}  // namespace

int main(int argc, char** argv) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    fixture();
    const int status = qel::bench::run(argc, argv, report, 7);
    std::filesystem::remove_all(fixture().scratch.path());
    return status;
}
