#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Other/QelDNSCallbacks.h"

// One lookup followed for the installation current when it started.
struct QelDNSObservedLookup {
    QelDNSObservedLookup(QelDNSTraceHub::Installation* record,
                         const std::optional<std::string>& domain, int64_t type)
        : installation(record) {
        trace.domain = domain;
        trace.type = type;
    }
    QelDNSTraceHub::Installation* const installation;
    const std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    QelDNSLookupTrace trace;
};

namespace {

// Observer calls running on this thread: an observer that reinstalls or removes does not wait.
thread_local int callsOnThisThread = 0;

}  // namespace

QelDNSTraceHub& QelDNSTraceHub::shared() {
    static QelDNSTraceHub* const instance = new QelDNSTraceHub();
    return *instance;
}

void QelDNSTraceHub::install(QelDNSTraceObserver::Observer observer) {
    std::vector<Installation*> drained;
    {
        qel::platform::MutexLock lock(mutex_);
        Installation* next = nullptr;
        if (observer) {
            next = new Installation(std::move(observer));
            records_.push_back(next);
        }
        if (Installation* replaced = current_.exchange(next)) retired_.push_back(replaced);
        QelDNSLookupEvents::setListener(next ? this : nullptr);
        if (callsOnThisThread > 0) return;
        drained.swap(retired_);
    }
    // A retired record gains no call: a delivery that counts itself now fails its check.
    for (Installation* old : drained) {
        while (old->calls.load() != 0) std::this_thread::yield();
        old->observer = nullptr;
    }
}

QelDNSLookupHandle QelDNSTraceHub::lookupStarted(const std::optional<std::string>& domain,
                                                 int64_t type) {
    Installation* const installation = current_.load(std::memory_order_acquire);
    if (!installation) return nullptr;
    return std::make_shared<QelDNSObservedLookup>(installation, domain, type);
}

void QelDNSTraceHub::cacheRead(QelDNSObservedLookup& lookup, const std::string& key,
                               CacheRead read) {
    lookup.trace.cacheKey = key;
    if (read == CacheRead::Memory) lookup.trace.source = QelDNSLookupTrace::Source::Memory;
    if (read == CacheRead::Store) lookup.trace.source = QelDNSLookupTrace::Source::Store;
}

void QelDNSTraceHub::lifetimeKnown(QelDNSObservedLookup& lookup, int64_t seconds) {
    lookup.trace.ttl = seconds;
}

void QelDNSTraceHub::loginRetried(QelDNSObservedLookup& lookup) {
    lookup.trace.loginRetried = true;
}

void QelDNSTraceHub::requestSent(QelDNSObservedLookup& lookup,
                                 const std::optional<std::string>& node) {
    QelDNSLookupTrace& trace = lookup.trace;
    trace.source = QelDNSLookupTrace::Source::Service;
    ++trace.attempts;
    const std::string name = node.value_or("");
    if (std::find(trace.nodes.begin(), trace.nodes.end(), name) == trace.nodes.end()) {
        trace.nodes.push_back(name);
    }
}

void QelDNSTraceHub::lookupEnded(QelDNSObservedLookup& lookup,
                                 const std::optional<QelDNSError>& error, bool answered) {
    if (!answered) lookup.trace.source = QelDNSLookupTrace::Source::Unanswered;
    lookup.trace.error = error;
    lookup.trace.micros = std::chrono::duration_cast<std::chrono::microseconds>(
                              std::chrono::steady_clock::now() - lookup.started)
                              .count();
    deliver(lookup.installation, lookup.trace);
}

void QelDNSTraceHub::deliver(Installation* installation, const QelDNSLookupTrace& trace) {
    installation->calls.fetch_add(1);
    if (current_.load() == installation) {
        ++callsOnThisThread;
        QelDNSCallbacks::callCatchingAs("a trace observer", installation->observer, trace);
        --callsOnThisThread;
    }
    installation->calls.fetch_sub(1, std::memory_order_release);
}
