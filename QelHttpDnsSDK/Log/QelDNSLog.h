// The SDK's console log switch: lines passed to `logWithStr` reach the console only while
// the application has enabled logging (off at start). All operations are static and callable
// from any thread; a change made on one thread is seen by the others without ordering.
#pragma once

#include <optional>
#include <string>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSLog {
public:
    QelDNSLog() = delete;

    static void enable();
    static void disable();
    static bool isEnable();

    /// Prints `str` as it is (never as a format) when logging is enabled; else does nothing.
    static void logWithStr(const std::string& str);
    /// As above; an absent string prints "(null)".
    static void logWithStr(const std::optional<std::string>& str);
    static void logWithStr(const char* str) {
        logWithStr(str ? std::optional<std::string>(str) : std::nullopt);
    }
};
