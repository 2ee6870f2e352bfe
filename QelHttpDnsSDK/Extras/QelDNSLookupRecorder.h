// The trace of one lookup in flight. It travels with the lookup inside its callbacks (see
// QelDNSTracedBlock, QelDNSTracedRecords): from the calling thread to the platform thread and
// through every retry and node switch there. A lookup runs on one thread at a time and each
// hand-over between threads goes through the platform's task queue, so the notes need no lock;
// only the two flags a caller may read while the platform thread writes are atomic.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Extras/QelDNSLookupTrace.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

class QelDNSLookupRecorder : public std::enable_shared_from_this<QelDNSLookupRecorder> {
public:
    /// Starts the clock of a lookup reporting to `installation` of the trace hub.
    QelDNSLookupRecorder(QelDNSTraceHub::Installation* installation,
                         const std::optional<std::string>& domain, int64_t type);
    /// Starts over for another lookup, keeping the strings' storage. Only for a recorder no
    /// other thread has seen.
    void restart(QelDNSTraceHub::Installation* installation,
                 const std::optional<std::string>& domain, int64_t type);

    /// The cache was read with `key`; a hit came from the store when `fromStore`.
    void noteCacheKey(const std::string& key) { trace_.cacheKey = key; }
    void noteCacheHit(const std::string& key, bool fromStore);
    /// A request is being sent to `node`.
    void noteAttempt(const std::optional<std::string>& node);
    /// The lookup is waiting for a new login.
    void noteLoginRetry();

    /// Stamps the time and delivers the trace, once; later calls do nothing.
    void finish(const std::optional<QelDNSError>& error);
    /// Delivers the trace of a lookup that gets no callback.
    void finishUnanswered();
    /// Whether the lookup has left the calling thread (a request or a login is under way) or
    /// has finished: true once the calling thread no longer owns the trace.
    bool handedOffOrFinished() const {
        return handedOff() || finished_.load(std::memory_order_relaxed);
    }
    bool handedOff() const { return handedOff_.load(std::memory_order_relaxed); }

private:
    QelDNSTraceHub::Installation* installation_;
    std::chrono::steady_clock::time_point started_;
    QelDNSLookupTrace trace_;
    std::atomic<bool> handedOff_{false};
    std::atomic<bool> finished_{false};
};
