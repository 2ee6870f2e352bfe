// Holds the installed trace observer and hands it the traces of finished lookups. Each
// installation gets a number; a lookup remembers the number current when it started and its
// trace is delivered only while that same installation is current, so removing or replacing
// the observer drops the traces of lookups in flight instead of tearing them.
//
// Threads: all operations from any thread. `active` is one relaxed load, cheap enough for every
// lookup. The observer is called without a lock held; `install` waits for calls under way to
// end, except when called from inside the observer (which may remove or replace itself).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"

class QelDNSTraceHub {
public:
    /// The one hub of the process, made on first use and never destroyed.
    static QelDNSTraceHub& shared();

    QelDNSTraceHub(const QelDNSTraceHub&) = delete;
    QelDNSTraceHub& operator=(const QelDNSTraceHub&) = delete;

    /// Whether an observer is installed now.
    bool active() const { return installation_.load(std::memory_order_relaxed) != 0; }
    /// The installation a lookup starting now reports to; 0 when none.
    uint64_t installation() const { return installation_.load(std::memory_order_acquire); }

    /// Replaces the observer (an empty one uninstalls), then waits for calls under way, unless
    /// called from inside the observer.
    void install(QelDNSTraceObserver::Observer observer);
    /// Calls the observer with `trace` when `installation` is still the installed one.
    void deliver(uint64_t installation, const QelDNSLookupTrace& trace);

private:
    QelDNSTraceHub() = default;
    static void callCatching(const QelDNSTraceObserver::Observer& observer,
                             const QelDNSLookupTrace& trace);

    std::atomic<uint64_t> installation_{0};  // written under mutex_
    std::mutex mutex_;
    std::condition_variable callsEnded_;
    std::shared_ptr<const QelDNSTraceObserver::Observer> observer_;  // guarded by mutex_
    uint64_t lastInstallation_ = 0;                                 // guarded by mutex_
    int callsUnderWay_ = 0;                                         // guarded by mutex_
};
