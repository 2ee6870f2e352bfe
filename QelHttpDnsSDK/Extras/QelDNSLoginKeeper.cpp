#include "QelHttpDnsSDK/Extras/QelDNSLoginKeeper.h"

#include <algorithm>
#include <random>

#include "QelHttpDnsSDK/Core/QelDNSManagerExtensions.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/PlatformThread.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"

namespace {

constexpr double kFirstDelay = 1.0;
constexpr double kLastDelay = 60.0;
constexpr int64_t kStatusNoNetwork = 1;
constexpr int64_t kStatusAuthFailed = 3;

double upperHalfOf(double seconds) {
    thread_local std::minstd_rand random{std::random_device{}()};
    return std::uniform_real_distribution<double>(seconds / 2, seconds)(random);
}

}  // namespace

void QelDNSLoginKeeper::start(bool on) {
    on_.store(on, std::memory_order_release);
    if (on && !watching_.exchange(true)) {
        // Reachability reports arrive on the platform thread, after the manager's own handling.
        qel::platform::NotificationCenter::defaultCenter().addObserver(
            kQelDNSReachabilityChangedNotification, [this](const qel::platform::Notification&) {
                if (!on_.load(std::memory_order_acquire)) return;
                if (QelHttpDnsManager::shared().initStatus() == kStatusNoNetwork &&
                    QelDNSNetworkManager::shared().networkAvailable()) {
                    QelDNSManagerExtensions::registerAgain();
                }
            });
    }
    if (on && QelHttpDnsManager::shared().initStatus() == kStatusAuthFailed) loginFailed();
}

void QelDNSLoginKeeper::loginFailed() {
    if (!on_.load(std::memory_order_acquire) || due_.exchange(true)) return;
    renewLater();
}

void QelDNSLoginKeeper::renewLater() {
    const double delay = std::clamp(delay_.load() * 2, kFirstDelay, kLastDelay);
    delay_.store(delay);
    if (!qel::platform::runOnPlatformThreadAfter(upperHalfOf(delay), [this] { renewNow(); })) {
        due_.store(false);
    }
}

// Renews while status 3 lasts; any other status ends the renewals (4: done, 1: the network
// watch takes over, 0 and 2: the application registers).
void QelDNSLoginKeeper::renewNow() {
    if (!on_.load(std::memory_order_acquire) ||
        QelHttpDnsManager::shared().initStatus() != kStatusAuthFailed) {
        delay_.store(0.0);
        due_.store(false);
        return;
    }
    QelDNSManagerExtensions::registerAgain();
    renewLater();  // looks again after the login had its time
}
