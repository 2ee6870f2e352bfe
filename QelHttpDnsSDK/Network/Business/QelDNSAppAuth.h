// The signed login request: logs in to the service with the account's AuthId and AuthSecret
// and turns the answer into the resolve node to use and the list of all resolve nodes.
//
//   GET <base>/<authId>/service?timestamp=<ms>&app_id=<package>
//   Authorization: MD5 md5("<package>-<ms>-<authSecret>")
//
// The AuthSecret never travels; only its signature does. Stateless; callable from any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"

class QelDNSAppAuth : public QelDNSRequest {
public:
    /// Receives (error, nothing, nothing) on failure, or (nothing, node, list) on success,
    /// where the list is the service's "service_node_list" as received (possibly absent).
    using Completion =
        std::function<void(std::optional<QelDNSError> error, std::optional<std::string> node,
                           std::optional<std::vector<std::string>> nodeList)>;

    /// Sends the login to `url` (a base URL, scheme and host; the path is appended as it is).
    /// The completion runs once, on the platform thread; it is never called when the
    /// transport sends nothing (an empty URL). Absent arguments are formatted as "(null)".
    ///
    /// Answer rules, in order: a "status" key means failure (code = its integer value,
    /// message = "message"); an "auth_id" other than `authId` (exact text) is -20000
    /// "invalid data"; a non-empty "best_service_node" text is the node; else the first
    /// element of "service_node_list"; else -20001 "empty data". Values of the wrong JSON type
    /// count as absent (a non-string node, a list that is not an array); a list element that
    /// is not text is kept as its JSON text, so positions match the service's list. A request that
    /// cannot be signed (OpenSSL computes no MD5) is not sent: its completion receives -30000
    /// "request error" on the calling thread, before this returns.
    static void authWithUrl(const std::optional<std::string>& url,
                            const std::optional<std::string>& authId,
                            const std::optional<std::string>& authSecret, Completion completion);

    /// What `authWithUrl`'s request does with the transport's outcome (see
    /// `QelDNSRequest::handleResponse`): applies the answer rules above for `authId` and calls
    /// `completion` (if any) once, on the calling thread.
    static void handleAnswer(const std::optional<std::string>& authId, const Completion& completion,
                             std::optional<QelDNSError> error,
                             const std::optional<nlohmann::json>& result);

    /// md5 of "<package>-<timestamp truncated to an integer>-<authSecret>", 32 lower-case hex.
    static std::string calcSignWithAuthSecret(const std::optional<std::string>& authSecret,
                                              double timestamp);
};
