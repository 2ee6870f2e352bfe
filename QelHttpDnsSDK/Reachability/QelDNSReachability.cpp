#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <any>

#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySource.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"

namespace flags = qel::platform::ReachabilityFlags;
using qel::platform::ReachabilitySource;
using qel::platform::ReachabilitySourceFactory;

const char kQelDNSReachabilityChangedNotification[] = "kQelDNSReachabilityChangedNotification";
const char kQelDNSInternetConnection[] = "kQelDNSInternetConnection";
const char kQelDNSLocalWiFiConnection[] = "kQelDNSLocalWiFiConnection";

QelDNSReachability::QelDNSReachability(std::unique_ptr<ReachabilitySource> reachabilityRef)
    : reachabilityRef_(std::move(reachabilityRef)) {}

QelDNSReachability::~QelDNSReachability() { stopNotifier(); }

std::shared_ptr<QelDNSReachability> QelDNSReachability::make(
    std::unique_ptr<ReachabilitySource> reachabilityRef) {
    if (!reachabilityRef) return nullptr;
    return std::shared_ptr<QelDNSReachability>(new QelDNSReachability(std::move(reachabilityRef)));
}

std::shared_ptr<QelDNSReachability> QelDNSReachability::reachabilityWithHostName(
    const std::string& hostName) {
    return make(ReachabilitySourceFactory::createWithName(hostName));
}

std::shared_ptr<QelDNSReachability> QelDNSReachability::reachabilityWithAddress(
    const sockaddr* hostAddress) {
    return make(ReachabilitySourceFactory::createWithAddress(hostAddress));
}

std::shared_ptr<QelDNSReachability> QelDNSReachability::reachabilityForInternetConnection() {
    sockaddr_in zeroAddress{};
    zeroAddress.sin_family = AF_INET;
    return reachabilityWithAddress(reinterpret_cast<const sockaddr*>(&zeroAddress));
}

bool QelDNSReachability::startNotifier() {
    // The report holds the object weakly: one that arrives while the last owner lets go finds
    // nothing to post about, instead of a dangling pointer.
    std::weak_ptr<QelDNSReachability> weakSelf = weak_from_this();
    const bool registered = reachabilityRef_->setCallback([weakSelf](uint32_t /*flags*/) {
        // Receivers read the current status themselves; the reported flags are not passed on.
        if (std::shared_ptr<QelDNSReachability> self = weakSelf.lock()) {
            qel::platform::NotificationCenter::defaultCenter().post(
                kQelDNSReachabilityChangedNotification, std::any(self));
        }
    });
    if (!registered) return false;
    return reachabilityRef_->schedule();
}

void QelDNSReachability::stopNotifier() {
    if (reachabilityRef_) reachabilityRef_->unschedule();
}

QelDNSNetworkStatus QelDNSReachability::currentReachabilityStatus() {
    uint32_t reachabilityFlags = 0;
    if (!reachabilityRef_->getFlags(reachabilityFlags)) return QelDNSNetworkStatusNotReachable;
    return networkStatusForFlags(reachabilityFlags);
}

bool QelDNSReachability::connectionRequired() {
    uint32_t reachabilityFlags = 0;
    return reachabilityRef_->getFlags(reachabilityFlags) &&
           (reachabilityFlags & flags::ConnectionRequired) != 0;
}

QelDNSNetworkStatus QelDNSReachability::networkStatusForFlags(uint32_t reachabilityFlags) const {
    if ((reachabilityFlags & flags::Reachable) == 0) return QelDNSNetworkStatusNotReachable;
    if (reachabilityFlags & flags::IsWWAN) return QelDNSNetworkStatusWWAN;
    if ((reachabilityFlags & flags::ConnectionRequired) == 0) return QelDNSNetworkStatusWiFi;
    if ((reachabilityFlags & flags::InterventionRequired) == 0 &&
        (reachabilityFlags & (flags::ConnectionOnTraffic | flags::ConnectionOnDemand)) != 0) {
        return QelDNSNetworkStatusWiFi;
    }
    return QelDNSNetworkStatusNotReachable;
}
