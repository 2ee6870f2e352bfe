// Holds the installed trace observer and hands it the traces of finished lookups. Each
// installation is a record of its own; a lookup remembers the record current when it started,
// and its trace is delivered only while that same record is current, so removing or replacing
// the observer drops the traces of lookups in flight instead of tearing them.
//
// Threads: all operations from any thread. `active` is one relaxed load, cheap enough for every
// lookup, and a delivery takes no lock: it counts itself on its record, then checks that the
// record is still current. `install` publishes the new record, then (outside its lock) waits for
// the calls counted on the records it replaced and frees their observers; called from inside an
// observer it does not wait, and the next install that does frees what it left. Records are
// small and kept for the life of the process, so a late delivery never reads freed memory.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"

class QelDNSTraceHub {
public:
    struct Installation {
        explicit Installation(QelDNSTraceObserver::Observer function)
            : observer(std::move(function)) {}
        QelDNSTraceObserver::Observer observer;  // emptied once retired and drained
        std::atomic<int> calls{0};               // deliveries under way
    };

    /// The one hub of the process, made on first use and never destroyed.
    static QelDNSTraceHub& shared();

    QelDNSTraceHub(const QelDNSTraceHub&) = delete;
    QelDNSTraceHub& operator=(const QelDNSTraceHub&) = delete;

    /// Whether an observer is installed now.
    bool active() const { return current_.load(std::memory_order_relaxed) != nullptr; }
    /// The installation a lookup starting now reports to; null when none.
    Installation* current() const { return current_.load(std::memory_order_acquire); }

    /// Replaces the observer (an empty one uninstalls); see above for when it waits.
    void install(QelDNSTraceObserver::Observer observer);
    /// Calls the observer of `installation` with `trace` when it is still the current one.
    void deliver(Installation* installation, const QelDNSLookupTrace& trace);

private:
    QelDNSTraceHub() = default;
    static void callCatching(const QelDNSTraceObserver::Observer& observer,
                             const QelDNSLookupTrace& trace);

    std::atomic<Installation*> current_{nullptr};
    std::mutex mutex_;
    std::vector<Installation*> records_;  // guarded by mutex_: every one made, never freed
    std::vector<Installation*> retired_;  // guarded by mutex_: replaced, observer not yet freed
};
