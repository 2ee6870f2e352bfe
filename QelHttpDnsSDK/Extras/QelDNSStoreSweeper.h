// Keeps the store from growing without bound: removes the cache entries whose every record
// expired more than `maxAge` ago. A pass reads the store's keys in order, a batch of `kBatch`
// at a time on the platform thread with a pause between batches, so that answers are never
// held up for long; the next pass starts `interval(maxAge)` after the last one ended. Entries
// that do not decode as records are left alone: they may be the application's own keys.
//
// Threads: `start` from any thread; the passes run on the platform thread. Internal.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

class QelDNSStoreSweeper {
public:
    static constexpr size_t kBatch = 64;
    static constexpr double kPauseBetweenBatches = 0.005;  // seconds

    /// The one of the process, never destroyed.
    static QelDNSStoreSweeper& shared();

    /// Starts passes with `maxAge` seconds (the first one at once), or stops them for 0.
    void start(double maxAge);
    /// Seconds between passes: `maxAge`, within [1 s, 1 h].
    static double interval(double maxAge);

private:
    QelDNSStoreSweeper() = default;
    void step(uint64_t run, double maxAge, const std::string& after);
    static bool isOld(const std::string& key, double maxAge, double now);

    std::atomic<uint64_t> run_{0};  // a newer start ends the passes of older ones
};
