// The resolver behind the public manager. It owns the resolve node address, the account
// credentials, the caching switches, the attempt limit and the one pending lookup (domain and
// type, last writer wins); it answers a lookup from QelDNSCacheManager or from the resolve
// service (QelDNSGetIPs), retries, fails over to the next node of QelDNSAuthManager, stores
// fresh answers, and refreshes the latest lookup's entry when the network changes.
//
// Threads: every operation may be called from any thread. A cache hit is answered on the
// caller's thread before `getIPsWithDomain` returns; every other answer, every retry and the
// network-change refresh run on the platform thread. The fields are guarded (atomics, and one
// mutex for the strings) and no lock is held while the cache, the transport, the registry or
// a completion runs; a thread repeating the lookup it made last, while that is still the
// pending one, takes no lock at all. A completion that throws on the platform thread is
// caught and logged.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Manager/QelDNSPendingLookup.h"
#include "QelHttpDnsSDK/Manager/QelDNSStaleRefresh.h"
#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/Other/QelDNSLookupEvents.h"

class QelHttpDnsCenterManager {
public:
    /// Receives (error, nothing) or (nothing, the addresses), exactly once per lookup.
    using Completion = std::function<void(std::optional<QelDNSError> error,
                                          std::optional<std::vector<std::string>> ips)>;
    /// Receives (error, null) or (nothing, a non-empty list of records), exactly once.
    using RecordsCompletion =
        std::function<void(std::optional<QelDNSError> error, QelDNSIPModelListRef records)>;

    /// The one resolver of the process: made on first use (which starts network monitoring
    /// and installs the network-change refresh), never destroyed.
    static QelHttpDnsCenterManager& shared();

    QelHttpDnsCenterManager(const QelHttpDnsCenterManager&) = delete;
    QelHttpDnsCenterManager& operator=(const QelHttpDnsCenterManager&) = delete;

    /// Sets `authId`, then `authSecret`.
    void setupWithAuthId(std::optional<std::string> authId, std::optional<std::string> authSecret);

    /// Looks `domain` up. The cache key is the domain followed by the suffix of the PREVIOUS
    /// lookup's type (taken before this call stores its own type), and is the key this lookup
    /// reads and stores under. With `cacheIP` a cached list with an address answers at once on the
    /// calling thread; otherwise the service is asked (`requestIPsWithRetryCount(0, ...)`) and
    /// a success is stored (when `cacheIP` still holds) before the completion runs. An empty
    /// completion is allowed: the answer is then dropped.
    /// `lookup`: the handle of a lookup a listener follows (null: none), passed on to every
    /// attempt; the cache read, each request, failure and node switch are announced with it.
    void getIPsWithDomain(const std::optional<std::string>& domain, int64_t type,
                          Completion completion, QelDNSLookupHandle lookup = nullptr);

    /// One attempt of the pending lookup, `count` attempts having been made before it:
    /// - the limit `retryCountNum` (0: none) reached: (-1 "request error") at once;
    /// - the service answers: (nothing, records);
    /// - -30000 (node failure): the limit is switched off and the registry is stepped; only a
    ///   next node equal to `resolveUrl` leads on, through two more steps, to a new
    ///   `resolveUrl` and the next attempt; otherwise (-1 "service unavailable");
    /// - 403: the limit is switched off and the error is passed on;
    /// - any other error: the next attempt at once.
    /// Each attempt reads the pending domain and type afresh.
    void requestIPsWithRetryCount(int32_t count, RecordsCompletion completion,
                                  QelDNSLookupHandle lookup = nullptr);

    /// Stores `domain` and `type` as the pending lookup (the one a network change refreshes)
    /// and returns the key the design's rule gives it: see getIPsWithDomain.
    const std::string& notePending(const std::optional<std::string>& domain, int64_t type) {
        return pending_.store(domain, type);
    }
    /// With `cacheIP`, the addresses cached under `key` (memory, else the store; expired ones
    /// only with `expiredIP`), or nothing when none is left. `fromStore` tells where.
    /// `secondsLeft`, when given, receives the records' shortest remaining lifetime.
    std::optional<std::vector<std::string>> readCached(const std::string& key, bool& fromStore,
                                                       int64_t* secondsLeft = nullptr);
    /// The shortest remaining lifetime of `records`, in seconds rounded up, 0 when expired.
    static int64_t secondsLeft(const QelDNSIPModelList& records);
    /// A cache read under `key` as a lookup makes it (call it with `cacheIP` on): with an
    /// address there, the completion gets the addresses on the calling thread and it returns
    /// true; otherwise false. The read, its outcome and the answer's lifetime are announced.
    bool answerFromCache(const std::string& key, Completion& completion,
                         const QelDNSLookupHandle& lookup);
    /// Keeps `records` under `key`, in memory and, with `cacheIP`, in the store.
    void storeAnswer(QelDNSIPModelListRef records, const std::string& key);
    /// One resolve request for `domain` and `type` to `node`, signed with the credentials of
    /// the login; no retry. The completion runs as QelDNSGetIPs::getIPsWithUrl's does.
    void sendResolve(const std::optional<std::string>& node,
                     const std::optional<std::string>& domain, int64_t type,
                     RecordsCompletion completion);

    /// The address of every record, in order (records without one are left out).
    static std::vector<std::string> filterIPs(const QelDNSIPModelList& ips);

    /// Whether the network manager sees a usable network now.
    bool checkNetworkAvailable();
    /// Empties the cache in memory and its entries in the store.
    void clearAllCache();

    bool serviceEnable() const { return serviceEnable_.load(std::memory_order_acquire); }
    void setServiceEnable(bool serviceEnable) {
        serviceEnable_.store(serviceEnable, std::memory_order_release);
    }
    bool cacheIP() const { return cacheIP_.load(std::memory_order_acquire); }
    void setCacheIP(bool cacheIP) { cacheIP_.store(cacheIP, std::memory_order_release); }
    bool expiredIP() const { return expiredIP_.load(std::memory_order_acquire); }
    void setExpiredIP(bool expiredIP) { expiredIP_.store(expiredIP, std::memory_order_release); }
    /// An answer expired at most `seconds` ago (0, the default: none) is given at once when
    /// there is no live one, and one request per key renews it in the background (its own
    /// name and family); a failed renewal leaves it to be given until it is too old.
    void setMaxStale(double seconds) { maxStale_.store(seconds, std::memory_order_release); }
    /// With `perNetwork` (off by default) answers are read and kept under the cache key
    /// followed by "@" and the network's name (ReachabilitySourceFactory::networkIdentity), so
    /// that a move back to a network finds the answers given there.
    void setAnswersPerNetwork(bool perNetwork) {
        perNetwork_.store(perNetwork, std::memory_order_release);
    }
    bool answersPerNetwork() const { return perNetwork_.load(std::memory_order_acquire); }

    int32_t retryCountNum() const { return retryCountNum_.load(std::memory_order_acquire); }
    void setRetryCountNum(int32_t retryCountNum) {
        retryCountNum_.store(retryCountNum, std::memory_order_release);
    }
    int64_t type() const { return pending_.type(); }
    void setType(int64_t type) { pending_.setType(type); }

    std::optional<std::string> resolveUrl() const;
    void setResolveUrl(std::optional<std::string> resolveUrl);
    std::optional<std::string> domain() const { return pending_.domain(); }
    void setDomain(std::optional<std::string> domain) { pending_.setDomain(std::move(domain)); }
    // Write-only: the credentials are read only by the resolve requests this class signs.
    void setAuthId(std::optional<std::string> authId);
    void setAuthSecret(std::optional<std::string> authSecret);

private:
    QelHttpDnsCenterManager() = default;
    void init();

    void handleAttempt(int32_t count, const RecordsCompletion& completion,
                       const QelDNSLookupHandle& lookup, std::optional<QelDNSError> error,
                       QelDNSIPModelListRef records);
    void switchNode(int32_t count, const RecordsCompletion& completion,
                    const QelDNSLookupHandle& lookup);
    void networkStatusChanged();
    // `key` as the cache holds it: followed by the network's name when answers are per network.
    std::string placedKey(const std::string& key) const;
    // An expired answer young enough to give (see setMaxStale), its renewal started.
    std::optional<std::vector<std::string>> readStale(const std::string& key, bool& fromStore);
    void refreshStale(const std::string& key, const std::string& placed, double started);

    std::atomic<bool> serviceEnable_{false};
    std::atomic<bool> cacheIP_{false};
    std::atomic<bool> expiredIP_{false};
    std::atomic<int32_t> retryCountNum_{0};
    std::atomic<double> maxStale_{0};
    std::atomic<bool> perNetwork_{false};
    QelDNSStaleRefresh staleRefresh_;
    QelDNSPendingLookup pending_;  // domain and type of the lookup made last

    mutable qel::platform::Mutex mutex_;
    std::optional<std::string> resolveUrl_ QEL_GUARDED_BY(mutex_);
    std::optional<std::string> authId_ QEL_GUARDED_BY(mutex_);
    std::optional<std::string> authSecret_ QEL_GUARDED_BY(mutex_);
};
