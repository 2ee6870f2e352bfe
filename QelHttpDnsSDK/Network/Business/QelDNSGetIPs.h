// The signed resolve request: one lookup of one domain against one resolve node.
//
//   GET <url>/<authId>/resolve?timestamp=<ms>&host=<domain>&type=<type>&app_id=<package>
//   Authorization: MD5 md5("<package>-<domain>-<ms>-<type>-<authSecret>")
//
// Stateless: no retry, no cache, no node choice (the resolver owns those). Callable from any
// thread; completions run on the platform thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"

class QelDNSGetIPs : public QelDNSRequest {
public:
    /// Receives (error, null) or (nothing, a non-empty list of records), never both.
    using Completion =
        std::function<void(std::optional<QelDNSError> error, QelDNSIPModelListRef records)>;

    /// Sends one resolve request to `url` (the node's base URL; the path is appended as it is).
    /// The completion runs once, on the platform thread (never when the transport sends
    /// nothing, for an empty URL). Transport errors are passed on unchanged. Answer rules, in
    /// order: a "status" key means failure (code = its integer value, message = "message");
    /// a "host" that is not exactly `domain` is -20002 "invalid data"; a missing or empty
    /// "ip_list" is -20003 "empty data"; otherwise one record per address, in order, with the
    /// answer's "ttl" (0 when absent) and its own lookup time. Values of the wrong JSON type
    /// count as absent; an address that is not text is kept as its JSON text. A request that cannot
    /// be signed (OpenSSL computes no MD5) is not sent: its completion receives -30000 "request
    /// error" on the calling thread, before this returns.
    static void getIPsWithUrl(const std::optional<std::string>& url, int32_t type,
                              const std::optional<std::string>& authId,
                              const std::optional<std::string>& authSecret,
                              const std::optional<std::string>& domain, Completion completion);

    /// What `getIPsWithUrl`'s request does with the transport's outcome (see
    /// `QelDNSRequest::handleResponse`): applies the answer rules above for `domain` and `type`
    /// and calls `completion` (if any) once, on the calling thread.
    static void handleAnswer(const std::optional<std::string>& domain, int32_t type,
                             const Completion& completion, std::optional<QelDNSError> error,
                             const std::optional<nlohmann::json>& result);

    /// md5 of "<package>-<host>-<timestamp truncated to an integer>-<type>-<authSecret>".
    static std::string calcSignWithAuthSecret(const std::optional<std::string>& authSecret,
                                              double timestamp,
                                              const std::optional<std::string>& host, int32_t type);

    /// Batch resolution is not offered by the service: this sends an empty POST to
    /// QelDNS_SDK_NET_DEFAULT_BASE_URL, ignores the domains and never calls the completion.
    static void getIPsWithDomains(const std::vector<std::string>& domains, Completion completion);
};
