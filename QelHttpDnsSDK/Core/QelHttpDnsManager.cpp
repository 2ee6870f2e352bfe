#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"

#include <algorithm>
#include <array>
#include <utility>

#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Manager/QelDNSAuthManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSResolvePolicy.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSCallbacks.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSLookupEvents.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/Console.h"

namespace {

using Lock = std::lock_guard<std::mutex>;
namespace codes = QelDNSErrorCodes;

constexpr int64_t kStatusNeverRegistered = 0;
constexpr int64_t kStatusNoNetwork = 1;
constexpr int64_t kStatusEmptyCredentials = 2;
constexpr int64_t kStatusAuthFailed = 3;
constexpr int64_t kStatusReady = 4;

bool isPresent(const std::optional<std::string>& text) { return text && !text->empty(); }

void logFramed(const std::string& text) { QelDNSLog::logWithStr("### " + text + " ###"); }

// The callback of a followed lookup: announces the end, then answers.
QelHttpDnsManager::ReturnBlock announcingEnd(QelDNSLookupHandle lookup,
                                             QelHttpDnsManager::ReturnBlock returnBlock) {
    return [lookup = std::move(lookup), returnBlock = std::move(returnBlock)](
               std::optional<QelDNSError> error, std::optional<std::vector<std::string>> ips) {
        QelDNSLookupEvents::lookupEnded(lookup, error, true);
        if (returnBlock) returnBlock(std::move(error), std::move(ips));
    };
}

}  // namespace

QelHttpDnsManager& QelHttpDnsManager::shared() {
    static QelHttpDnsManager* const instance = new QelHttpDnsManager();
    return *instance;
}

// The resolver, and with it the cache and the network monitor, exist from the moment the
// manager does.
QelHttpDnsManager::QelHttpDnsManager() { (void)QelHttpDnsCenterManager::shared(); }

std::string QelHttpDnsManager::sdkVersion() { return QelDNS_SDK_VERSION; }

// ---------------------------------------------------------------------- registration

void QelHttpDnsManager::registerAuthId(std::optional<std::string> authId,
                                       std::optional<std::string> authSecret) {
    {
        Lock lock(mutex_);
        offeredAuthId_ = authId;
        offeredAuthSecret_ = authSecret;
    }
    // The network is asked first: without it the credentials are neither checked nor kept.
    const bool networkAvailable = checkNetworkAvailable();
    if (networkAvailable && isPresent(authId) && isPresent(authSecret)) {
        {
            Lock lock(mutex_);
            authId_.swap(authId);
            authSecret_.swap(authSecret);
        }
        authenticationRequest();
        return;
    }
    if (networkAvailable) {
        qel::platform::Console::log("### AuthId或AuthSecret不能为空！###");
        setInitStatus(kStatusEmptyCredentials);
    } else {
        logFramed(codes::kNetworkUnavailableMessage);
        setInitStatus(kStatusNoNetwork);
    }
    QelHttpDnsCenterManager::shared().setServiceEnable(false);
}

void QelHttpDnsManager::authenticationRequest() {
    std::optional<std::string> id, secret;
    {
        Lock lock(mutex_);
        id = authId_;
        secret = authSecret_;
    }
    QelDNSAuthManager& registry = QelDNSAuthManager::shared();
    registry.setupWithAuthId(std::move(id), std::move(secret));
    // The manager is never destroyed, so the reply may refer to it directly.
    registry.authWithCompletion(
        [this](std::optional<QelDNSError> error, std::optional<std::string> node) {
            if (error) {
                authFailedHandler();
            } else {
                authSucceedHandler(std::move(node));
            }
        });
}

// Logs in again with the credentials the registry already holds, then answers the lookup
// that asked for it. Concurrent lookups each send their own login.
void QelHttpDnsManager::retryAuthenticationRequestWithDomain(
    const std::optional<std::string>& domain, int64_t type, ReturnBlock returnBlock,
    LookupHandle lookup) {
    QelDNSLookupEvents::loginRetried(lookup);
    QelDNSAuthManager::shared().authWithCompletion(
        [this, domain, type, returnBlock = std::move(returnBlock), lookup = std::move(lookup)](
            std::optional<QelDNSError> error, std::optional<std::string> node) mutable {
            if (error) {
                authFailedHandler();
                QelDNSCallbacks::callCatching(
                    returnBlock, QelDNSUntil::errorCode(codes::kNotReady, currentStatusDesc()),
                    std::nullopt);
                return;
            }
            authSucceedHandler(std::move(node));
            QelHttpDnsCenterManager::shared().getIPsWithDomain(domain, type, std::move(returnBlock),
                                                               std::move(lookup));
        });
}

// Arms the resolver, then publishes status 4, then runs any pending pre-resolution. Status 4
// goes last so that a lookup on another thread that sees it finds the resolver armed: seen
// earlier, it would send its request to no node, fail over to nothing and lift the attempt
// limit for good.
void QelHttpDnsManager::authSucceedHandler(std::optional<std::string> node) {
    QelHttpDnsCenterManager& resolver = QelHttpDnsCenterManager::shared();
    std::optional<std::string> id, secret;
    {
        Lock lock(mutex_);
        id = authId_;
        secret = authSecret_;
    }
    resolver.setupWithAuthId(std::move(id), std::move(secret));
    resolver.setResolveUrl(std::move(node));
    resolver.setServiceEnable(true);
    setInitStatus(kStatusReady);
    std::optional<std::vector<QelDNSPreResolveModel>> pending;
    {
        Lock lock(mutex_);
        if (!isPreResolved()) pending = preResolveDomians_;
    }
    if (pending && !pending->empty()) preGetIPsWithDomains(*pending);
}

void QelHttpDnsManager::setInitStatus(int64_t status) {
    initStatus_.store(status, std::memory_order_release);
    { std::lock_guard<std::mutex> lock(statusMutex_); }  // a waiter checks, then sleeps, under it
    statusSet_.notify_all();
}

void QelHttpDnsManager::authFailedHandler() {
    qel::platform::Console::log("### 鉴权失败，请检查AuthId或AuthSecret是否正确 ###");
    setInitStatus(kStatusAuthFailed);
    QelHttpDnsCenterManager::shared().setServiceEnable(false);
}

void QelHttpDnsManager::preGetIPsWithDomains(const std::vector<QelDNSPreResolveModel>& domains) {
    if (domains.empty()) return;
    // Pre-resolution only fills the cache: without it there is nothing to keep.
    if (!QelHttpDnsCenterManager::shared().cacheIP()) return;
    {
        Lock lock(mutex_);
        preResolveDomians_ = domains;
    }
    const int64_t status = initStatus();
    if (status == kStatusNeverRegistered) return;
    if (!checkNetworkAvailable()) {
        logFramed(codes::kNetworkUnavailableMessage);
        return;
    }
    if (status != kStatusReady) {
        logFramed(currentStatusDesc());
        return;
    }
    isPreResolved_.store(true, std::memory_order_release);
    {
        Lock lock(mutex_);
        preResolveDomians_.reset();
    }
    for (const QelDNSPreResolveModel& entry : domains) {
        getIPByDomain(entry.domain(), entry.type(),
                      [](std::optional<QelDNSError>, std::optional<std::vector<std::string>>) {});
    }
}

// ---------------------------------------------------------------------- lookups

void QelHttpDnsManager::getIPV4ByDomain(const std::optional<std::string>& domain,
                                        ReturnBlock returnBlock) {
    getIPByDomain(domain, 1, std::move(returnBlock));
}

void QelHttpDnsManager::getIPV6ByDomain(const std::optional<std::string>& domain,
                                        ReturnBlock returnBlcok) {
    getIPByDomain(domain, 2, std::move(returnBlcok));
}

void QelHttpDnsManager::getIPByDomain(const std::optional<std::string>& domain, int64_t type,
                                      ReturnBlock returnBlock) {
    startLookup(domain, type, std::move(returnBlock));
}

bool QelHttpDnsManager::startLookup(const std::optional<std::string>& domain, int64_t type,
                                    ReturnBlock returnBlock) {
    QelDNSLookupHandle lookup = QelDNSLookupEvents::lookupStarted(domain, type);
    if (lookup) returnBlock = announcingEnd(lookup, std::move(returnBlock));
    return lookUp(domain, type, std::move(returnBlock), lookup);
}

// The order of the checks decides which error a lookup gets, and on the refusals of a bad
// domain and of no network the callback runs before the log line.
bool QelHttpDnsManager::lookUp(const std::optional<std::string>& domain, int64_t type,
                               ReturnBlock&& returnBlock, const LookupHandle& lookup) {
    if (isDegraded(domain)) {
        if (returnBlock) {
            returnBlock(QelDNSUntil::errorCode(codes::kDegradeHost, codes::kDegradeHostMessage),
                        std::nullopt);
        }
        return true;
    }
    const int64_t status = initStatus();
    if (status == kStatusNeverRegistered) {
        QelDNSLookupEvents::lookupEnded(lookup, std::nullopt, false);
        return false;
    }
    if (!checkDomainIsValid(domain)) {
        if (returnBlock) {
            returnBlock(
                QelDNSUntil::errorCode(codes::kMalformedDomain, codes::kMalformedDomainMessage),
                std::nullopt);
        }
        logFramed(codes::kMalformedDomainMessage);
        return true;
    }
    if (!checkNetworkAvailable()) {
        if (returnBlock) {
            returnBlock(QelDNSUntil::errorCode(codes::kNetworkUnavailable,
                                               codes::kNetworkUnavailableMessage),
                        std::nullopt);
        }
        logFramed(codes::kNetworkUnavailableMessage);
        return true;
    }
    QelDNSResolvePolicy* const policy = QelDNSResolvePolicy::installed();
    if (status == kStatusReady) {
        if (policy) {
            policy->resolve(domain, type, std::move(returnBlock), lookup);
        } else {
            QelHttpDnsCenterManager::shared().getIPsWithDomain(domain, type, std::move(returnBlock),
                                                               lookup);
        }
        return true;
    }
    if (status == kStatusAuthFailed) {
        if (!policy || !policy->whileLoginFailed(domain, type, returnBlock, lookup)) {
            retryAuthenticationRequestWithDomain(domain, type, std::move(returnBlock), lookup);
        }
        return true;
    }
    const std::string description = currentStatusDesc();
    logFramed(description);
    if (returnBlock)
        returnBlock(QelDNSUntil::errorCode(codes::kNotReady, description), std::nullopt);
    return true;
}

bool QelHttpDnsManager::isDegraded(const std::optional<std::string>& domain) const {
    if (!domain || !hasDegradeHosts_.load(std::memory_order_acquire)) return false;
    Lock lock(mutex_);
    return degradeHosts_ &&
           std::find(degradeHosts_->begin(), degradeHosts_->end(), *domain) != degradeHosts_->end();
}

std::string QelHttpDnsManager::currentStatusDesc() const {
    switch (initStatus()) {
        case kStatusNoNetwork: return codes::kNetworkUnavailableMessage;
        case kStatusEmptyCredentials: return "AuthId或AuthSecret不能为空";
        case kStatusAuthFailed: return "鉴权失败，请检查AuthId或AuthSecret是否正确";
        default: return "";
    }
}

// ---------------------------------------------------------------------- settings

void QelHttpDnsManager::customServerUrl(std::optional<std::string> url) {
    QelDNSAuthManager::shared().setCustomServUrl(std::move(url));
}

void QelHttpDnsManager::enableCacheIP(bool enable) {
    QelHttpDnsCenterManager::shared().setCacheIP(enable);
}

void QelHttpDnsManager::enableExpiredIp(bool enable) {
    QelHttpDnsCenterManager::shared().setExpiredIP(enable);
}

void QelHttpDnsManager::cleanAllCache() { QelHttpDnsCenterManager::shared().clearAllCache(); }

void QelHttpDnsManager::consolePrintLogEnable(bool enable) {
    if (enable) {
        QelDNSLog::enable();
    } else {
        QelDNSLog::disable();
    }
}

bool QelHttpDnsManager::checkNetworkAvailable() {
    return QelHttpDnsCenterManager::shared().checkNetworkAvailable();
}

// No memo of names found valid: the check costs less than comparing and copying the name (a
// memo of one name made a hit on one name 1.26x faster and a random hit over 4096 names 1.15x
// slower: bench/public_manager_bench).
bool QelHttpDnsManager::checkDomainIsValid(const std::optional<std::string>& domain) const {
    if (!QelDNSUntil::isDomain(domain)) return false;
    // A host name can be an address only as a dotted quad (IPv6 text has colons), which starts
    // and ends with a digit: most names are told apart by their first byte.
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (!isDigit(domain->front()) || !isDigit(domain->back())) return true;
    const bool digitsAndDots = domain->find_first_not_of("0123456789.") == std::string::npos;
    return !(digitsAndDots && QelDNSUntil::isIP(domain));
}

std::optional<std::vector<std::string>> QelHttpDnsManager::degradeHosts() const {
    Lock lock(mutex_);
    return degradeHosts_;
}

void QelHttpDnsManager::setDegradeHosts(std::optional<std::vector<std::string>> degradeHosts) {
    Lock lock(mutex_);
    degradeHosts_.swap(degradeHosts);
    hasDegradeHosts_.store(degradeHosts_ && !degradeHosts_->empty(), std::memory_order_release);
}

double QelHttpDnsManager::timeout() const { return QelDNSRequest::timeout(); }

void QelHttpDnsManager::setTimeout(double timeout) { QelDNSRequest::setTimeout(timeout); }
