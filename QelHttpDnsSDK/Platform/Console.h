// The console the library writes its diagnostic lines to (the stand-in for the platform's
// system log). Without a sink each line goes to the system's log, on Linux standard error
// (see Platform/Linux/StandardErrorLog.h).
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace qel::platform {

class Console {
public:
    /// Receives one message per call, without time stamp or process id.
    using Sink = std::function<void(const std::string& message)>;

    /// Writes one line. The message is printed as it is: never used as a format.
    /// Callable from any thread; the sink runs on the calling thread, outside any lock.
    static void log(std::string_view message);

    /// Replaces the destination of every line (an application's logger, a test's capture).
    /// An empty sink restores the system's log.
    static void setSink(Sink sink);

private:
    // Defined where the platform's implementations are chosen (PlatformServices.cpp).
    static void writeToSystemLog(std::string_view message);
};

}  // namespace qel::platform
