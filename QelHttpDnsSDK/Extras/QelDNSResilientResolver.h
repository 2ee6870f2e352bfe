// The resilience profile's resolver (see QelDNSResilience.h), installed as the manager's
// resolve policy while the profile is on. A miss becomes a flight: one request at a time for a
// domain and type, to the first node that is not resting, retried within the lookup's attempts
// and deadline, answered once to every lookup that joined it. Internal.
//
// Threads: lookups arrive on their callers' threads; answers, retries and the deadline run on
// the platform thread. A flight is finished exactly once, under the flights' mutex; no lock is
// held while a request is sent or a callback runs.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "QelHttpDnsSDK/Extras/QelDNSLoginKeeper.h"
#include "QelHttpDnsSDK/Extras/QelDNSNodeHealth.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Manager/QelDNSResolvePolicy.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

class QelDNSResilientResolver final : public QelDNSResolvePolicy {
public:
    /// The one of the process, never destroyed (a lookup may still use it after `disable`).
    static QelDNSResilientResolver& shared();

    void configure(const QelDNSResilienceOptions& options);

    void resolve(const std::optional<std::string>& domain, int64_t type, Completion completion,
                 QelDNSLookupHandle lookup) override;
    bool whileLoginFailed(const std::optional<std::string>& domain, int64_t type,
                          Completion& completion, const QelDNSLookupHandle& lookup) override;

private:
    struct Waiter {
        Completion completion;
        QelDNSLookupHandle lookup;
    };
    struct Flight;
    using FlightRef = std::shared_ptr<Flight>;

    QelDNSResilientResolver() = default;
    std::shared_ptr<const QelDNSResilienceOptions> options() const;
    void join(std::string key, const std::string& domain, int64_t type, Waiter waiter);
    void attempt(const FlightRef& flight);
    void onAnswer(const FlightRef& flight, const std::string& node,
                  std::optional<QelDNSError> error, QelDNSIPModelListRef records);
    void retryLater(const FlightRef& flight, int attempts);
    void finish(const FlightRef& flight, std::optional<QelDNSError> error,
                std::optional<std::vector<std::string>> addresses);
    std::vector<std::string> nodesOfLogin();

    std::atomic<bool> ownKeys_{true};
    QelDNSNodeHealth health_;
    QelDNSLoginKeeper loginKeeper_;

    mutable qel::platform::Mutex mutex_;
    std::shared_ptr<const QelDNSResilienceOptions> options_ QEL_GUARDED_BY(mutex_) =
        std::make_shared<const QelDNSResilienceOptions>();
    std::unordered_map<std::string, FlightRef> flights_ QEL_GUARDED_BY(mutex_);
    std::vector<std::string> lastNodeList_ QEL_GUARDED_BY(mutex_);
};
