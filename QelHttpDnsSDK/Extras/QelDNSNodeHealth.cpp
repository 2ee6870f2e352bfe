#include "QelHttpDnsSDK/Extras/QelDNSNodeHealth.h"

#include <algorithm>
#include <bitset>
#include <cmath>

namespace {

void record(uint8_t& outcomes, int& recorded, bool failure) {
    outcomes = static_cast<uint8_t>((outcomes << 1) | (failure ? 1 : 0));
    recorded = std::min(recorded + 1, 8);
}

}  // namespace

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
    if (state.restsUntil > now) return;  // under way when it went down: the same outage
    record(state.outcomes, state.recorded, true);
    const int failures = static_cast<int>(std::bitset<8>(state.outcomes).count());
    // Right after a rest (rests > 0) one failure is enough.
    const bool down =
        state.rests > 0 || (failures >= std::max(inARow, 1) && 4 * failures >= 3 * state.recorded);
    if (!down) return;
    const double seconds = std::min(rest * std::ldexp(1.0, std::min(state.rests++, 30)), maxRest);
    state.restsUntil = now + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(std::max(seconds, 0.0)));
}

void QelDNSNodeHealth::answered(const std::string& node) {
    qel::platform::MutexLock lock(mutex_);
    State& state = nodes_[node];
    state.rests = 0;
    record(state.outcomes, state.recorded, false);
}
