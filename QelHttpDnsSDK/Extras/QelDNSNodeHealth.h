// Which resolve nodes may be asked now: a node whose request failed rests for a while, longer
// after each failure in a row, and is asked again once its rest is over. Internal to the
// resilience profile. Thread-safe.
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
    /// `node` failed at `now`: it rests `rest` seconds, doubled per earlier failure in a row,
    /// at most `maxRest`.
    void failed(const std::string& node, Clock::time_point now, double rest, double maxRest);
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
