// Which expired answers are being renewed in the background: at most one refresh per cache key
// at a time, and none sooner than `kPauseAfterFailure` after the start of the key's last one
// when it failed, so that a failing service gets one request per key and pause however often
// the stale answer is read.
//
// Threads: any; one mutex, held only to look a key up.
#pragma once

#include <string>
#include <unordered_map>

#include "QelHttpDnsSDK/Platform/Mutex.h"

class QelDNSStaleRefresh {
public:
    static constexpr double kPauseAfterFailure = 1.0;  // seconds
    static constexpr size_t kKeysKept = 4096;          // failed keys remembered at most

    /// Whether a refresh of `key` may start at `now`; when it may, it counts as under way.
    bool begin(const std::string& key, double now);
    /// The refresh of `key` that began at `started` ended, answered or `failed`.
    void end(const std::string& key, bool failed, double started);

private:
    qel::platform::Mutex mutex_;
    // Key -> when its next refresh may start; infinity while one is under way.
    std::unordered_map<std::string, double> notBefore_ QEL_GUARDED_BY(mutex_);
};
