// The console the library writes its diagnostic lines to (the stand-in for the platform's
// system log). By default each line goes to standard error as
//   "2026-11-22 10:15:02.123 <program>[<pid>:<tid>] <message>"
// written with a single write(2), so lines from several threads never interleave.
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
    /// An empty sink restores standard error.
    static void setSink(Sink sink);

    /// The standard-error line for `message`, as the default sink writes it.
    static std::string formatLine(std::string_view message);
};

}  // namespace qel::platform
