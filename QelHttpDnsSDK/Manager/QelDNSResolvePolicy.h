// Who resolves a lookup the public manager has accepted. By default the resolver
// (QelHttpDnsCenterManager) does, with its retry rules; an extension may install another
// policy, which the manager then hands every accepted lookup to. Nothing is installed by
// default, and asking costs one atomic load.
//
// Threads: `resolve` and `whileLoginFailed` run on the thread that called the manager and
// must not block; the completion may run on that thread before they return (a cache hit, a
// refusal) or later on the platform thread, exactly once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"
#include "QelHttpDnsSDK/Other/QelDNSLookupEvents.h"

class QelDNSResolvePolicy {
public:
    using Completion = QelHttpDnsCenterManager::Completion;

    virtual ~QelDNSResolvePolicy() = default;

    /// A lookup accepted while logged in (status 4); `domain` is present (checked valid).
    virtual void resolve(const std::optional<std::string>& domain, int64_t type,
                         Completion completion, QelDNSLookupHandle lookup) = 0;
    /// A lookup made while the last login failed (status 3). Returns false, leaving the
    /// completion untouched, for the manager's own handling (a new login for this lookup).
    virtual bool whileLoginFailed(const std::optional<std::string>& domain, int64_t type,
                                  Completion& completion, const QelDNSLookupHandle& lookup) = 0;

    /// The installed policy, or null for the resolver's own.
    static QelDNSResolvePolicy* installed();
    /// Installs `policy` (null: back to the resolver's own). It must live for the rest of the
    /// process: a lookup that read it just before a change may still use it.
    static void install(QelDNSResolvePolicy* policy);
};
