#include "QelHttpDnsSDK/Extras/QelDNSNodeHealth.h"

#include <algorithm>
#include <cmath>

std::optional<std::string> QelDNSNodeHealth::pick(const std::vector<std::string>& nodes,
                                                  Clock::time_point now) {
    qel::platform::MutexLock lock(mutex_);
    for (const std::string& node : nodes) {
        const auto state = nodes_.find(node);
        if (state == nodes_.end() || state->second.restsUntil <= now) return node;
    }
    return std::nullopt;
}

void QelDNSNodeHealth::failed(const std::string& node, Clock::time_point now, int inARow,
                              double rest, double maxRest) {
    qel::platform::MutexLock lock(mutex_);
    State& state = nodes_[node];
    ++state.failures;
    if (state.failures < inARow) return;
    const double seconds =
        std::min(rest * std::ldexp(1.0, std::min(state.failures - inARow, 30)), maxRest);
    state.restsUntil = now + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(std::max(seconds, 0.0)));
}

void QelDNSNodeHealth::answered(const std::string& node) {
    qel::platform::MutexLock lock(mutex_);
    nodes_.erase(node);
}
