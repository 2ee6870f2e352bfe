// Which name to evict when the cache holds its maximum: hit ratio and cost per lookup of the
// cache's own eviction (QelDNSBoundedLists, SIEVE) against LRU, FIFO and random eviction on
// the same Zipf-distributed stream of names (exponent 0.8 and 1.0 over 1 000 000 names,
// a cache of 1% and 10% of them). Each lookup is a find, and on a miss a put.
// Hit ratios and costs relative to SIEVE are printed after the table.
//
//   build/release/bench/cache_eviction_bench
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <list>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "BenchMain.h"
#include "QelHttpDnsSDK/Manager/QelDNSBoundedLists.h"

namespace {

constexpr int kNames = 1000000;
constexpr int kStream = 2000000;

const std::vector<std::string>& names() {
    static const auto* made = [] {
        auto* all = new std::vector<std::string>();
        for (int i = 0; i < kNames; ++i) all->push_back("n" + std::to_string(i) + ".example.test_v4");
        return all;
    }();
    return *made;
}

// Ranks drawn from Zipf(exponent) over kNames by inverting the cumulative weights.
const std::vector<int>& stream(double exponent) {
    static std::map<double, std::vector<int>> made;
    auto& ranks = made[exponent];
    if (ranks.empty()) {
        std::vector<double> cumulative(kNames);
        double sum = 0;
        for (int i = 0; i < kNames; ++i) cumulative[i] = sum += 1.0 / std::pow(i + 1, exponent);
        std::mt19937_64 random(11);
        std::uniform_real_distribution<double> draw(0, sum);
        // Popularity is spread over the name space, not by insertion order.
        std::vector<int> shuffled(kNames);
        for (int i = 0; i < kNames; ++i) shuffled[i] = i;
        std::shuffle(shuffled.begin(), shuffled.end(), random);
        ranks.reserve(kStream);
        for (int i = 0; i < kStream; ++i) {
            const auto at = std::lower_bound(cumulative.begin(), cumulative.end(), draw(random));
            ranks.push_back(shuffled[at - cumulative.begin()]);
        }
    }
    return ranks;
}

// One list per name, as the cache has: the read mark is the list's.
QelDNSCachedList::Ref someList() { return QelDNSCachedList::make({}); }

struct Sieve {
    QelDNSBoundedLists lists;
    std::vector<QelDNSCachedList::Ref> evicted;
    explicit Sieve(size_t size) { lists.setMaxSize(size, evicted); }
    bool lookUp(const std::string& key) {
        if (const auto* slot = lists.find(key)) {
            slot->list()->markVisited();
            return true;
        }
        lists.put(key, someList(), evicted);
        evicted.clear();
        return false;
    }
};

struct Lru {
    size_t size;
    std::list<std::string> order;  // most recent first
    std::unordered_map<std::string, std::pair<QelDNSCachedList::Ref, std::list<std::string>::iterator>> map;
    explicit Lru(size_t s) : size(s) {}
    bool lookUp(const std::string& key) {
        if (auto found = map.find(key); found != map.end()) {
            order.splice(order.begin(), order, found->second.second);
            return true;
        }
        if (map.size() >= size) {
            map.erase(order.back());
            order.pop_back();
        }
        order.push_front(key);
        map.emplace(key, std::make_pair(someList(), order.begin()));
        return false;
    }
};

struct Fifo {
    size_t size;
    std::list<std::string> order;  // newest first
    std::unordered_map<std::string, QelDNSCachedList::Ref> map;
    explicit Fifo(size_t s) : size(s) {}
    bool lookUp(const std::string& key) {
        if (map.count(key)) return true;
        if (map.size() >= size) {
            map.erase(order.back());
            order.pop_back();
        }
        order.push_front(key);
        map.emplace(key, someList());
        return false;
    }
};

struct Random {
    size_t size;
    std::vector<std::string> keys;
    std::unordered_map<std::string, std::pair<QelDNSCachedList::Ref, size_t>> map;
    std::mt19937 random{3};
    explicit Random(size_t s) : size(s) {}
    bool lookUp(const std::string& key) {
        if (map.count(key)) return true;
        size_t at = keys.size();
        if (map.size() >= size) {
            at = random() % keys.size();
            map.erase(keys[at]);
            keys[at] = key;
        } else {
            keys.push_back(key);
        }
        map.emplace(key, std::make_pair(someList(), at));
        return false;
    }
};

std::map<std::string, double> hitRatios;

// range(0): exponent x 100; range(1): cache size in per mille of the names.
template <typename Policy>
void BM_Evict(benchmark::State& state, const char* name) {
    const double exponent = static_cast<double>(state.range(0)) / 100;
    const auto& ranks = stream(exponent);
    const auto& all = names();
    int64_t hits = 0, lookups = 0;
    for (auto _ : state) {
        Policy policy(static_cast<size_t>(kNames / 1000 * state.range(1)));
        hits = 0;
        for (int rank : ranks) hits += policy.lookUp(all[rank]);
        lookups = static_cast<int64_t>(ranks.size());
    }
    state.SetItemsProcessed(state.iterations() * lookups);
    char key[96];
    std::snprintf(key, sizeof key, "%s zipf %.1f cache %.0f%%", name, exponent, state.range(1) / 10.0);
    hitRatios[key] = static_cast<double>(hits) / static_cast<double>(lookups);
}

void BM_Sieve(benchmark::State& state) { BM_Evict<Sieve>(state, "sieve"); }
void BM_Lru(benchmark::State& state) { BM_Evict<Lru>(state, "lru"); }
void BM_Fifo(benchmark::State& state) { BM_Evict<Fifo>(state, "fifo"); }
void BM_Random(benchmark::State& state) { BM_Evict<Random>(state, "random"); }

#define EVICTION_ARGS ArgNames({"zipf", "permille"})->Args({80, 10})->Args({80, 100})->Args({100, 10})->Args({100, 100})->Iterations(1)
BENCHMARK(BM_Sieve)->EVICTION_ARGS;
BENCHMARK(BM_Lru)->EVICTION_ARGS;
BENCHMARK(BM_Fifo)->EVICTION_ARGS;
BENCHMARK(BM_Random)->EVICTION_ARGS;

void report(const qel::bench::MedianReporter& medians) {
    for (const auto& [key, ratio] : hitRatios) std::printf("hit ratio, %-32s %6.3f\n", key.c_str(), ratio);
    for (const char* args : {"/zipf:80/permille:10", "/zipf:80/permille:100", "/zipf:100/permille:10",
                             "/zipf:100/permille:100"}) {
        for (const char* other : {"BM_Lru", "BM_Fifo", "BM_Random"}) {
            const std::string what = std::string("time per lookup, ") + other + args + " / sieve:";
            qel::bench::printRatio(what.c_str(),
                                   qel::bench::divide(medians.seconds(std::string(other) + args),
                                                      medians.seconds(std::string("BM_Sieve") + args)));
        }
    }
}

}  // namespace

int main(int argc, char** argv) { return qel::bench::run(argc, argv, report, 1); }
