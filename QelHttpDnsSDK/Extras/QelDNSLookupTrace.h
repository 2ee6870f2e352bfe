// What one lookup did, as reported to an installed QelDNSTraceObserver: a plain value the
// observer receives by const reference and may copy. It owns its strings and is not shared.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

struct QEL_EXPORT QelDNSLookupTrace {
    /// Where the answer came from.
    enum class Source {
        Memory,      ///< the in-memory cache, on the calling thread
        Store,       ///< the persistent store (an entry a previous process left), calling thread
        Service,     ///< the resolve service: at least one request was sent
        Refused,     ///< refused before the resolver (degraded host, bad domain, no network,
                     ///< not logged in, failed login retry): no request was sent
        Unanswered,  ///< made before the first login reply: the lookup gets no callback
    };

    /// The domain and type (1 IPv4, 2 IPv6) the application asked for.
    std::optional<std::string> domain;
    int64_t type = 0;
    /// The key the lookup read from and stored under ("a.test_v4"); empty when the cache
    /// was not used (caching off, or refused before the resolver).
    std::string cacheKey;
    Source source = Source::Refused;
    /// Requests sent to the resolve service, retries included.
    int32_t attempts = 0;
    /// The resolve nodes those requests went to, each once, in the order first used.
    std::vector<std::string> nodes;
    /// Seconds the answer's addresses have left to live (the shortest remaining TTL of their
    /// records; 0 for expired ones the cache was allowed to give); -1 without addresses.
    int64_t ttl = -1;
    /// The lookup found the login failed and logged in again before resolving.
    bool loginRetried = false;
    /// The error the lookup's callback receives; none when it receives addresses (or, for
    /// Unanswered, nothing at all).
    std::optional<QelDNSError> error;
    /// From the start of the lookup call to its answer, in microseconds.
    int64_t micros = 0;

    /// "memory", "store", "service", "refused" or "unanswered".
    static const char* sourceName(Source source) {
        switch (source) {
            case Source::Memory: return "memory";
            case Source::Store: return "store";
            case Source::Service: return "service";
            case Source::Refused: return "refused";
            case Source::Unanswered: return "unanswered";
        }
        return "unknown";
    }
};
