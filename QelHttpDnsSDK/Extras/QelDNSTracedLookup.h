// Follows one call of QelHttpDnsManager::getIPByDomain while an observer is installed: made
// on the calling thread before the lookup runs, it starts the trace and swaps the callback
// for a QelDNSTracedBlock in place; destroyed after the lookup has run, it reports a lookup
// that neither answered nor left the thread (no callback will come) as Unanswered.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"

class QelDNSTracedLookup {
public:
    /// `callback` must outlive this object; it is left holding the traced callback.
    QelDNSTracedLookup(const std::optional<std::string>& domain, int64_t type,
                       QelHttpDnsManager::ReturnBlock& callback);
    ~QelDNSTracedLookup();

    QelDNSTracedLookup(const QelDNSTracedLookup&) = delete;
    QelDNSTracedLookup& operator=(const QelDNSTracedLookup&) = delete;

private:
    std::shared_ptr<QelDNSLookupRecorder> recorder_;  // null: the observer went away meanwhile
};
