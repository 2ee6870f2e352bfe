// The blocking lookup on a cache hit against the asynchronous lookup it is made of, both on
// QelHttpDnsManager::shared() registered with a signature-checking resolution service on
// loopback (network status faked as up). The ratio of the medians is printed after the table.
//
//   build/release/bench/blocking_lookup_bench
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "BenchMain.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/FakeReachability.h"
#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

using Ips = std::optional<std::vector<std::string>>;

namespace {

constexpr char kId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kApp[] = "com.example.app";
constexpr char kHitDomain[] = "www.hit.example.test";

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "blocking_lookup_bench: %s\n", what);
    std::exit(1);
}

// Never destroyed: the manager it sets up lives for the process. main removes the scratch
// directory.
struct Fixture {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::ResolutionService service{kId, kSecret, kApp};

    Fixture() {
        qel::platform::Console::setSink([](const std::string&) {});
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        service.setAddresses(kHitDomain, {"192.0.2.1", "192.0.2.2"});
        QelHttpDnsManager& dns = QelHttpDnsManager::shared();
        dns.customServerUrl(service.baseUrl());
        dns.registerAuthId(std::string(kId), std::string(kSecret));
        dns.enableCacheIP(true);
        // The blocking lookup waits for the login; a few type-1 lookups make the entry a hit.
        for (int i = 0; i < 5; ++i) QelDNSBlockingLookup::resolve(kHitDomain, 1, 20.0);
        if (QelDNSBlockingLookup::resolve(kHitDomain, 1, 0.0).ips.size() != 2) {
            fail("the domain is not a cache hit");
        }
    }
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}

void BM_Hit_Asynchronous(benchmark::State& state) {
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kHitDomain;
    int64_t hits = 0;
    for (auto _ : state) {
        dns.getIPByDomain(domain, 1, [&hits](std::optional<QelDNSError>, Ips ips) {
            hits += ips && ips->size() == 2;
        });
    }
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

void BM_Hit_Blocking(benchmark::State& state) {
    const std::optional<std::string> domain = kHitDomain;
    int64_t hits = 0;
    for (auto _ : state) {
        hits += QelDNSBlockingLookup::resolve(domain, 1, 1.0).ips.size() == 2;
    }
    if (hits != state.iterations()) state.SkipWithError("a lookup missed the cache");
}

BENCHMARK(BM_Hit_Asynchronous)->UseRealTime();
BENCHMARK(BM_Hit_Blocking)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    fixture();
    const int status = qel::bench::run(argc, argv, [](const qel::bench::MedianReporter& medians) {
        qel::bench::printRatio("cache hit, blocking / asynchronous:",
                               qel::bench::divide(medians.seconds("BM_Hit_Blocking"),
                                                  medians.seconds("BM_Hit_Asynchronous")),
                               "<= 2x");
    });
    std::filesystem::remove_all(fixture().scratch.path());
    return status;
}
