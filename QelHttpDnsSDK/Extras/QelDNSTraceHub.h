// The trace observer's side of the lookup events: while an observer is installed it is the
// listener of QelDNSLookupEvents, follows each lookup that starts, writes down what it does in
// a QelDNSLookupTrace and hands the trace to the observer when the lookup ends. Each
// installation is a record of its own; a lookup remembers the record current when it started,
// and its trace is delivered only while that same record is current, so removing or replacing
// the observer drops the traces of lookups in flight instead of tearing them.
//
// Threads: all operations from any thread. A delivery takes no lock: it counts itself on its
// record, then checks that the record is still current. `install` publishes the new record,
// then (outside its lock) waits for the calls counted on the records it replaced and frees
// their observers; called from inside an observer it does not wait, and the next install that
// does frees what it left. Records are small and kept for the life of the process, so a late
// delivery never reads freed memory. The events of one lookup never overlap, so its trace
// needs no lock.
#pragma once

#include <atomic>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
#include "QelHttpDnsSDK/Other/QelDNSLookupEvents.h"

class QelDNSTraceHub final : public QelDNSLookupListener {
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
    /// Replaces the observer (an empty one uninstalls); see above for when it waits.
    void install(QelDNSTraceObserver::Observer observer);

    QelDNSLookupHandle lookupStarted(const std::optional<std::string>& domain,
                                     int64_t type) override;
    void cacheRead(QelDNSObservedLookup& lookup, const std::string& key, CacheRead read) override;
    void loginRetried(QelDNSObservedLookup& lookup) override;
    void requestSent(QelDNSObservedLookup& lookup, const std::optional<std::string>& node) override;
    void attemptFailed(QelDNSObservedLookup&, const QelDNSError&) override {}
    void nodeSwitched(QelDNSObservedLookup&, const std::optional<std::string>&) override {}
    void lifetimeKnown(QelDNSObservedLookup& lookup, int64_t seconds) override;
    void lookupEnded(QelDNSObservedLookup& lookup, const std::optional<QelDNSError>& error,
                     bool answered) override;

private:
    QelDNSTraceHub() = default;
    // Calls the observer of `installation` with `trace` when it is still the current one.
    void deliver(Installation* installation, const QelDNSLookupTrace& trace);

    std::atomic<Installation*> current_{nullptr};
    qel::platform::Mutex mutex_;
    std::vector<Installation*> records_ QEL_GUARDED_BY(mutex_);  // every one made, never freed
    std::vector<Installation*> retired_ QEL_GUARDED_BY(mutex_);  // replaced, observer not yet freed
};
