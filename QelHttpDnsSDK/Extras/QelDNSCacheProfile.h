// Opt-in cache settings for long-running programs, all off by default: a bound on the names
// kept in memory, a maximum age for the entries of the store, stale answers while they are
// renewed, and answers kept per network. Without them the cache behaves exactly as the
// manager's documentation says (unbounded, entries kept until cleared or refreshed).
//
// Threads: callable from any thread; lookups made after the call use the new settings.
#pragma once

#include <cstddef>

#include "QelHttpDnsSDK/QelDNSExport.h"

struct QelDNSCacheOptions {
    /// Names kept in memory at most (a name's IPv4 and IPv6 answers count as two); 0: no
    /// bound. Past it the name least likely to be read again goes (SIEVE eviction: a name read
    /// since the last pass survives); its entry in the store stays.
    size_t maxNames = 0;
    /// Seconds an entry of the store is kept after its last record expired; 0: until cleared.
    /// Older entries are removed when the setting is made and then in the background, a few
    /// at a time, at least every `maxAge` (and every hour at most).
    double maxAge = 0;
    /// Seconds after its expiry an answer may still be given, at once, when no live one is
    /// there; one request per name renews it in the background, and while renewals fail the
    /// old answer is given until it is this old. 0: never.
    double maxStale = 0;
    /// Answers are kept per network (the default route's interface and gateway), so a move to
    /// another network and back answers from the entries made there.
    bool perNetwork = false;
};

class QEL_EXPORT QelDNSCacheProfile {
public:
    QelDNSCacheProfile() = delete;

    /// Applies `options` (replacing earlier ones).
    static void enable(const QelDNSCacheOptions& options);
    /// Back to the defaults: no bound, no maximum age, no stale answers, one network.
    static void disable();
};
