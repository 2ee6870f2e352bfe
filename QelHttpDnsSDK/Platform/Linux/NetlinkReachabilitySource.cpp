#include "QelHttpDnsSDK/Platform/Linux/NetlinkReachabilitySource.h"

#include <netinet/in.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <optional>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Linux/NetlinkRouteMonitor.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"

namespace qel::platform {

class NetlinkReachabilitySource::Target final : public NetlinkRouteMonitor::Listener,
                                                public std::enable_shared_from_this<Target> {
public:
    // `address` is empty for the whole-internet target.
    explicit Target(std::optional<sockaddr_storage> address) : address_(address) {}

    // The process's monitor, listened to: in a forked child, the child's own from its first
    // use there on.
    NetlinkRouteMonitor& monitor() {
        NetlinkRouteMonitor& current = NetlinkRouteMonitor::shared();
        if (monitor_.load(std::memory_order_acquire) != &current &&
            monitor_.exchange(&current, std::memory_order_acq_rel) != &current) {
            current.addListener(weak_from_this());
        }
        return current;
    }

    uint32_t flags() {
        NetlinkRouteMonitor& monitor = this->monitor();
        if (!address_) return monitor.internetFlags();
        // Unknown routes count as reachable, as for the internet as a whole.
        if (!monitor.routesKnown()) return ReachabilityFlags::Reachable;
        // The route to one address changes only when the routing state does: ask the kernel
        // once per generation.
        const uint64_t generation = monitor.generation();
        {
            qel::platform::MutexLock lock(mutex_);
            if (cachedOk_ && cachedGeneration_ == generation) return cachedFlags_;
        }
        uint32_t fresh = 0;
        if (!monitor.routeFlags(reinterpret_cast<const sockaddr*>(&*address_), fresh)) {
            return ReachabilityFlags::Reachable;
        }
        qel::platform::MutexLock lock(mutex_);
        cachedOk_ = true;
        cachedGeneration_ = generation;
        cachedFlags_ = fresh;
        return fresh;
    }

    void setCallback(Callback callback) {
        qel::platform::MutexLock lock(mutex_);
        callback_ = std::move(callback);
    }

    void schedule() {
        const uint32_t now = flags();
        qel::platform::MutexLock lock(mutex_);
        scheduled_ = true;
        lastReported_ = now;
    }

    bool unschedule() {
        qel::platform::MutexLock lock(mutex_);
        const bool was = scheduled_;
        scheduled_ = false;
        return was;
    }

    void routesChanged() override {
        {
            qel::platform::MutexLock lock(mutex_);
            if (!scheduled_) return;
        }
        const uint32_t now = flags();
        Callback callback;
        {
            qel::platform::MutexLock lock(mutex_);
            if (!scheduled_ || now == lastReported_) return;
            lastReported_ = now;
            callback = callback_;
        }
        if (callback) callback(now);
    }

private:
    std::atomic<NetlinkRouteMonitor*> monitor_{nullptr};
    const std::optional<sockaddr_storage> address_;

    qel::platform::Mutex mutex_;
    Callback callback_ QEL_GUARDED_BY(mutex_);
    bool scheduled_ QEL_GUARDED_BY(mutex_) = false;
    uint32_t lastReported_ QEL_GUARDED_BY(mutex_) = 0;
    bool cachedOk_ QEL_GUARDED_BY(mutex_) = false;
    uint64_t cachedGeneration_ QEL_GUARDED_BY(mutex_) = 0;
    uint32_t cachedFlags_ QEL_GUARDED_BY(mutex_) = 0;
};

namespace {

bool isUnspecified(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        return reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr == INADDR_ANY;
    }
    return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
}

}  // namespace

NetlinkReachabilitySource::NetlinkReachabilitySource(std::shared_ptr<Target> target)
    : target_(std::move(target)) {}

NetlinkReachabilitySource::~NetlinkReachabilitySource() { target_->unschedule(); }

std::unique_ptr<NetlinkReachabilitySource> NetlinkReachabilitySource::createWithName(
    const std::string& /*hostName*/) {
    auto target = std::make_shared<Target>(std::nullopt);
    target->monitor();
    return std::unique_ptr<NetlinkReachabilitySource>(new NetlinkReachabilitySource(target));
}

std::unique_ptr<NetlinkReachabilitySource> NetlinkReachabilitySource::createWithAddress(
    const sockaddr* address) {
    if (!address || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) {
        return nullptr;
    }
    sockaddr_storage copy{};
    std::memcpy(&copy, address,
                address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    std::optional<sockaddr_storage> target;
    if (!isUnspecified(copy)) target = copy;
    auto made = std::make_shared<Target>(target);
    made->monitor();
    return std::unique_ptr<NetlinkReachabilitySource>(new NetlinkReachabilitySource(made));
}

bool NetlinkReachabilitySource::getFlags(uint32_t& flags) {
    flags = target_->flags();
    return true;
}

bool NetlinkReachabilitySource::setCallback(Callback callback) {
    target_->setCallback(std::move(callback));
    return true;
}

bool NetlinkReachabilitySource::schedule() {
    target_->schedule();
    return true;
}

bool NetlinkReachabilitySource::unschedule() { return target_->unschedule(); }

}  // namespace qel::platform
