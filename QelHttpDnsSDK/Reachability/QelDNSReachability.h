// One reachability target (a host name, a socket address, or the internet as a whole) and
// its three-valued network status. While its notifier runs, every change the platform reports
// posts kQelDNSReachabilityChangedNotification on the default notification center, with this
// object (a std::shared_ptr<QelDNSReachability> in the notification's std::any) as its object.
//
// Threads: all operations may be called from any thread. Change reports, and so the
// notification, arrive on the platform thread (the library's one network thread), not on
// the run loop of the thread that started the notifier as on the original platform: Linux
// applications have no per-thread run loop, and a report must not depend on one running.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "QelHttpDnsSDK/QelDNSExport.h"

struct sockaddr;
namespace qel::platform {
class ReachabilitySource;
}  // namespace qel::platform

/// Network status: how the target can be reached.
enum QelDNSNetworkStatus : int64_t {
    QelDNSNetworkStatusNotReachable = 0,
    QelDNSNetworkStatusWiFi = 1,  // reachable, not over the cellular network
    QelDNSNetworkStatusWWAN = 2,  // reachable over the cellular network
};

/// "kQelDNSReachabilityChangedNotification": posted on every reported change.
QEL_EXPORT extern const char kQelDNSReachabilityChangedNotification[];
/// "kQelDNSInternetConnection"; for applications, not read by the library.
QEL_EXPORT extern const char kQelDNSInternetConnection[];
/// "kQelDNSLocalWiFiConnection"; for applications, not read by the library.
QEL_EXPORT extern const char kQelDNSLocalWiFiConnection[];

class QEL_EXPORT QelDNSReachability : public std::enable_shared_from_this<QelDNSReachability> {
public:
    /// A target for `hostName`; nullptr when the platform makes none.
    static std::shared_ptr<QelDNSReachability> reachabilityWithHostName(
        const std::string& hostName);
    /// A target for `hostAddress` (a whole sockaddr_in or sockaddr_in6); nullptr when the
    /// platform makes none.
    static std::shared_ptr<QelDNSReachability> reachabilityWithAddress(const sockaddr* hostAddress);
    /// The target 0.0.0.0, which stands for the internet connection as a whole.
    static std::shared_ptr<QelDNSReachability> reachabilityForInternetConnection();

    /// Stops the notifier.
    ~QelDNSReachability();
    QelDNSReachability(const QelDNSReachability&) = delete;
    QelDNSReachability& operator=(const QelDNSReachability&) = delete;

    /// Registers for change reports and schedules them; true when both succeed, which is
    /// exactly when reports will come. Calling it again registers and schedules again.
    bool startNotifier();
    /// Unschedules change reports, from whichever thread calls it; the registration stays.
    /// A report already running on the platform thread may still post once.
    void stopNotifier();

    /// The status now, from a fresh read of the flags; NotReachable when they cannot be read.
    QelDNSNetworkStatus currentReachabilityStatus();
    /// True when the flags can be read and say that a connection must first be established.
    bool connectionRequired();
    /// Maps reachability flags to a status: not reachable unless Reachable; cellular whenever
    /// IsWWAN (even if a connection is still required); Wi-Fi without ConnectionRequired, or
    /// when the connection comes up by itself (on traffic or on demand, no intervention).
    QelDNSNetworkStatus networkStatusForFlags(uint32_t flags) const;

private:
    QEL_HIDDEN explicit QelDNSReachability(
        std::unique_ptr<qel::platform::ReachabilitySource> reachabilityRef);
    QEL_HIDDEN static std::shared_ptr<QelDNSReachability> make(
        std::unique_ptr<qel::platform::ReachabilitySource> reachabilityRef);

    // Set by the factory, never empty, never replaced: safe to use from any thread.
    const std::unique_ptr<qel::platform::ReachabilitySource> reachabilityRef_;
};
