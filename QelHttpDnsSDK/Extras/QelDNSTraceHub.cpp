#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

#include <exception>
#include <string>
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
    std::shared_ptr<const QelDNSTraceObserver::Observer> replaced;  // released outside the lock
    std::unique_lock<std::mutex> lock(mutex_);
    replaced = std::move(observer_);
    if (observer) {
        observer_ = std::make_shared<const QelDNSTraceObserver::Observer>(std::move(observer));
        installation_.store(++lastInstallation_, std::memory_order_release);
    } else {
        installation_.store(0, std::memory_order_release);
    }
    // From inside the observer, waiting could wait for itself, or for another thread's
    // observer doing the same.
    if (callsOnThisThread > 0) return;
    callsEnded_.wait(lock, [this] { return callsUnderWay_ == 0; });
}

void QelDNSTraceHub::deliver(uint64_t installation, const QelDNSLookupTrace& trace) {
    std::shared_ptr<const QelDNSTraceObserver::Observer> observer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (installation == 0 || installation != installation_.load(std::memory_order_relaxed)) {
            return;
        }
        observer = observer_;
        ++callsUnderWay_;
    }
    ++callsOnThisThread;
    callCatching(*observer, trace);
    --callsOnThisThread;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        --callsUnderWay_;
    }
    callsEnded_.notify_all();
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
