#include "QelHttpDnsSDK/Manager/QelDNSStaleRefresh.h"

#include <limits>

bool QelDNSStaleRefresh::begin(const std::string& key, double now) {
    qel::platform::MutexLock lock(mutex_);
    const auto [at, added] = notBefore_.try_emplace(key, 0.0);
    if (!added && !(at->second <= now)) return false;
    at->second = std::numeric_limits<double>::infinity();
    return true;
}

void QelDNSStaleRefresh::end(const std::string& key, bool failed, double started) {
    qel::platform::MutexLock lock(mutex_);
    if (!failed) {
        notBefore_.erase(key);
        return;
    }
    notBefore_[key] = started + kPauseAfterFailure;
    if (notBefore_.size() <= kKeysKept) return;
    // Many keys failing: forget the pauses that are over (never a refresh under way).
    for (auto it = notBefore_.begin(); it != notBefore_.end();) {
        it = it->second <= started ? notBefore_.erase(it) : std::next(it);
    }
}
