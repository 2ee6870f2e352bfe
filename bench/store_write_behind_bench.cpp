// What the persistent store costs a lookup now that it writes behind the caller, with the
// public manager logged in to the resolution service on loopback:
//   a miss answered by the service, cacheIP on (answer saved)  vs  cacheIP off
//   the same miss while another thread saves 1 000 answers     vs  with nothing in flight
//   the same miss while another connection holds the file's lock  vs  without
//   one batch of the writer (64 changes, one transaction): the longest a read of the store
//   waits for the connection behind the writer
// The ratios and the extra delay are printed after the table.
//
//   build/release/bench/store_write_behind_bench
//
// A miss is timed from the call to the moment its callback runs on the platform thread.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchMain.h"
#include "BenchSdk.h"
#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "QelHttpDnsSDK/Platform/WriteBehindUserDefaults.h"
#include "support/FakeReachability.h"
#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ips = std::optional<std::vector<std::string>>;
using qel::bench::divide;
using qel::bench::MedianReporter;
using qel::bench::printRatio;

constexpr char kMissDomain[] = "miss.store-bench.test";
const std::vector<std::string> kAddresses = {"192.0.2.10", "192.0.2.11"};
constexpr int kSaves = 1000;

QelDNSIPModelListRef listOf(const std::string& name) {
    QelDNSIPModelList records;
    for (const std::string& ip : kAddresses) {
        auto record = std::make_shared<QelDNSIPModel>();
        record->setDomain(name);
        record->setType(1);
        record->setIp(ip);
        record->setTtl(3600);
        record->setLookupTime(4e9);
        records.push_back(std::move(record));
    }
    return std::make_shared<const QelDNSIPModelList>(std::move(records));
}

// Saves kSaves answers (memory and store) on its own thread each time it is started.
class Saver {
public:
    Saver() {
        for (int i = 0; i < kSaves; ++i) {
            keys_.push_back("s" + std::to_string(i) + ".store-bench.test_v4");
            lists_.push_back(listOf(keys_.back()));
        }
        thread_ = std::thread([this] { run(); });
        thread_.detach();  // the process ends with it
    }
    void start() {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_ = true;
        changed_.notify_all();
    }
    void waitDone() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return !pending_; });
    }

private:
    void run() {
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return pending_; });
            }
            QelDNSCacheManager& cache = QelDNSCacheManager::shared();
            for (int i = 0; i < kSaves; ++i) cache.saveIPs(lists_[i], keys_[i], true);
            std::lock_guard<std::mutex> lock(mutex_);
            pending_ = false;
            changed_.notify_all();
        }
    }

    std::vector<std::string> keys_;
    std::vector<QelDNSIPModelListRef> lists_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool pending_ = false;
    std::thread thread_;
};

struct Fixture {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::ResolutionService service{"acct", "secret", "com.example.store"};
    Saver saver;

    Fixture() {
        qel::platform::Console::setSink([](const std::string&) {});
        qel::platform::MainBundle::setIdentifier("com.example.store");
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        service.setAddresses(kMissDomain, kAddresses);
        qel::bench::logInAndWarm(service.baseUrl(), "acct", "secret");
    }
};

Fixture& fixture() {
    static Fixture* const instance = new Fixture();
    return *instance;
}


// One miss per iteration, its entry cleared (outside the timing) first. `cached`: cacheIP on,
// so the answer is saved; `beside`: another thread starts saving kSaves answers just before;
// `locked`: another connection holds the file's exclusive lock meanwhile.
void timeMisses(benchmark::State& state, bool cached, bool beside, bool locked = false) {
    Fixture& f = fixture();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const std::optional<std::string> domain = kMissDomain;
    const std::string key = std::string(kMissDomain) + "_v4";
    static qel::bench::TimedAnswer answer(kAddresses);  // outlives a late callback of the last lookup
    int failures = 0;
    dns.enableCacheIP(cached);
    sqlite3* other = nullptr;
    if (locked) sqlite3_open(f.scratch.file("defaults.sqlite3").c_str(), &other);
    for (auto _ : state) {
        QelDNSCacheManager::shared().clearCacheForDomain(key);
        qel::platform::UserDefaults::standard().synchronize();
        if (other && sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            ++failures;
        }
        answer.reset();
        if (beside) f.saver.start();
        const auto start = Clock::now();
        dns.getIPV4ByDomain(domain, [](std::optional<QelDNSError>, Ips ips) { answer.set(ips); });
        if (!answer.wait()) ++failures;
        state.SetIterationTime(answer.secondsSince(start));
        if (beside) f.saver.waitDone();
        if (other) sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
    }
    sqlite3_close(other);
    dns.enableCacheIP(true);
    if (failures) state.SkipWithError("lookups failed");
}

void BM_Miss(benchmark::State& state) { timeMisses(state, state.range(0) != 0, false); }

void BM_MissBesideSaves(benchmark::State& state) { timeMisses(state, true, state.range(0) != 0); }

void BM_MissWhileLocked(benchmark::State& state) { timeMisses(state, true, false, state.range(0) != 0); }

// One full batch of answers, as the writer commits them, into a store of 20 000 names.
void BM_Batch(benchmark::State& state) {
    using qel::platform::UserDefaults;
    using qel::platform::WriteBehindUserDefaults;
    static qel::platform::SqliteUserDefaults store(fixture().scratch.file("batch.sqlite3"));
    const qel::platform::Data value(160, 7);  // about an archived answer of two addresses
    std::vector<UserDefaults::Change> changes;
    for (int i = 0; i < 20000; ++i) {
        changes.push_back({"b" + std::to_string(i) + ".store-bench.test_v4", value});
        if (changes.size() == WriteBehindUserDefaults::kBatchSize) {
            store.writeChanges(changes);
            changes.clear();
        }
    }
    int next = 0;
    for (auto _ : state) {
        changes.clear();
        for (size_t i = 0; i < WriteBehindUserDefaults::kBatchSize; ++i) {
            changes.push_back(
                {"b" + std::to_string(next++ % 20000) + ".store-bench.test_v4", value});
        }
        if (!store.writeChanges(changes)) state.SkipWithError("the batch was kept out");
    }
}

BENCHMARK(BM_Batch);
BENCHMARK(BM_Miss)->ArgName("cacheIP")->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(BM_MissBesideSaves)->ArgName("saving")->Arg(0)->Arg(1)->UseManualTime();
BENCHMARK(BM_MissWhileLocked)->ArgName("locked")->Arg(0)->Arg(1)->UseManualTime();

void report(const MedianReporter& medians) {
    printRatio("miss, cacheIP on / off:",
               divide(medians.seconds("BM_Miss/cacheIP:1"), medians.seconds("BM_Miss/cacheIP:0")),
               "<= 1.05x");
    const auto quiet = medians.seconds("BM_MissBesideSaves/saving:0");
    const auto busy = medians.seconds("BM_MissBesideSaves/saving:1");
    printRatio("miss beside 1 000 saves in flight / alone:", divide(busy, quiet));
    if (const auto batch = medians.seconds("BM_Batch")) {
        std::printf("%-58s %8.1f us  (target well under 1000 us)\n",
                    "one batch of 64 changes (a read's longest wait):", *batch * 1e6);
    }
    printRatio("miss while another connection holds the lock / not:",
               divide(medians.seconds("BM_MissWhileLocked/locked:1"),
                      medians.seconds("BM_MissWhileLocked/locked:0")));
    if (quiet && busy) {
        std::printf("%-58s %8.1f us  (target < 1000 us)\n",
                    "miss beside 1 000 saves in flight, extra delay:", (*busy - *quiet) * 1e6);
    }
}

}  // namespace

int main(int argc, char** argv) {
    fixture();
    const int status = qel::bench::run(argc, argv, report);
    std::filesystem::remove_all(fixture().scratch.path());
    return status;
}
