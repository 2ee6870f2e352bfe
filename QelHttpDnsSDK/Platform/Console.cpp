#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

#include <memory>

namespace qel::platform {

namespace {

// Never destroyed: the platform thread may still log (a timer's work) while the process exits.
struct SinkSlot {
    qel::platform::Mutex mutex;
    std::shared_ptr<const Console::Sink> sink QEL_GUARDED_BY(mutex);
};

SinkSlot& slot() {
    static auto* const instance = new SinkSlot();
    return *instance;
}

std::shared_ptr<const Console::Sink> currentSink() {
    qel::platform::MutexLock lock(slot().mutex);
    return slot().sink;
}

}  // namespace

void Console::log(std::string_view message) {
    if (auto sink = currentSink()) {
        (*sink)(std::string(message));
        return;
    }
    writeToSystemLog(message);
}

void Console::setSink(Sink sink) {
    auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    qel::platform::MutexLock lock(slot().mutex);
    slot().sink = std::move(next);
}

}  // namespace qel::platform
