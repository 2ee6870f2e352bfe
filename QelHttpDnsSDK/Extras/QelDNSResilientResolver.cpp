#include "QelHttpDnsSDK/Extras/QelDNSResilientResolver.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>
#include <utility>

#include "QelHttpDnsSDK/Core/QelDNSManagerExtensions.h"
#include "QelHttpDnsSDK/Manager/QelDNSAuthManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSPendingLookup.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSCallbacks.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/PlatformThread.h"

namespace {

namespace codes = QelDNSErrorCodes;
using Clock = QelDNSNodeHealth::Clock;

// The key of a lookup's own domain and type. The manager's key is the domain with the suffix
// of the previous lookup's type, so in the usual run of lookups of one type it is the own key
// already, and building another would cost more than the rest of a cache hit.
const std::string& ownKey(const std::string& domain, int64_t type, const std::string& managersKey) {
    const size_t at = domain.size();
    if (managersKey.size() == at + 3 && managersKey[at + 2] == (type == 1 ? '4' : '6')) {
        return managersKey;  // "<domain>_v4" or "<domain>_v6": only the last character differs
    }
    thread_local std::string built;
    built = QelDNSPendingLookup::cacheKey(domain, type);
    return built;
}

// Errors that asking again cannot change: the service refused, or has no address for the name.
bool isFinal(const QelDNSError& error) {
    return error.code() == codes::kForbidden || error.code() == codes::kResolveEmptyData;
}

// Seconds a lookup may take; nothing for no limit. The manager's timeout reads as a request
// does: 0 is 20 s, a nonsense value the shortest bound.
std::optional<double> lookupDeadline(const QelDNSResilienceOptions& options) {
    const double seconds = options.deadline > 0 ? options.deadline : QelDNSRequest::timeout();
    if (seconds == 0) return 20.0;
    if (std::isinf(seconds) && seconds > 0) return std::nullopt;
    return std::isfinite(seconds) && seconds > 0 ? seconds : 0.001;
}

double jittered(double seconds) {
    thread_local std::minstd_rand random{std::random_device{}()};
    return std::uniform_real_distribution<double>(seconds / 2, seconds)(random);
}

}  // namespace

struct QelDNSResilientResolver::Flight {
    std::string key, domain;
    int64_t type = 1;
    std::shared_ptr<const QelDNSResilienceOptions> options;
    // Guarded by the resolver's mutex_.
    std::vector<Waiter> waiters;
    int attempts = 0;
    bool done = false;
    std::optional<QelDNSError> lastError;
    int64_t secondsLeft = 0;  // of the answer, once there is one

    template <typename Announce>
    void announce(Announce each) const {
        for (const Waiter& waiter : waiters) each(waiter.lookup);
    }
};

QelDNSResilientResolver& QelDNSResilientResolver::shared() {
    static QelDNSResilientResolver* const instance = new QelDNSResilientResolver();
    return *instance;
}

void QelDNSResilientResolver::configure(const QelDNSResilienceOptions& options) {
    {
        qel::platform::MutexLock lock(mutex_);
        options_ = std::make_shared<const QelDNSResilienceOptions>(options);
    }
    ownKeys_.store(options.ownKeys, std::memory_order_release);
    loginKeeper_.start(options.renewLogin);
}

std::shared_ptr<const QelDNSResilienceOptions> QelDNSResilientResolver::options() const {
    qel::platform::MutexLock lock(mutex_);
    return options_;
}

void QelDNSResilientResolver::resolve(const std::optional<std::string>& domain, int64_t type,
                                      Completion completion, QelDNSLookupHandle lookup) {
    QelHttpDnsCenterManager& center = QelHttpDnsCenterManager::shared();
    // Still the pending lookup, so that a network change refreshes the latest one.
    const std::string& managersKey = center.notePending(domain, type);
    const std::string& key =
        ownKeys_.load(std::memory_order_acquire) ? ownKey(*domain, type, managersKey) : managersKey;
    if (center.cacheIP() && center.answerFromCache(key, completion, lookup)) return;
    join(key, *domain, type, Waiter{std::move(completion), std::move(lookup)});
}

bool QelDNSResilientResolver::whileLoginFailed(const std::optional<std::string>&, int64_t,
                                               Completion& completion, const QelDNSLookupHandle&) {
    if (!options()->renewLogin) return false;
    loginKeeper_.loginFailed();
    QelDNSCallbacks::callCatching(
        completion,
        QelDNSUntil::errorCode(codes::kNotReady, QelDNSManagerExtensions::currentStatusDesc()),
        std::nullopt);
    return true;
}

void QelDNSResilientResolver::join(std::string key, const std::string& domain, int64_t type,
                                   Waiter waiter) {
    auto flight = std::make_shared<Flight>();
    {
        qel::platform::MutexLock lock(mutex_);
        flight->options = options_;
        if (flight->options->singleFlight) {
            if (auto joined = flights_.find(key); joined != flights_.end()) {
                joined->second->waiters.push_back(std::move(waiter));
                return;
            }
            flights_.emplace(key, flight);
        }
        flight->key = std::move(key);
        flight->domain = domain;
        flight->type = type;
        flight->waiters.push_back(std::move(waiter));
    }
    // A flight of this key that ended between this lookup's cache read and now stored its
    // answer before it left the table: read again rather than send a request of our own.
    bool fromStore = false;
    if (auto addresses = QelHttpDnsCenterManager::shared().readCached(flight->key, fromStore,
                                                                      &flight->secondsLeft)) {
        return finish(flight, std::nullopt, std::move(addresses));
    }
    const std::optional<double> deadline = lookupDeadline(*flight->options);
    const bool timed =
        !deadline || qel::platform::runOnPlatformThreadAfter(*deadline, [this, flight] {
            finish(flight,
                   QelDNSUntil::errorCode(codes::kDeadlinePassed, codes::kDeadlinePassedMessage),
                   std::nullopt);
        });
    if (!timed) {
        return finish(flight, QelDNSUntil::errorCode(codes::kNeedRetry, codes::kNeedRetryMessage),
                      std::nullopt);
    }
    attempt(flight);
}

// The node the login chose first, then the rest of its list, each once. A failed login clears
// the registry's list while its node stays in use: the last list a login gave is kept for that.
std::vector<std::string> QelDNSResilientResolver::nodesOfLogin() {
    std::vector<std::string> nodes;
    auto add = [&nodes](const std::string& node) {
        if (!node.empty() && std::find(nodes.begin(), nodes.end(), node) == nodes.end()) {
            nodes.push_back(node);
        }
    };
    if (const auto preferred = QelHttpDnsCenterManager::shared().resolveUrl()) add(*preferred);
    const auto list = QelDNSAuthManager::shared().hostList();
    qel::platform::MutexLock lock(mutex_);
    if (list && !list->empty()) lastNodeList_ = *list;
    for (const std::string& node : lastNodeList_) add(node);
    return nodes;
}

void QelDNSResilientResolver::attempt(const FlightRef& flight) {
    const std::optional<std::string> node = health_.pick(nodesOfLogin(), Clock::now());
    {
        qel::platform::MutexLock lock(mutex_);
        if (flight->done) return;
        if (node) {
            ++flight->attempts;
            flight->announce([&node](const QelDNSLookupHandle& lookup) {
                QelDNSLookupEvents::requestSent(lookup, node);
            });
        }
    }
    if (!node) {
        return finish(flight,
                      QelDNSUntil::errorCode(codes::kAllNodesFailed, codes::kAllNodesFailedMessage),
                      std::nullopt);
    }
    QelHttpDnsCenterManager::shared().sendResolve(
        node, flight->domain, flight->type,
        [this, flight, node = *node](std::optional<QelDNSError> error,
                                     QelDNSIPModelListRef records) {
            onAnswer(flight, node, std::move(error), std::move(records));
        });
}

void QelDNSResilientResolver::onAnswer(const FlightRef& flight, const std::string& node,
                                       std::optional<QelDNSError> error,
                                       QelDNSIPModelListRef records) {
    if (!error) {
        health_.answered(node);
        // Stored even when the deadline has passed: the next lookup finds it.
        std::vector<std::string> addresses = QelHttpDnsCenterManager::filterIPs(*records);
        flight->secondsLeft = QelHttpDnsCenterManager::secondsLeft(*records);
        QelHttpDnsCenterManager::shared().storeAnswer(std::move(records), flight->key);
        if (addresses.empty()) {
            return finish(
                flight,
                QelDNSUntil::errorCode(codes::kResolveEmptyData, codes::kResolveEmptyDataMessage),
                std::nullopt);
        }
        return finish(flight, std::nullopt, std::move(addresses));
    }
    const bool nodeFailed = error->code() == codes::kNeedRetry;
    if (nodeFailed) {
        const QelDNSResilienceOptions& options = *flight->options;
        health_.failed(node, Clock::now(), options.failuresToRest, options.nodeRest,
                       options.maxNodeRest);
    }
    int attempts;
    {
        qel::platform::MutexLock lock(mutex_);
        if (flight->done) return;
        flight->announce([&error](const QelDNSLookupHandle& lookup) {
            QelDNSLookupEvents::attemptFailed(lookup, *error);
        });
        flight->lastError = error;
        attempts = flight->attempts;
    }
    if (isFinal(*error) || attempts >= flight->options->maxAttempts) {
        return finish(flight, std::move(error), std::nullopt);
    }
    if (nodeFailed) return attempt(flight);  // the next node, at once
    retryLater(flight, attempts);
}

void QelDNSResilientResolver::retryLater(const FlightRef& flight, int attempts) {
    const QelDNSResilienceOptions& options = *flight->options;
    const double delay = std::min(
        options.lastBackoff, options.firstBackoff * std::ldexp(1.0, std::min(attempts - 1, 30)));
    if (!qel::platform::runOnPlatformThreadAfter(jittered(delay),
                                                 [this, flight] { attempt(flight); })) {
        finish(flight, QelDNSUntil::errorCode(codes::kNeedRetry, codes::kNeedRetryMessage),
               std::nullopt);
    }
}

void QelDNSResilientResolver::finish(const FlightRef& flight, std::optional<QelDNSError> error,
                                     std::optional<std::vector<std::string>> addresses) {
    std::vector<Waiter> waiters;
    {
        qel::platform::MutexLock lock(mutex_);
        if (flight->done) return;
        flight->done = true;
        waiters.swap(flight->waiters);
        const auto entry = flights_.find(flight->key);
        if (entry != flights_.end() && entry->second == flight) flights_.erase(entry);
    }
    if (addresses) {
        for (const Waiter& waiter : waiters) {
            QelDNSLookupEvents::lifetimeKnown(waiter.lookup, flight->secondsLeft);
        }
    }
    for (Waiter& waiter : waiters)
        QelDNSCallbacks::callCatching(waiter.completion, error, addresses);
}
