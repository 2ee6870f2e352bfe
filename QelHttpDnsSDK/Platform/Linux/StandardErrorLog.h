// The system log on Linux: one line per message on standard error,
//   "2026-11-22 10:15:02.123 <program>[<pid>:<tid>] <message>"
// written with a single write(2), so lines from several threads never interleave.
#pragma once

#include <string>
#include <string_view>

namespace qel::platform {

class StandardErrorLog {
public:
    /// Writes the line for `message`; a failing standard error loses it silently.
    static void write(std::string_view message);

    /// The line `write` writes for `message`, newline included.
    static std::string formatLine(std::string_view message);
};

}  // namespace qel::platform
