// A lookup that waits for its answer, for code that is not driven by callbacks: command-line
// tools, worker threads, the libcurl pinning. It goes through QelHttpDnsManager::getIPByDomain,
// so its refusals, codes and messages are the manager's; it adds only the wait and its limit.
//
// Threads: callable from any thread except the library's platform thread (where every network
// answer runs: waiting there would wait for itself), where it fails at once with
// kCalledOnPlatformThreadCode. It blocks the calling thread until the answer or the deadline.
// A cache hit or a refusal is answered on the calling thread without waiting. Nothing throws.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorTable.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSBlockingLookup {
public:
    /// What a blocking lookup got: exactly one of `error` and a non-empty `ips` holds.
    struct Result {
        std::optional<QelDNSError> error;
        /// The addresses as text, in the service's order; empty on error.
        std::vector<std::string> ips;

        bool ok() const { return !error; }
    };

    /// No answer before the deadline, or the manager does not answer lookups yet (no login
    /// reply) and did not start to before the deadline. Message "timed out".
    static constexpr int64_t kTimedOutCode = QEL_HTTPDNS_E_TIMED_OUT;
    /// Called on the platform thread. Message "blocking lookup on the platform thread".
    static constexpr int64_t kCalledOnPlatformThreadCode = QEL_HTTPDNS_E_PLATFORM_THREAD;

    QelDNSBlockingLookup() = delete;

    /// Looks `domain` up (type 1 IPv4, 2 IPv6) and waits at most `timeout` seconds for the
    /// answer. A timeout of 0 (or less, or NaN) takes only an answer that needs no wait: a
    /// cache hit, a refusal, or a service answer that happens to be in already. While the manager
    /// stays silent because no login reply has come yet, the lookup is asked again as soon as one
    /// has, within the same deadline. A late answer after the deadline is dropped.
    static Result resolve(const std::optional<std::string>& domain, int64_t type, double timeout);
};
