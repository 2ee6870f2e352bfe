// Which resolve nodes may be asked now: a node whose requests failed several times in a row
// rests for a while, longer after each further failure, and is asked again once its rest is
// over; one answer ends its rest. A single failure (a reset on a lossy network) rests nothing.
// Internal to the resilience profile. Thread-safe.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"

class QelDNSNodeHealth {
public:
    using Clock = std::chrono::steady_clock;

    /// The first of `nodes` (in order of preference) not resting at `now`.
    std::optional<std::string> pick(const std::vector<std::string>& nodes, Clock::time_point now);
    /// `node` failed at `now`. From the `inARow`-th failure in a row on it rests `rest`
    /// seconds, doubled per further failure, at most `maxRest`.
    void failed(const std::string& node, Clock::time_point now, int inARow, double rest,
                double maxRest);
    /// `node` answered: its failures are forgotten.
    void answered(const std::string& node);

private:
    struct State {
        int failures = 0;
        Clock::time_point restsUntil;
    };
    qel::platform::Mutex mutex_;
    std::unordered_map<std::string, State> nodes_ QEL_GUARDED_BY(mutex_);
};
