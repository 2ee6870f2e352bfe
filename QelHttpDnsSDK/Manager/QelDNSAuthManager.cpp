#include "QelHttpDnsSDK/Manager/QelDNSAuthManager.h"

#include <stdexcept>
#include <utility>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

namespace {
namespace codes = QelDNSErrorCodes;
}  // namespace

QelDNSAuthManager& QelDNSAuthManager::shared() {
    // Never destroyed: login answers still on their way may use it at exit.
    static QelDNSAuthManager* const instance = new QelDNSAuthManager();
    return *instance;
}

void QelDNSAuthManager::setupWithAuthId(std::optional<std::string> authId,
                                        std::optional<std::string> authSecret) {
    setAuthId(std::move(authId));
    setAuthSecret(std::move(authSecret));
}

void QelDNSAuthManager::authWithCompletion(Completion completion) {
    const auto id = authId();
    const auto secret = authSecret();
    if (!id || id->empty()) {
        if (completion) {
            completion(QelDNSUntil::errorCode(codes::kAuthIdMissing, codes::kAuthIdMissingMessage),
                       std::nullopt);
        }
        return;
    }
    if (!secret || secret->empty()) {
        if (completion) {
            completion(
                QelDNSUntil::errorCode(codes::kAuthSecretMissing, codes::kAuthSecretMissingMessage),
                std::nullopt);
        }
        return;
    }
    std::string baseUrl = QelDNS_SDK_NET_DEFAULT_BASE_URL;
    if (auto custom = customServUrl(); custom && !custom->empty()) baseUrl = std::move(*custom);

    QelDNSAppAuth::authWithUrl(
        baseUrl, id, secret,
        [this, completion = std::move(completion)](
            std::optional<QelDNSError> error, std::optional<std::string> node,
            std::optional<std::vector<std::string>> nodeList) {
            setHostList(std::move(nodeList));
            if (completion) completion(std::move(error), std::move(node));
        });
}

std::optional<std::string> QelDNSAuthManager::getNextHost() {
    qel::platform::MutexLock lock(mutex_);
    const int64_t next = static_cast<int64_t>(activateHostIndex_) + 1;
    const uint64_t count = hostList_ ? hostList_->size() : 0;
    // Unsigned on purpose: an absent list (count 0) wraps to the largest value and passes.
    if (count - 1 < static_cast<uint64_t>(next)) return std::nullopt;
    // Wrapping increment: the index is 32 bits and an absent list lets it grow without end.
    activateHostIndex_ = static_cast<int32_t>(static_cast<uint32_t>(activateHostIndex_) + 1u);
    if (!hostList_) return std::nullopt;
    const int32_t index = activateHostIndex_;
    if (index < 0 || static_cast<size_t>(index) >= hostList_->size()) {
        throw std::out_of_range("QelDNSAuthManager::getNextHost: index " + std::to_string(index) +
                                " beyond a node list of " + std::to_string(hostList_->size()));
    }
    return (*hostList_)[static_cast<size_t>(index)];
}

std::optional<std::string> QelDNSAuthManager::authId() const {
    qel::platform::MutexLock lock(mutex_);
    return authId_;
}

void QelDNSAuthManager::setAuthId(std::optional<std::string> authId) {
    qel::platform::MutexLock lock(mutex_);
    authId_ = std::move(authId);
}

std::optional<std::string> QelDNSAuthManager::authSecret() const {
    qel::platform::MutexLock lock(mutex_);
    return authSecret_;
}

void QelDNSAuthManager::setAuthSecret(std::optional<std::string> authSecret) {
    qel::platform::MutexLock lock(mutex_);
    authSecret_ = std::move(authSecret);
}

std::optional<std::string> QelDNSAuthManager::customServUrl() const {
    qel::platform::MutexLock lock(mutex_);
    return customServUrl_;
}

void QelDNSAuthManager::setCustomServUrl(std::optional<std::string> customServUrl) {
    qel::platform::MutexLock lock(mutex_);
    customServUrl_ = std::move(customServUrl);
}

int32_t QelDNSAuthManager::activateHostIndex() const {
    qel::platform::MutexLock lock(mutex_);
    return activateHostIndex_;
}

std::optional<std::vector<std::string>> QelDNSAuthManager::hostList() const {
    qel::platform::MutexLock lock(mutex_);
    return hostList_;
}

void QelDNSAuthManager::setHostList(std::optional<std::vector<std::string>> hostList) {
    qel::platform::MutexLock lock(mutex_);
    hostList_ = std::move(hostList);
}
