// Which resolve nodes may be asked now. A node rests for a while when most of its recent
// requests failed (at least `inARow` failures, and three in four of its last eight outcomes),
// and is asked again once its rest is over; if that request fails too it rests twice as long.
// So a dead node is left after three failures (six after a run of answers), while a node that
// loses one request in four on a lossy network is almost never left. Failures that arrive while it rests (requests that were under
// way) count for nothing. Internal to the resilience profile. Thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
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
    /// `node` failed at `now`: it may start to rest, `rest` seconds the first time and twice as
    /// long at each failure right after a rest, at most `maxRest`.
    void failed(const std::string& node, Clock::time_point now, int inARow, double rest,
                double maxRest);
    /// `node` answered.
    void answered(const std::string& node);

private:
    struct State {
        uint8_t outcomes = 0;  // the last eight, newest in bit 0: 1 a failure
        int recorded = 0;      // how many of them there are, up to 8
        int rests = 0;         // rests in a row, without an answer between
        Clock::time_point restsUntil;
    };
    qel::platform::Mutex mutex_;
    std::unordered_map<std::string, State> nodes_ QEL_GUARDED_BY(mutex_);
};
