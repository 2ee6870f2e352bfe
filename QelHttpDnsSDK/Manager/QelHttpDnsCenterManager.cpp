#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Manager/QelDNSAuthManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Other/QelDNSCallbacks.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSNullable.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"

namespace {

using Lock = qel::platform::MutexLock;
namespace codes = QelDNSErrorCodes;

using QelDNSCallbacks::callCatching;

// One step of the registry. False when it cannot step at all (a present but empty node list),
// which ends the lookup like a missing node instead of escaping on the platform thread.
bool stepNode(std::optional<std::string>& node) {
    try {
        node = QelDNSAuthManager::shared().getNextHost();
        return true;
    } catch (const std::out_of_range&) {
        return false;
    }
}

}  // namespace

QelHttpDnsCenterManager& QelHttpDnsCenterManager::shared() {
    static QelHttpDnsCenterManager* const instance = [] {
        auto* manager = new QelHttpDnsCenterManager();
        manager->init();
        return manager;
    }();
    return *instance;
}

void QelHttpDnsCenterManager::init() {
    setRetryCountNum(3);
    QelDNSNetworkManager::startMonitor();
    // `this`, not shared(): the block may run before shared()'s initialisation has returned,
    // and the instance is never destroyed.
    QelDNSNetworkManager::shared().setNetworkStatusChangedBlock(
        [this](QelDNSNetworkStatus) { networkStatusChanged(); });
}

void QelHttpDnsCenterManager::setupWithAuthId(std::optional<std::string> authId,
                                              std::optional<std::string> authSecret) {
    setAuthId(std::move(authId));
    setAuthSecret(std::move(authSecret));
}

void QelHttpDnsCenterManager::getIPsWithDomain(const std::optional<std::string>& domain,
                                               int64_t type, Completion completion,
                                               QelDNSLookupHandle lookup) {
    const std::string& key = pending_.store(domain, type);

    if (cacheIP()) {
        if (answerFromCache(key, completion, lookup)) return;
        requestIPsWithRetryCount(
            0,
            [this, key = std::string(key), completion = std::move(completion), lookup](
                std::optional<QelDNSError> error, QelDNSIPModelListRef records) {
                if (error) return callCatching(completion, std::move(error), std::nullopt);
                if (lookup) QelDNSLookupEvents::lifetimeKnown(lookup, secondsLeft(*records));
                storeAnswer(records, key);
                callCatching(completion, std::nullopt, filterIPs(*records));
            },
            std::move(lookup));
        return;
    }
    requestIPsWithRetryCount(
        0,
        [completion = std::move(completion), lookup](std::optional<QelDNSError> error,
                                                     QelDNSIPModelListRef records) {
            if (error) return callCatching(completion, std::move(error), std::nullopt);
            if (lookup) QelDNSLookupEvents::lifetimeKnown(lookup, secondsLeft(*records));
            callCatching(completion, std::nullopt, filterIPs(*records));
        },
        std::move(lookup));
}

void QelHttpDnsCenterManager::requestIPsWithRetryCount(int32_t count, RecordsCompletion completion,
                                                       QelDNSLookupHandle lookup) {
    const int32_t limit = retryCountNum();
    if (limit != 0 && limit <= count) {
        callCatching(
            completion,
            QelDNSUntil::errorCode(codes::kAttemptsExhausted, codes::kAttemptsExhaustedMessage),
            nullptr);
        return;
    }
    std::optional<std::string> domain;
    int64_t type;
    const std::optional<std::string> url = resolveUrl();
    pending_.read(domain, type);  // afresh for every attempt: the last lookup's pair
    QelDNSLookupEvents::requestSent(lookup, url);
    sendResolve(url, domain, type,
                [this, count, completion = std::move(completion), lookup = std::move(lookup)](
                    std::optional<QelDNSError> error, QelDNSIPModelListRef records) {
                    handleAttempt(count, completion, lookup, std::move(error), std::move(records));
                });
}

void QelHttpDnsCenterManager::sendResolve(const std::optional<std::string>& node,
                                          const std::optional<std::string>& domain, int64_t type,
                                          RecordsCompletion completion) {
    std::optional<std::string> id, secret;
    {
        Lock lock(mutex_);
        id = authId_;
        secret = authSecret_;
    }
    QelDNSGetIPs::getIPsWithUrl(node, type == 1 ? 1 : 2, id, secret, domain, std::move(completion));
}

std::optional<std::vector<std::string>> QelHttpDnsCenterManager::readCached(const std::string& key,
                                                                            bool& fromStore,
                                                                            int64_t* left) {
    if (!cacheIP()) return std::nullopt;
    QelDNSCacheManager::Addresses cached;
    QelDNSCacheManager& cache = QelDNSCacheManager::shared();
    if (!(answersPerNetwork() ? cache.readAddresses(placedKey(key), expiredIP(), cached)
                              : cache.readAddresses(key, expiredIP(), cached))) {
        return std::nullopt;
    }
    fromStore = cached.fromStore;
    if (left) *left = cached.secondsLeft;
    return std::move(cached.ips);
}

bool QelHttpDnsCenterManager::answerFromCache(const std::string& key, Completion& completion,
                                              const QelDNSLookupHandle& lookup) {
    using CacheRead = QelDNSLookupListener::CacheRead;
    bool fromStore = false;
    int64_t left = 0;
    std::optional<std::vector<std::string>> addresses = readCached(key, fromStore, &left);
    if (!addresses && !(addresses = readStale(key, fromStore))) {
        QelDNSLookupEvents::cacheRead(lookup, key, CacheRead::Miss);
        return false;
    }
    QelDNSLookupEvents::lifetimeKnown(lookup, left);
    QelDNSLookupEvents::cacheRead(lookup, key, fromStore ? CacheRead::Store : CacheRead::Memory);
    if (completion) completion(std::nullopt, std::move(addresses));
    return true;
}

int64_t QelHttpDnsCenterManager::secondsLeft(const QelDNSIPModelList& records) {
    const double now = qel::platform::Clock::currentTime();
    double shortest = -1;
    for (const auto& record : records) {
        if (!record) continue;
        const double left = record->lookupTime() + static_cast<double>(record->ttl()) - now;
        if (shortest < 0 || left < shortest) shortest = std::max(left, 0.0);
    }
    // Rounded up: an answer just received shows the TTL the service gave.
    return shortest < 0 ? 0 : static_cast<int64_t>(std::ceil(shortest));
}

void QelHttpDnsCenterManager::storeAnswer(QelDNSIPModelListRef records, const std::string& key) {
    QelDNSCacheManager::shared().saveIPs(std::move(records), placedKey(key), cacheIP());
}

std::string QelHttpDnsCenterManager::placedKey(const std::string& key) const {
    if (!answersPerNetwork()) return key;
    const std::string network = qel::platform::ReachabilitySourceFactory::networkIdentity();
    return network.empty() ? key : key + "@" + network;
}

std::optional<std::vector<std::string>> QelHttpDnsCenterManager::readStale(const std::string& key,
                                                                           bool& fromStore) {
    const double maxStale = maxStale_.load(std::memory_order_acquire);
    if (!(maxStale > 0) || !cacheIP()) return std::nullopt;
    const std::string placed = placedKey(key);
    QelDNSCacheManager::Addresses cached;
    if (!QelDNSCacheManager::shared().readAddresses(placed, true, cached)) return std::nullopt;
    const double now = qel::platform::Clock::currentTime();
    if (!(now - cached.expiresAt <= maxStale)) return std::nullopt;
    if (staleRefresh_.begin(placed, now)) refreshStale(key, placed, now);
    fromStore = cached.fromStore;
    return std::move(cached.ips);
}

// The key's own name and family are asked for (its suffix), and the answer kept where the stale
// one was read, even when the network changes meanwhile.
void QelHttpDnsCenterManager::refreshStale(const std::string& key, const std::string& placed,
                                           double started) {
    const bool v4 = key.size() > 3 && key.compare(key.size() - 3, 3, "_v4") == 0;
    const std::string domain = key.substr(0, key.size() >= 3 ? key.size() - 3 : 0);
    sendResolve(resolveUrl(), domain, v4 ? 1 : 2,
                [this, placed, started](std::optional<QelDNSError> error,
                                        QelDNSIPModelListRef records) {
                    if (!error) QelDNSCacheManager::shared().saveIPs(records, placed, cacheIP());
                    staleRefresh_.end(placed, error.has_value(), started);
                });
}

void QelHttpDnsCenterManager::handleAttempt(int32_t count, const RecordsCompletion& completion,
                                            const QelDNSLookupHandle& lookup,
                                            std::optional<QelDNSError> error,
                                            QelDNSIPModelListRef records) {
    if (!error) return callCatching(completion, std::nullopt, std::move(records));
    QelDNSLookupEvents::attemptFailed(lookup, *error);
    if (error->code() == QelDNS_SDK_REQ_NEED_RETRY_CODE) {
        setRetryCountNum(0);  // the limit stays off for the rest of the process
        switchNode(count, completion, lookup);
    } else if (error->code() == QelDNS_SDK_REQ_FORBIDDEN_CODE) {
        setRetryCountNum(0);
        callCatching(completion, std::move(error), nullptr);
    } else {
        requestIPsWithRetryCount(count + 1, completion, lookup);
    }
}

// Only a registry whose next node repeats the current one leads to a switch, and a switch
// consumes three nodes; any other outcome ends the lookup.
void QelHttpDnsCenterManager::switchNode(int32_t count, const RecordsCompletion& completion,
                                         const QelDNSLookupHandle& lookup) {
    auto unavailable = [&completion] {
        callCatching(completion,
                     QelDNSUntil::errorCode(codes::kNoUsableNode, codes::kNoUsableNodeMessage),
                     nullptr);
    };
    std::optional<std::string> node;
    if (!stepNode(node) || !node || node != resolveUrl()) return unavailable();
    if (!stepNode(node) || !node) return unavailable();
    if (!stepNode(node)) return unavailable();
    QelDNSLookupEvents::nodeSwitched(lookup, node);
    setResolveUrl(std::move(node));
    requestIPsWithRetryCount(count + 1, completion, lookup);
}

void QelHttpDnsCenterManager::networkStatusChanged() {
    if (!serviceEnable() || !cacheIP()) return;
    std::optional<std::string> domain;
    int64_t type;
    pending_.read(domain, type);
    if (type == 0 || !domain || domain->empty()) return;
    std::string key = placedKey(QelDNSPendingLookup::cacheKey(domain, type));
    QelDNSCacheManager::shared().clearCacheForDomain(key);
    requestIPsWithRetryCount(0, [this, key = std::move(key)](std::optional<QelDNSError> error,
                                                             QelDNSIPModelListRef records) {
        if (!error) QelDNSCacheManager::shared().saveIPs(std::move(records), key, cacheIP());
    });
}

std::vector<std::string> QelHttpDnsCenterManager::filterIPs(const QelDNSIPModelList& ips) {
    std::vector<std::string> addresses;
    addresses.reserve(ips.size());
    for (const auto& record : ips) {
        if (record && record->ip()) addresses.push_back(*record->ip());
    }
    return addresses;
}

bool QelHttpDnsCenterManager::checkNetworkAvailable() {
    return QelDNSNetworkManager::shared().networkAvailable();
}

void QelHttpDnsCenterManager::clearAllCache() { QelDNSCacheManager::shared().clearAllCache(); }

std::optional<std::string> QelHttpDnsCenterManager::resolveUrl() const {
    Lock lock(mutex_);
    return resolveUrl_;
}

void QelHttpDnsCenterManager::setResolveUrl(std::optional<std::string> resolveUrl) {
    Lock lock(mutex_);
    resolveUrl_.swap(resolveUrl);
}

void QelHttpDnsCenterManager::setAuthId(std::optional<std::string> authId) {
    Lock lock(mutex_);
    authId_.swap(authId);
}

void QelHttpDnsCenterManager::setAuthSecret(std::optional<std::string> authSecret) {
    Lock lock(mutex_);
    authSecret_.swap(authSecret);
}
