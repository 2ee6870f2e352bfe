// The public manager: the one class an application talks to. It is the process-wide shared
// instance that holds the application's settings.
//
// So far it holds the request timeout; the lookups, registration, degraded hosts, caching and
// logging switches join it as the resolver and the service registry come in.
#pragma once

#include <atomic>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelHttpDnsManager {
public:
    /// The shared instance, made on first use and never destroyed.
    static QelHttpDnsManager& shared();

    QelHttpDnsManager(const QelHttpDnsManager&) = delete;
    QelHttpDnsManager& operator=(const QelHttpDnsManager&) = delete;

    /// Timeout in seconds of every HTTP request the SDK sends; 0.0 (the default) means 20 s.
    /// Read by each request when it starts, so a change affects later requests only. May be set
    /// and read from any thread.
    double timeout() const { return timeout_.load(std::memory_order_relaxed); }
    void setTimeout(double timeout) { timeout_.store(timeout, std::memory_order_relaxed); }

private:
    QelHttpDnsManager() = default;

    std::atomic<double> timeout_{0.0};
};
