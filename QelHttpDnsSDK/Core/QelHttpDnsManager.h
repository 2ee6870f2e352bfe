// The public manager: the one class an application talks to. It holds the application's
// settings (hosts left to the system resolver, the request timeout), the registration state
// and the lookup entry points, and decides for every lookup whether the SDK can serve it.
//
// Typical use:
//   auto& dns = QelHttpDnsManager::shared();
//   dns.enableCacheIP(true);
//   dns.registerAuthId("my-id", "my-secret");          // logs in asynchronously
//   dns.getIPV4ByDomain("www.example.com", [](auto error, auto ips) { ... });
//
// Threads: every operation may be called from any thread. Refusals and cache hits call back
// on the calling thread before the lookup returns; answers from the service, login results
// and everything they trigger run on the library's one platform thread, one at a time.
// Callbacks are never moved to another thread. Nothing throws; every failure of a lookup
// reaches its callback as a QelDNSError (see docs/errors.md for the codes).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Model/QelDNSPreResolveModel.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

struct QelDNSObservedLookup;

class QEL_EXPORT QelHttpDnsManager {
public:
    /// A lookup's callback. In every call exactly one argument holds a value: an error, or
    /// the addresses of the domain as text ("192.0.2.1", "2001:db8::1"), in the service's
    /// order. It is called at most once per lookup, and exactly once except for a lookup made
    /// before the first login reply (see `getIPByDomain`). An empty function is allowed.
    using ReturnBlock = std::function<void(std::optional<QelDNSError> error,
                                           std::optional<std::vector<std::string>> ips)>;

    /// The shared instance, made on first use (which also starts network monitoring) and
    /// never destroyed.
    static QelHttpDnsManager& shared();
    /// The library's version, QelDNS_SDK_VERSION ("1.0.0").
    static std::string sdkVersion();

    QelHttpDnsManager(const QelHttpDnsManager&) = delete;
    QelHttpDnsManager& operator=(const QelHttpDnsManager&) = delete;

    // ------------------------------------------------------------------ registration

    /// Registers the account and logs in. With the network down, status 1; with a missing or
    /// empty credential, status 2 (and a console line, whatever the log switch); otherwise the
    /// credentials are kept and the login is sent: status becomes 4 or 3 when its reply
    /// arrives (platform thread), and stays as it was until then.
    void registerAuthId(std::optional<std::string> authId, std::optional<std::string> authSecret);
    /// The service base URL to log in to ("http://host:port"), instead of the built-in
    /// default; an empty or absent URL means the default. Used by the next login.
    void customServerUrl(std::optional<std::string> url);
    /// Registration state: 0 never registered or first login reply pending, 1 registered
    /// without network, 2 empty credentials, 3 login failed, 4 logged in.
    int64_t initStatus() const { return initStatus_.load(std::memory_order_acquire); }
    /// The message of the current state: "" for 0 and 4, else the Chinese text a lookup gets
    /// with code 3.
    std::string currentStatusDesc() const;

    // ------------------------------------------------------------------ lookups

    /// `getIPByDomain(domain, 1, returnBlock)`.
    void getIPV4ByDomain(const std::optional<std::string>& domain, ReturnBlock returnBlock);
    /// `getIPByDomain(domain, 2, returnBlcok)`.
    void getIPV6ByDomain(const std::optional<std::string>& domain, ReturnBlock returnBlcok);
    /// Looks `domain` up (type 1 IPv4, 2 IPv6). The first of these that applies decides:
    /// 1. `domain` is in `degradeHosts`: code 2 "degrade host";
    /// 2. status 0: nothing at all (no callback, no log);
    /// 3. not a host name, or an address literal: code 1 "域名格式错误", then a log line;
    /// 4. no network: code 0 "网络不可用", then a log line;
    /// 5. status 4: the resolver answers, from the cache (on this thread) or the service;
    /// 6. status 3: the login is retried first, then (on success) the resolver answers, or
    ///    (on failure) code 3 with the status message;
    /// 7. otherwise: a log line, then code 3 with the status message.
    /// An installed QelDNSTraceObserver receives a trace of the lookup just before its callback.
    void getIPByDomain(const std::optional<std::string>& domain, int64_t type,
                       ReturnBlock returnBlock);
    /// Resolves `domains` ahead of use to fill the cache (ignored while caching is off), each
    /// entry as a lookup whose answer is dropped. It runs at once only when logged in (status
    /// 4) with a network. Otherwise it logs why and keeps the list, which the next successful
    /// login runs if no list has run yet in this process; in status 0 that is the first login.
    void preGetIPsWithDomains(const std::vector<QelDNSPreResolveModel>& domains);

    // ------------------------------------------------------------------ settings

    /// Answers are read from and stored in the cache (memory and the persistent store).
    void enableCacheIP(bool enable);
    /// The cache may answer with records whose time to live has run out.
    void enableExpiredIp(bool enable);
    /// Empties the cache, in memory and in the store.
    void cleanAllCache();
    /// Turns the SDK's optional console lines on or off (off at start).
    void consolePrintLogEnable(bool enable);
    /// Whether the network is usable now.
    bool checkNetworkAvailable();
    /// False for an address literal; else whether `domain` is a well-formed host name.
    bool checkDomainIsValid(const std::optional<std::string>& domain) const;

    /// Domains the SDK refuses (code 2) so that the application resolves them another way;
    /// compared exactly, case included. Absent by default.
    std::optional<std::vector<std::string>> degradeHosts() const;
    void setDegradeHosts(std::optional<std::vector<std::string>> degradeHosts);
    /// Timeout in seconds of every HTTP request the SDK sends; 0.0 (the default) means 20 s.
    /// Read by each request when it starts, so a change affects later requests only.
    double timeout() const;
    void setTimeout(double timeout);
    /// Whether the pre-resolution list waiting for the first login has been run.
    bool isPreResolved() const { return isPreResolved_.load(std::memory_order_acquire); }

private:
    friend struct QelDNSManagerExtensions;

    QelHttpDnsManager();

    using LookupHandle = std::shared_ptr<QelDNSObservedLookup>;  // null: not followed

    // getIPByDomain; false when the lookup was dropped, as lookUp says.
    bool startLookup(const std::optional<std::string>& domain, int64_t type,
                     ReturnBlock returnBlock);
    // The checks and answer of getIPByDomain, which adds only the lookup's handle. False when
    // the lookup is dropped: no callback will come, and no copy of it is kept.
    bool lookUp(const std::optional<std::string>& domain, int64_t type, ReturnBlock&& returnBlock,
                const LookupHandle& lookup);
    void authenticationRequest();
    void retryAuthenticationRequestWithDomain(const std::optional<std::string>& domain,
                                              int64_t type, ReturnBlock returnBlock,
                                              LookupHandle lookup);
    void authSucceedHandler(std::optional<std::string> node);
    void authFailedHandler();
    bool isDegraded(const std::optional<std::string>& domain) const;
    void setInitStatus(int64_t status);

    std::atomic<int64_t> initStatus_{0};
    std::atomic<bool> isPreResolved_{false};

    mutable std::mutex mutex_;
    std::optional<std::vector<std::string>> degradeHosts_;                 // guarded by mutex_
    // Whether degradeHosts_ names any host: a lookup then takes no lock. A random hit over
    // 4096 names costs 1.05x without it (bench/public_manager_bench).
    std::atomic<bool> hasDegradeHosts_{false};
    std::optional<std::string> authId_;                                    // guarded by mutex_
    std::optional<std::string> authSecret_;                                // guarded by mutex_
    std::optional<std::vector<QelDNSPreResolveModel>> preResolveDomians_;  // guarded by mutex_
    // The last registration's credentials as given, kept even when they were not (no network):
    // read only by an extension that registers again once the network is back.
    std::optional<std::string> offeredAuthId_, offeredAuthSecret_;  // guarded by mutex_

    // Signalled when a login reply (or a refused registration) sets a status.
    std::mutex statusMutex_;
    std::condition_variable statusSet_;
};
