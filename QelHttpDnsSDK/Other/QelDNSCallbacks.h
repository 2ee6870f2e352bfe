// How the SDK calls an application's callback on the platform thread: an empty callback is
// skipped, and one that throws is caught and logged, so that it cannot stop the thread or the
// answers queued behind it. On the caller's own thread callbacks are called directly.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "QelHttpDnsSDK/Platform/Console.h"

namespace QelDNSCallbacks {

/// Calls `callback` (if any) with `args`; an exception is logged as thrown by `who`.
template <typename Callback, typename... Args>
void callCatchingAs(const char* who, const Callback& callback, Args&&... args) {
    if (!callback) return;
    try {
        callback(std::forward<Args>(args)...);
    } catch (const std::exception& exception) {
        qel::platform::Console::log(std::string("QelHttpDnsSDK: ") + who +
                                    " threw: " + exception.what());
    } catch (...) {
        qel::platform::Console::log(std::string("QelHttpDnsSDK: ") + who + " threw");
    }
}

/// Calls an application's lookup callback, catching what it throws.
template <typename Callback, typename... Args>
void callCatching(const Callback& callback, Args&&... args) {
    callCatchingAs("a lookup callback", callback, std::forward<Args>(args)...);
}

}  // namespace QelDNSCallbacks
