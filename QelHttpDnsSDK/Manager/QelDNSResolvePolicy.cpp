#include "QelHttpDnsSDK/Manager/QelDNSResolvePolicy.h"

#include <atomic>

namespace {

std::atomic<QelDNSResolvePolicy*> installedPolicy{nullptr};

}  // namespace

QelDNSResolvePolicy* QelDNSResolvePolicy::installed() {
    return installedPolicy.load(std::memory_order_acquire);
}

void QelDNSResolvePolicy::install(QelDNSResolvePolicy* policy) {
    installedPolicy.store(policy, std::memory_order_release);
}
