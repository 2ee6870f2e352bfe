#include "QelHttpDnsSDK/Extras/QelDNSLookupRecorder.h"

#include <algorithm>


QelDNSLookupRecorder::QelDNSLookupRecorder(QelDNSTraceHub::Installation* installation,
                                           const std::optional<std::string>& domain, int64_t type)
    : installation_(installation), started_(std::chrono::steady_clock::now()) {
    trace_.domain = domain;
    trace_.type = type;
}

void QelDNSLookupRecorder::restart(QelDNSTraceHub::Installation* installation,
                                   const std::optional<std::string>& domain, int64_t type) {
    installation_ = installation;
    trace_.domain = domain;
    trace_.type = type;
    trace_.cacheKey.clear();
    trace_.source = QelDNSLookupTrace::Source::Refused;
    trace_.attempts = 0;
    trace_.nodes.clear();
    trace_.loginRetried = false;
    trace_.error.reset();
    trace_.micros = 0;
    handedOff_.store(false, std::memory_order_relaxed);
    finished_.store(false, std::memory_order_relaxed);
    started_ = std::chrono::steady_clock::now();
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
