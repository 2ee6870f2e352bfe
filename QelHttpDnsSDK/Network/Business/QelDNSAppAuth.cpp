#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"

#include <utility>

#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSJSONValue.h"
#include "QelHttpDnsSDK/Other/QelDNSNullable.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/Clock.h"

namespace {

namespace codes = QelDNSErrorCodes;

std::string signature(const std::optional<std::string>& package,
                      const std::optional<std::string>& authSecret, double timestamp) {
    const std::string signedText = QelDNSNullable::text(package) + "-" +
                                   std::to_string(static_cast<int64_t>(timestamp)) + "-" +
                                   QelDNSNullable::text(authSecret);
    return QelDNSUntil::MD5ForLower32Bate(signedText);
}

}  // namespace

void QelDNSAppAuth::handleAnswer(const std::optional<std::string>& authId,
                                 const Completion& completion, std::optional<QelDNSError> error,
                                 const std::optional<nlohmann::json>& result) {
    if (!completion) return;
    if (error) {
        completion(std::move(error), std::nullopt, std::nullopt);
        return;
    }
    const nlohmann::json& answer = QelDNSJSONValue::answerOf(result);
    if (auto failure = QelDNSJSONValue::statusError(answer)) {
        completion(std::move(failure), std::nullopt, std::nullopt);
        return;
    }
    const auto answeredId =
        QelDNSJSONValue::stringValue(QelDNSJSONValue::member(answer, "auth_id"));
    const auto bestNode =
        QelDNSJSONValue::stringValue(QelDNSJSONValue::member(answer, "best_service_node"));
    auto nodeList =
        QelDNSJSONValue::stringArrayValue(QelDNSJSONValue::member(answer, "service_node_list"));

    if (!answeredId || !authId || *answeredId != *authId) {
        completion(
            QelDNSUntil::errorCode(codes::kLoginInvalidData, codes::kLoginInvalidDataMessage),
            std::nullopt, std::nullopt);
    } else if (bestNode && !bestNode->empty()) {
        completion(std::nullopt, bestNode, std::move(nodeList));
    } else if (nodeList && !nodeList->empty()) {
        std::string first = nodeList->front();
        completion(std::nullopt, std::move(first), std::move(nodeList));
    } else {
        completion(QelDNSUntil::errorCode(codes::kLoginEmptyData, codes::kLoginEmptyDataMessage),
                   std::nullopt, std::nullopt);
    }
}

void QelDNSAppAuth::authWithUrl(const std::optional<std::string>& url,
                                const std::optional<std::string>& authId,
                                const std::optional<std::string>& authSecret,
                                Completion completion) {
    const std::string path = "/" + QelDNSNullable::text(authId) + "/service";
    // Read once each, so the URL and the signature carry the same values.
    const double timestamp = qel::platform::Clock::currentTime() * 1000.0;
    const auto package = QelDNSUntil::currentPackageName();
    const std::string sign = signature(package, authSecret, timestamp);
    if (sign.empty()) {  // never sent unsigned: it fails like a request that could not go out
        handleAnswer(authId, completion,
                     QelDNSUntil::errorCode(codes::kNeedRetry, codes::kNeedRetryMessage),
                     std::nullopt);
        return;
    }
    const std::string requestUrl = QelDNSNullable::text(url) + path +
                                   "?timestamp=" + std::to_string(static_cast<int64_t>(timestamp)) +
                                   "&app_id=" + QelDNSNullable::text(package);
    const nlohmann::json headers = {{"Authorization", "MD5 " + sign}};
    get(requestUrl, headers,
        [authId, completion = std::move(completion)](std::optional<QelDNSError> error,
                                                     std::optional<nlohmann::json> result) {
            handleAnswer(authId, completion, std::move(error), result);
        });
}

std::string QelDNSAppAuth::calcSignWithAuthSecret(const std::optional<std::string>& authSecret,
                                                  double timestamp) {
    return signature(QelDNSUntil::currentPackageName(), authSecret, timestamp);
}
