#include "QelHttpDnsSDK/Platform/Console.h"

#include <memory>
#include <mutex>

namespace qel::platform {

namespace {

std::mutex sinkMutex;
std::shared_ptr<const Console::Sink> installedSink;  // guarded by sinkMutex

std::shared_ptr<const Console::Sink> currentSink() {
    std::lock_guard<std::mutex> lock(sinkMutex);
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
    std::lock_guard<std::mutex> lock(sinkMutex);
    installedSink = std::move(next);
}

}  // namespace qel::platform
