#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"

#include <algorithm>

#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

QelDNSLookupRecorder::QelDNSLookupRecorder(uint64_t installation,
                                           const std::optional<std::string>& domain, int64_t type)
    : installation_(installation), started_(std::chrono::steady_clock::now()) {
    trace_.domain = domain;
    trace_.type = type;
}

void QelDNSLookupRecorder::noteCacheHit(const std::string& key, bool fromStore) {
    trace_.cacheKey = key;
    trace_.source = fromStore ? QelDNSLookupTrace::Source::Store : QelDNSLookupTrace::Source::Memory;
}

void QelDNSLookupRecorder::noteAttempt(const std::optional<std::string>& node) {
    trace_.source = QelDNSLookupTrace::Source::Service;
    ++trace_.attempts;
    const std::string name = node.value_or("");
    if (std::find(trace_.nodes.begin(), trace_.nodes.end(), name) == trace_.nodes.end()) {
        trace_.nodes.push_back(name);
    }
    handedOff_.store(true, std::memory_order_relaxed);
}

void QelDNSLookupRecorder::noteLoginRetry() {
    trace_.loginRetried = true;
    handedOff_.store(true, std::memory_order_relaxed);
}

void QelDNSLookupRecorder::finish(const std::optional<QelDNSError>& error) {
    if (finished_.exchange(true, std::memory_order_relaxed)) return;
    trace_.error = error;
    trace_.micros = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now() - started_)
                        .count();
    QelDNSTraceHub::shared().deliver(installation_, trace_);
}

void QelDNSLookupRecorder::finishUnanswered() {
    trace_.source = QelDNSLookupTrace::Source::Unanswered;
    finish(std::nullopt);
}
