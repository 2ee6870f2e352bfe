#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

#include <exception>
#include <string>
#include <thread>
#include <utility>

#include "QelHttpDnsSDK/Platform/Console.h"

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
        std::lock_guard<std::mutex> lock(mutex_);
        Installation* next = nullptr;
        if (observer) {
            next = new Installation(std::move(observer));
            records_.push_back(next);
        }
        if (Installation* replaced = current_.exchange(next)) retired_.push_back(replaced);
        if (callsOnThisThread > 0) return;
        drained.swap(retired_);
    }
    // A retired record gains no call: a delivery that counts itself now fails its check.
    for (Installation* old : drained) {
        while (old->calls.load() != 0) std::this_thread::yield();
        old->observer = nullptr;
    }
}

void QelDNSTraceHub::deliver(Installation* installation, const QelDNSLookupTrace& trace) {
    if (!installation) return;
    installation->calls.fetch_add(1);
    if (current_.load() == installation) {
        ++callsOnThisThread;
        callCatching(installation->observer, trace);
        --callsOnThisThread;
    }
    installation->calls.fetch_sub(1, std::memory_order_release);
}

void QelDNSTraceHub::callCatching(const QelDNSTraceObserver::Observer& observer,
                                  const QelDNSLookupTrace& trace) {
    try {
        observer(trace);
    } catch (const std::exception& exception) {
        qel::platform::Console::log(std::string("QelHttpDnsSDK: a trace observer threw: ") +
                                    exception.what());
    } catch (...) {
        qel::platform::Console::log("QelHttpDnsSDK: a trace observer threw");
    }
}
