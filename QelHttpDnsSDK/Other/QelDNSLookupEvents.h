// Where the public manager and the resolver announce what a lookup does, for one listener to
// follow: an extension (the traces of Extras/) sets it; none is set by default. A lookup being
// followed carries a handle that the listener made when it started, passed explicitly from the
// manager through the resolver's attempts; an unfollowed lookup carries a null handle, and the
// announcements then cost a null check. The listener itself is looked up once per lookup, as
// it starts.
//
// Threads: each event arrives on the thread doing the work: the caller's for the checks and
// cache reads, the platform thread for requests and their answers. Events of one lookup never
// overlap: each hand-over between threads goes through the platform's task queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Other/QelDNSError.h"

/// One followed lookup, as its listener keeps it; defined by the listener.
struct QelDNSObservedLookup;
using QelDNSLookupHandle = std::shared_ptr<QelDNSObservedLookup>;

/// Must be thread-safe and must not throw; once set, it must live for the rest of the process,
/// since a lookup started earlier may still announce to it after it was unset.
class QelDNSLookupListener {
public:
    enum class CacheRead { Miss, Memory, Store };

    virtual ~QelDNSLookupListener() = default;
    /// A call of getIPByDomain (or of a pre-resolution entry) starts; null: not followed.
    virtual QelDNSLookupHandle lookupStarted(const std::optional<std::string>& domain,
                                             int64_t type) = 0;
    /// The cache was read under `key`.
    virtual void cacheRead(QelDNSObservedLookup& lookup, const std::string& key,
                           CacheRead read) = 0;
    /// The login had failed: the lookup logs in again before it resolves.
    virtual void loginRetried(QelDNSObservedLookup& lookup) = 0;
    /// A resolve request is being sent to `node`.
    virtual void requestSent(QelDNSObservedLookup& lookup,
                             const std::optional<std::string>& node) = 0;
    /// A resolve request failed with `error`; what follows is a retry, a node switch or the end.
    virtual void attemptFailed(QelDNSObservedLookup& lookup, const QelDNSError& error) = 0;
    /// The answer's addresses have `seconds` left to live: the shortest remaining TTL of their
    /// records, from the cache or the service (0 for expired records that were allowed).
    virtual void lifetimeKnown(QelDNSObservedLookup& lookup, int64_t seconds) = 0;
    /// The resolver moved to the resolve node `node`.
    virtual void nodeSwitched(QelDNSObservedLookup& lookup,
                              const std::optional<std::string>& node) = 0;
    /// The lookup ends: just before its callback receives `error` or the addresses, or, when
    /// not `answered`, without any callback (made before the first login reply).
    virtual void lookupEnded(QelDNSObservedLookup& lookup, const std::optional<QelDNSError>& error,
                             bool answered) = 0;
};

namespace QelDNSLookupEvents {

namespace detail {
extern std::atomic<QelDNSLookupListener*> listener;
}  // namespace detail

/// Sets the listener of the lookups that start from now on; null: none.
void setListener(QelDNSLookupListener* listener);

/// The listener now. An acquire load: a plain load on the usual processors.
inline QelDNSLookupListener* listener() { return detail::listener.load(std::memory_order_acquire); }

/// A handle for a lookup starting now: null unless a listener follows it.
inline QelDNSLookupHandle lookupStarted(const std::optional<std::string>& domain, int64_t type) {
    QelDNSLookupListener* const current = listener();
    return current ? current->lookupStarted(domain, type) : nullptr;
}

// The announcements of a lookup under way: nothing for a null handle. They go to the listener
// set now; one that was unset meanwhile hears no more of the lookups it followed.
template <typename Announcement>
void announce(const QelDNSLookupHandle& lookup, Announcement&& announcement) {
    if (!lookup) return;
    if (QelDNSLookupListener* const current = listener()) announcement(*current, *lookup);
}

inline void cacheRead(const QelDNSLookupHandle& lookup, const std::string& key,
                      QelDNSLookupListener::CacheRead read) {
    announce(lookup, [&](auto& to, auto& of) { to.cacheRead(of, key, read); });
}
inline void lifetimeKnown(const QelDNSLookupHandle& lookup, int64_t seconds) {
    announce(lookup, [&](auto& to, auto& of) { to.lifetimeKnown(of, seconds); });
}
inline void loginRetried(const QelDNSLookupHandle& lookup) {
    announce(lookup, [](auto& to, auto& of) { to.loginRetried(of); });
}
inline void requestSent(const QelDNSLookupHandle& lookup, const std::optional<std::string>& node) {
    announce(lookup, [&](auto& to, auto& of) { to.requestSent(of, node); });
}
inline void attemptFailed(const QelDNSLookupHandle& lookup, const QelDNSError& error) {
    announce(lookup, [&](auto& to, auto& of) { to.attemptFailed(of, error); });
}
inline void nodeSwitched(const QelDNSLookupHandle& lookup, const std::optional<std::string>& node) {
    announce(lookup, [&](auto& to, auto& of) { to.nodeSwitched(of, node); });
}
inline void lookupEnded(const QelDNSLookupHandle& lookup, const std::optional<QelDNSError>& error,
                        bool answered) {
    announce(lookup, [&](auto& to, auto& of) { to.lookupEnded(of, error, answered); });
}

}  // namespace QelDNSLookupEvents
