#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"

#include <memory>
#include <utility>

#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSJSONValue.h"
#include "QelHttpDnsSDK/Other/QelDNSNullable.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/Clock.h"

namespace {

namespace codes = QelDNSErrorCodes;

std::string signature(const std::optional<std::string>& package,
                      const std::optional<std::string>& authSecret, double timestamp,
                      const std::optional<std::string>& host, int32_t type) {
    const std::string signedText = QelDNSNullable::text(package) + "-" +
                                   QelDNSNullable::text(host) + "-" +
                                   std::to_string(static_cast<int64_t>(timestamp)) + "-" +
                                   std::to_string(type) + "-" + QelDNSNullable::text(authSecret);
    return QelDNSUntil::MD5ForLower32Bate(signedText);
}

}  // namespace

void QelDNSGetIPs::handleAnswer(const std::optional<std::string>& domain, int32_t type,
                                const Completion& completion, std::optional<QelDNSError> error,
                                const std::optional<nlohmann::json>& result) {
    if (!completion) return;
    if (error) {
        completion(std::move(error), nullptr);
        return;
    }
    const nlohmann::json& answer = QelDNSJSONValue::answerOf(result);
    if (auto failure = QelDNSJSONValue::statusError(answer)) {
        completion(std::move(failure), nullptr);
        return;
    }
    const auto host = QelDNSJSONValue::stringValue(QelDNSJSONValue::member(answer, "host"));
    const auto ips = QelDNSJSONValue::stringArrayValue(QelDNSJSONValue::member(answer, "ip_list"));
    const int32_t ttl = QelDNSJSONValue::int32Value(QelDNSJSONValue::member(answer, "ttl"));

    if (!host || !domain || *host != *domain) {
        completion(
            QelDNSUntil::errorCode(codes::kResolveInvalidData, codes::kResolveInvalidDataMessage),
            nullptr);
        return;
    }
    if (!ips || ips->empty()) {
        completion(
            QelDNSUntil::errorCode(codes::kResolveEmptyData, codes::kResolveEmptyDataMessage),
            nullptr);
        return;
    }
    auto records = std::make_shared<QelDNSIPModelList>();
    records->reserve(ips->size());
    for (const std::string& ip : *ips) {
        auto record = std::make_shared<QelDNSIPModel>();
        record->setType(type);
        record->setDomain(domain);
        record->setIp(ip);
        record->setTtl(ttl);
        record->setLookupTime(qel::platform::Clock::currentTime());
        records->push_back(std::move(record));
    }
    completion(std::nullopt, std::move(records));
}

void QelDNSGetIPs::getIPsWithUrl(const std::optional<std::string>& url, int32_t type,
                                 const std::optional<std::string>& authId,
                                 const std::optional<std::string>& authSecret,
                                 const std::optional<std::string>& domain, Completion completion) {
    const std::string path = "/" + QelDNSNullable::text(authId) + "/resolve";
    // Read once each, so the URL and the signature carry the same values.
    const double timestamp = qel::platform::Clock::currentTime() * 1000.0;
    const auto package = QelDNSUntil::currentPackageName();
    const std::string sign = signature(package, authSecret, timestamp, domain, type);
    if (sign.empty()) {  // never sent unsigned: it fails like a request that could not go out
        handleAnswer(domain, type, completion,
                     QelDNSUntil::errorCode(codes::kNeedRetry, codes::kNeedRetryMessage),
                     std::nullopt);
        return;
    }
    const std::string requestUrl = QelDNSNullable::text(url) + path +
                                   "?timestamp=" + std::to_string(static_cast<int64_t>(timestamp)) +
                                   "&host=" + QelDNSNullable::text(domain) +
                                   "&type=" + std::to_string(type) +
                                   "&app_id=" + QelDNSNullable::text(package);
    const nlohmann::json headers = {{"Authorization", "MD5 " + sign}};
    get(requestUrl, headers,
        [domain, type, completion = std::move(completion)](std::optional<QelDNSError> error,
                                                           std::optional<nlohmann::json> result) {
            handleAnswer(domain, type, completion, std::move(error), result);
        });
}

std::string QelDNSGetIPs::calcSignWithAuthSecret(const std::optional<std::string>& authSecret,
                                                 double timestamp,
                                                 const std::optional<std::string>& host,
                                                 int32_t type) {
    return signature(QelDNSUntil::currentPackageName(), authSecret, timestamp, host, type);
}

void QelDNSGetIPs::getIPsWithDomains(const std::vector<std::string>& /*domains*/,
                                     Completion /*completion*/) {
    post(std::string(QelDNS_SDK_NET_DEFAULT_BASE_URL), nlohmann::json::object(),
         nlohmann::json::object(),
         [](std::optional<QelDNSError>, std::optional<nlohmann::json>) {});
}
