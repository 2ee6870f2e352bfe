// The IP cache: lists of records by cache key (a domain followed by "_v4" or "_v6"), in
// memory for the running process and, when the caller asks, archived in the standard
// defaults store (`qel::platform::UserDefaults::standard()`) so that a later process finds
// them. Persisted entries are read lazily, one key at a time, on a memory miss, and are not
// copied into memory: every miss reads the store again until a fresh list is saved.
//
// Threads: every operation may be called from any thread. The memory dictionary is guarded
// by the manager's mutex, held only to find, insert or remove a list, never across the
// store's I/O or archiving. Lists are shared, immutable, by reference (`QelDNSIPModelListRef`)
// and read without a lock. Concurrent writers of one key each leave a whole list behind, but
// memory and the store may then hold different ones of those lists. Each thread remembers
// the last list it found in memory, so that reading the same key again while the dictionary
// is unchanged writes nothing other threads share (see `readIPsWithDomain`).
//
// Nothing is reported to the caller: an absent, undecodable or foreign entry in the store, or
// a store that cannot be used, reads as no records, and a failed write leaves the store as it
// was.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/Data.h"

class QelDNSCacheManager {
public:
    using Dict = std::unordered_map<std::string, QelDNSIPModelListRef>;
    using Reader = std::function<void(const QelDNSIPModelListRef& ips)>;

    /// The process-wide manager, made on first use and never destroyed.
    static QelDNSCacheManager& shared();

    /// An empty memory cache; loads nothing from the store.
    QelDNSCacheManager() = default;
    QelDNSCacheManager(const QelDNSCacheManager&) = delete;
    QelDNSCacheManager& operator=(const QelDNSCacheManager&) = delete;

    /// A snapshot of the memory cache / replaces it as a whole.
    Dict dict() const;
    void setDict(Dict dict);

    /// Keeps `ips` (the list itself, not a copy) in memory under `domain`, replacing any
    /// earlier list; with `cacheToDisk` also archives it into the store, without waiting for
    /// a disk flush. Without `cacheToDisk` an earlier persisted entry is left as it was.
    /// A null list is kept as an empty one.
    void saveIPs(QelDNSIPModelListRef ips, const std::string& domain, bool cacheToDisk);

    /// The records under `domain`: from memory when the list there is not empty, else decoded
    /// from the store. With `expired` the list is returned as it stands (from memory: the very
    /// list that was saved). Without it, the records still alive (see `filterExpiredTTL`),
    /// which may be none: the list itself when all of them are, else a new list. Null when
    /// neither memory nor the store holds a record.
    QelDNSIPModelListRef getIPsWithDomain(const std::string& domain, bool expired) const;
    /// Calls `read` with what `getIPsWithDomain(domain, expired)` returns unless that is null,
    /// and returns whether it did. When the calling thread found `domain` in memory last time
    /// and the dictionary has not changed since, the list is handed over without the lock and
    /// without a new reference to it. `read` must not call into a cache manager: the reference
    /// it gets may be the one the thread remembers. `*fromStore` (when given) is set to true
    /// when the records were read from the store.
    bool readIPsWithDomain(const std::string& domain, bool expired, const Reader& read,
                           bool* fromStore = nullptr) const;

    /// The records whose lookupTime + ttl is strictly later than the current time (read once,
    /// not rounded), in order.
    QelDNSIPModelList filterExpiredTTL(const QelDNSIPModelList& ips) const;

    /// Drops `domain` from memory and from the store.
    void clearCacheForDomain(const std::string& domain);
    /// Empties memory, then `clearAllDiskCache`.
    void clearAllCache();

    /// The list persisted under `domain`; null when absent or undecodable.
    QelDNSIPModelListRef getCacheWithDomain(const std::string& domain) const;
    /// Archives `ips` under `domain` in the store; when archiving fails the store keeps its
    /// earlier entry.
    void saveCaches(const QelDNSIPModelList& ips, const std::string& domain);
    /// Removes every key of the store that contains "_v4" or "_v6" anywhere, the
    /// application's own keys included; other keys are kept.
    void clearAllDiskCache();

    /// The archive of `ips`; nothing when the list holds a null record.
    std::optional<qel::platform::Data> archivedDataWithObjects(const QelDNSIPModelList& ips) const;
    /// The records of an archive; null for no data, damaged data, a class other than
    /// `QelDNSIPModel` or anything but an array of records.
    QelDNSIPModelListRef unarchivedObjects(const std::optional<qel::platform::Data>& data) const;

private:
    static bool isAlive(const QelDNSIPModel* record, double now);
    static QelDNSIPModelList aliveRecords(const QelDNSIPModelList& ips, double now);
    static void readAlive(const QelDNSIPModelListRef& ips, bool expired, const Reader& read);
    /// A number never handed out before, by any manager.
    static uint64_t nextGeneration();

    mutable qel::platform::Mutex mutex_;
    Dict dict_ QEL_GUARDED_BY(mutex_);
    // Renewed (under mutex_) by every change of dict_: equal numbers mean the same state of
    // this manager's dictionary.
    std::atomic<uint64_t> generation_{nextGeneration()};
};
