#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

#include <memory>

namespace qel::platform {

namespace {

qel::platform::Mutex sinkMutex;
std::shared_ptr<const Console::Sink> installedSink QEL_GUARDED_BY(sinkMutex);

std::shared_ptr<const Console::Sink> currentSink() {
    qel::platform::MutexLock lock(sinkMutex);
    return installedSink;
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
    qel::platform::MutexLock lock(sinkMutex);
    installedSink = std::move(next);
}

}  // namespace qel::platform
