#include "QelHttpDnsSDK/Extras/QelDNSStoreSweeper.h"

#include <algorithm>
#include <vector>

#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/PlatformThread.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"

QelDNSStoreSweeper& QelDNSStoreSweeper::shared() {
    static QelDNSStoreSweeper* const instance = new QelDNSStoreSweeper();
    return *instance;
}

double QelDNSStoreSweeper::interval(double maxAge) { return std::clamp(maxAge, 1.0, 3600.0); }

void QelDNSStoreSweeper::start(double maxAge) {
    const uint64_t run = run_.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (!(maxAge > 0)) return;
    qel::platform::runOnPlatformThreadAfter(0, [this, run, maxAge] { step(run, maxAge, ""); });
}

void QelDNSStoreSweeper::step(uint64_t run, double maxAge, const std::string& after) {
    if (run_.load(std::memory_order_acquire) != run) return;
    qel::platform::UserDefaults& store = qel::platform::UserDefaults::standard();
    const std::vector<std::string> keys = store.keysAfter(after, kBatch);
    const double now = qel::platform::Clock::currentTime();
    for (const std::string& key : keys) {
        if (isOld(key, maxAge, now)) store.remove(key);
    }
    const bool passEnded = keys.size() < kBatch;
    std::string next = passEnded ? std::string() : keys.back();
    qel::platform::runOnPlatformThreadAfter(
        passEnded ? interval(maxAge) : kPauseBetweenBatches,
        [this, run, maxAge, next = std::move(next)] { step(run, maxAge, next); });
}

bool QelDNSStoreSweeper::isOld(const std::string& key, double maxAge, double now) {
    if (key.find("_v4") == std::string::npos && key.find("_v6") == std::string::npos) return false;
    const QelDNSIPModelListRef records = QelDNSCacheManager::shared().getCacheWithDomain(key);
    if (!records || records->empty()) return false;
    return std::all_of(records->begin(), records->end(), [&](const auto& record) {
        return static_cast<double>(record->ttl()) + record->lookupTime() + maxAge < now;
    });
}
