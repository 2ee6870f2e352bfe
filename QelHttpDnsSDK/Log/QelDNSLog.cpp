#include "QelHttpDnsSDK/Log/QelDNSLog.h"

#include <atomic>

#include "QelHttpDnsSDK/Other/QelDNSNullable.h"
#include "QelHttpDnsSDK/Platform/Console.h"

namespace {
// Only gates console output, so relaxed ordering is enough; atomic so that the flag is not a
// data race between the application's thread and the platform thread.
std::atomic<bool> enablePrintLog{false};
}  // namespace

void QelDNSLog::enable() { enablePrintLog.store(true, std::memory_order_relaxed); }

void QelDNSLog::disable() { enablePrintLog.store(false, std::memory_order_relaxed); }

bool QelDNSLog::isEnable() { return enablePrintLog.load(std::memory_order_relaxed); }

void QelDNSLog::logWithStr(const std::string& str) {
    if (isEnable()) qel::platform::Console::log(str);
}

void QelDNSLog::logWithStr(const std::optional<std::string>& str) {
    if (isEnable()) qel::platform::Console::log(QelDNSNullable::text(str));
}
