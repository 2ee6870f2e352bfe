// The library's watcher of the device's network: owns the internet-connection reachability,
// keeps the status it last saw, calls `networkStatusChangedBlock` when a reported status
// differs from it, answers whether the network is available now, and stops change reports
// while the application is in the background.
//
// Observers (default notification center, any sender): kQelDNSReachabilityChangedNotification
// runs the change handler; the application's `QelDNSApplication::didEnterBackground` stops the
// notifier and `QelDNSApplication::willEnterForeground` starts it again.
//
// Threads: every operation may be called from any thread. The change handler, and so the
// block, runs on the platform thread for reports (or on whichever thread posts the
// notification); the life-cycle handlers run on the thread that calls QelDNSApplication. No
// lock is held while the block runs or the notifier starts or stops.
#pragma once

#include <cstdint>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/QelDNSExport.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"

namespace qel::platform {
struct Notification;
}  // namespace qel::platform

class QEL_EXPORT QelDNSNetworkManager {
public:
    /// Receives the new status; called only when it differs from `lastNetworkStatus`.
    using NetworkStatusChangedBlock = std::function<void(QelDNSNetworkStatus status)>;

    /// The process-wide manager, monitoring from its first use; never destroyed.
    static QelDNSNetworkManager& shared();
    /// Makes the shared manager if it does not exist yet, which starts monitoring.
    static void startMonitor();
    /// A separate manager, already monitoring (the shared one is made the same way). Its
    /// observers hold it weakly, so it may be destroyed at any time; afterwards they do nothing.
    static std::shared_ptr<QelDNSNetworkManager> create();

    /// Removes the observers and stops the notifier.
    ~QelDNSNetworkManager();
    QelDNSNetworkManager(const QelDNSNetworkManager&) = delete;
    QelDNSNetworkManager& operator=(const QelDNSNetworkManager&) = delete;

    /// True when there is a reachability whose current status is not NotReachable. Reads the
    /// flags afresh on every call (never `lastNetworkStatus`); cheap enough for every lookup.
    bool networkAvailable();
    /// The current status afresh; NotReachable without a reachability.
    QelDNSNetworkStatus networkStatus();
    /// "网络不可用", "蜂窝网络", "WIFI", or "Unkonwn" for any other value.
    std::string networkStatusDesc(QelDNSNetworkStatus status) const;

    NetworkStatusChangedBlock networkStatusChangedBlock() const;
    void setNetworkStatusChangedBlock(NetworkStatusChangedBlock networkStatusChangedBlock);
    std::shared_ptr<QelDNSReachability> reachability() const;
    void setReachability(std::shared_ptr<QelDNSReachability> reachability);
    QelDNSNetworkStatus lastNetworkStatus() const;
    void setLastNetworkStatus(QelDNSNetworkStatus lastNetworkStatus);

private:
    QelDNSNetworkManager() = default;
    void init(const std::weak_ptr<QelDNSNetworkManager>& weakSelf);
    QEL_HIDDEN void reachabilityChanged(const qel::platform::Notification& notification);
    void didEnterBackground();
    void willEnterForeground();

    mutable std::mutex mutex_;
    NetworkStatusChangedBlock networkStatusChangedBlock_;  // guarded by mutex_
    std::shared_ptr<QelDNSReachability> reachability_;     // guarded by mutex_
    // What every lookup reads: `reachability_` without the lock or a reference count, which
    // threads looking up at once would otherwise all write to. Replaced reachabilities stay
    // alive (stopped) in `replaced_` for the manager's life, so a reader never sees one die.
    // Locking and copying instead makes a hit 1.16x slower (BM_Hit_getIPV4ByDomain).
    std::atomic<QelDNSReachability*> current_{nullptr};
    std::vector<std::shared_ptr<QelDNSReachability>> replaced_;                // guarded by mutex_
    QelDNSNetworkStatus lastNetworkStatus_ = QelDNSNetworkStatusNotReachable;  // guarded
    // Kept so that a destroyed manager leaves no observers behind in the default center.
    std::vector<uint64_t> observerTokens_;  // NotificationCenter tokens; guarded
};
