// The application's window on each lookup: one observer, installed process-wide, receives a
// QelDNSLookupTrace per lookup made through QelHttpDnsManager while it is installed. Nothing
// is recorded while none is installed.
//
// Which lookups: every call of getIPByDomain / getIPV4ByDomain / getIPV6ByDomain (and each
// entry of a pre-resolution list) that starts while an observer is installed and answers
// before it is removed or replaced. A lookup started before the installation is not traced;
// one still in flight when the observer is removed or replaced is dropped, never handed to
// the next observer, so every trace delivered is whole. The network-change refresh is not a
// lookup and is not traced.
//
// When and where: once per lookup, on the thread that answers it, just before the lookup's
// callback (so `micros` leaves the callback's own time out): refusals and cache hits on the
// calling thread before the lookup returns; answers of the service and of a login retry on
// the platform thread. A lookup made before the first login reply gets no callback; its trace
// (source Unanswered) is delivered on the calling thread before the lookup returns.
//
// Threads: install and remove may be called from any thread, the observer itself included.
// The observer may run on several threads at once and must be thread-safe. An exception it
// throws is caught and logged; the lookup and its callback go on as if nothing happened.
#pragma once

#include <functional>

#include "QelHttpDnsSDK/Extras/QelDNSLookupTrace.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSTraceObserver {
public:
    using Observer = std::function<void(const QelDNSLookupTrace& trace)>;

    /// Installs `observer`, replacing any installed one (as `remove` does); an empty function
    /// is the same as `remove`. Each installation keeps a record of a few dozen bytes for the
    /// life of the process (the function itself is freed once replaced or removed).
    static void install(Observer observer);
    /// Uninstalls the observer. When it returns, the observer is no longer running on any
    /// thread and will not be called again; called from inside the observer, it returns at
    /// once without waiting for calls under way.
    static void remove();
    /// Whether an observer is installed.
    static bool isInstalled();

    QelDNSTraceObserver() = delete;
};
