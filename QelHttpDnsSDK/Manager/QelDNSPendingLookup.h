// The resolver's one pending lookup: the domain and type of the lookup made last, whichever
// thread made it. Last writer wins. Each lookup stores its pair here and takes the type that was
// pending before it, whose suffix ends the lookup's cache key ("a.test" + "_v4"); each attempt
// of any lookup sends the pair it finds here at that moment, so a lookup may resolve another
// thread's domain and store the answer under its own key.
//
// Threads: any. The pair is guarded by one mutex; a thread that stores the pair it stored last,
// while no other thread has changed it, takes no lock (see `store`). One instance per process:
// the resolver's.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Platform/Mutex.h"

class QelDNSPendingLookup {
public:
    /// Makes (`domain`, `type`) the pending pair and returns this lookup's cache key: `domain`
    /// with the suffix of the type that was pending before ("_v4" for 1, else "_v6"). The
    /// reference is valid until this thread's next `store`.
    const std::string& store(const std::optional<std::string>& domain, int64_t type);
    /// The pending pair now, read together.
    void read(std::optional<std::string>& domain, int64_t& type) const;

    int64_t type() const { return type_.load(std::memory_order_acquire); }
    void setType(int64_t type);
    std::optional<std::string> domain() const;
    void setDomain(std::optional<std::string> domain);

    /// `domain` ("(null)" when absent) followed by the suffix of `type`.
    static std::string cacheKey(const std::optional<std::string>& domain, int64_t type);
    static void writeCacheKey(const std::optional<std::string>& domain, int64_t type,
                              std::string& key);

private:
    std::atomic<int64_t> type_{0};
    // Renewed (under mutex_) whenever the pair changes: a thread that saw the pair in some
    // version knows it is unchanged while the version is.
    std::atomic<uint64_t> version_{1};
    mutable qel::platform::Mutex mutex_;
    std::optional<std::string> domain_ QEL_GUARDED_BY(mutex_);
};
