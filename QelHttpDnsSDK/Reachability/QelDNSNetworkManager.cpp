#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"

#include <any>
#include <type_traits>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"

using qel::platform::Notification;
using qel::platform::NotificationCenter;

// The header keeps the tokens without naming the platform's type.
static_assert(std::is_same_v<NotificationCenter::ObserverToken, uint64_t>);

QelDNSNetworkManager& QelDNSNetworkManager::shared() {
    static auto* instance = new std::shared_ptr<QelDNSNetworkManager>(create());
    return **instance;
}

void QelDNSNetworkManager::startMonitor() { (void)shared(); }

std::shared_ptr<QelDNSNetworkManager> QelDNSNetworkManager::create() {
    std::shared_ptr<QelDNSNetworkManager> manager(new QelDNSNetworkManager());
    manager->init(manager);
    return manager;
}

void QelDNSNetworkManager::init(const std::weak_ptr<QelDNSNetworkManager>& weakSelf) {
    NotificationCenter& center = NotificationCenter::defaultCenter();
    std::vector<NotificationCenter::ObserverToken> tokens;
    tokens.push_back(center.addObserver(kQelDNSReachabilityChangedNotification,
                                        [weakSelf](const Notification& notification) {
                                            if (auto self = weakSelf.lock())
                                                self->reachabilityChanged(notification);
                                        }));
    tokens.push_back(center.addObserver(qel::platform::UIApplicationDidEnterBackgroundNotification,
                                        [weakSelf](const Notification&) {
                                            if (auto self = weakSelf.lock())
                                                self->didEnterBackground();
                                        }));
    tokens.push_back(center.addObserver(qel::platform::UIApplicationWillEnterForegroundNotification,
                                        [weakSelf](const Notification&) {
                                            if (auto self = weakSelf.lock())
                                                self->willEnterForeground();
                                        }));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        observerTokens_ = std::move(tokens);
    }

    setReachability(QelDNSReachability::reachabilityForInternetConnection());
    std::shared_ptr<QelDNSReachability> internet = reachability();
    if (internet) internet->startNotifier();
    setLastNetworkStatus(internet ? internet->currentReachabilityStatus()
                                  : QelDNSNetworkStatusNotReachable);
}

QelDNSNetworkManager::~QelDNSNetworkManager() {
    for (NotificationCenter::ObserverToken token : observerTokens_) {
        NotificationCenter::defaultCenter().removeObserver(token);
    }
    current_.store(nullptr, std::memory_order_release);
    if (reachability_) reachability_->stopNotifier();
    reachability_.reset();
}

void QelDNSNetworkManager::reachabilityChanged(const Notification& notification) {
    std::shared_ptr<QelDNSReachability> reporting;
    if (const auto* object =
            std::any_cast<std::shared_ptr<QelDNSReachability>>(&notification.object)) {
        reporting = *object;
    }
    // Every use reads the flags again: the status may move between the steps, and the block
    // receives what its own read says.
    auto currentStatus = [&reporting] {
        return reporting ? reporting->currentReachabilityStatus() : QelDNSNetworkStatusNotReachable;
    };
    if (QelDNSLog::isEnable()) {
        const std::string current = networkStatusDesc(currentStatus());
        QelDNSLog::logWithStr("Network changed status: " + current +
                              ", lastNetwork status: " + networkStatusDesc(lastNetworkStatus()));
    }
    NetworkStatusChangedBlock block = networkStatusChangedBlock();
    if (block && currentStatus() != lastNetworkStatus()) block(currentStatus());
    setLastNetworkStatus(currentStatus());
}

void QelDNSNetworkManager::didEnterBackground() {
    QelDNSLog::logWithStr("App did enter background, stopNotifier");
    if (std::shared_ptr<QelDNSReachability> internet = reachability()) internet->stopNotifier();
}

void QelDNSNetworkManager::willEnterForeground() {
    // lastNetworkStatus stays as it was before the background: a change made meanwhile is
    // seen, and compared with it, at the next report.
    QelDNSLog::logWithStr("App did enter foreground, startNotifier");
    if (std::shared_ptr<QelDNSReachability> internet = reachability()) internet->startNotifier();
}

bool QelDNSNetworkManager::networkAvailable() {
    QelDNSReachability* internet = current_.load(std::memory_order_acquire);
    return internet && internet->currentReachabilityStatus() != QelDNSNetworkStatusNotReachable;
}

QelDNSNetworkStatus QelDNSNetworkManager::networkStatus() {
    QelDNSReachability* internet = current_.load(std::memory_order_acquire);
    return internet ? internet->currentReachabilityStatus() : QelDNSNetworkStatusNotReachable;
}

std::string QelDNSNetworkManager::networkStatusDesc(QelDNSNetworkStatus status) const {
    if (status == QelDNSNetworkStatusNotReachable) return "网络不可用";
    if (status == QelDNSNetworkStatusWWAN) return "蜂窝网络";
    if (status == QelDNSNetworkStatusWiFi) return "WIFI";
    return "Unkonwn";
}

QelDNSNetworkManager::NetworkStatusChangedBlock QelDNSNetworkManager::networkStatusChangedBlock()
    const {
    std::lock_guard<std::mutex> lock(mutex_);
    return networkStatusChangedBlock_;
}

void QelDNSNetworkManager::setNetworkStatusChangedBlock(
    NetworkStatusChangedBlock networkStatusChangedBlock) {
    std::lock_guard<std::mutex> lock(mutex_);
    networkStatusChangedBlock_ = std::move(networkStatusChangedBlock);
}

std::shared_ptr<QelDNSReachability> QelDNSNetworkManager::reachability() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reachability_;
}

void QelDNSNetworkManager::setReachability(std::shared_ptr<QelDNSReachability> reachability) {
    std::shared_ptr<QelDNSReachability> previous;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (reachability == reachability_) return;
        previous = reachability_;
        if (reachability_) replaced_.push_back(std::move(reachability_));
        reachability_ = std::move(reachability);
        current_.store(reachability_.get(), std::memory_order_release);
    }
    // A replaced reachability reports nothing more, as if it were gone; stopped outside the lock.
    if (previous) previous->stopNotifier();
}

QelDNSNetworkStatus QelDNSNetworkManager::lastNetworkStatus() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastNetworkStatus_;
}

void QelDNSNetworkManager::setLastNetworkStatus(QelDNSNetworkStatus lastNetworkStatus) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastNetworkStatus_ = lastNetworkStatus;
}
