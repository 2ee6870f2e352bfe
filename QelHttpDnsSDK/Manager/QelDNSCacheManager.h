// The IP cache: lists of records by cache key (a domain followed by "_v4" or "_v6"), in
// memory for the running process and, when the caller asks, archived in the standard
// defaults store (`qel::platform::UserDefaults::standard()`) so that a later process finds
// them. Persisted entries are read lazily, one key at a time, on a memory miss, and are not
// copied into the memory dictionary: a key found only in the store stays a store hit until a
// fresh list is saved. What the store holds is decoded once and remembered (a bounded memo of
// `kStoredListLimit` keys, forgotten when the store says an entry changed; another process's
// writes are seen within the store's check interval, see `UserDefaults::noticeExternalChanges`).
//
// Memory: each list is kept as one `QelDNSCachedList` block, not as record objects; the
// record objects a caller gets are made from it (equal fields, not the saved objects).
//
// Threads: every operation may be called from any thread. The dictionary and the memo are
// guarded by the manager's mutex, held only to find, insert or remove a list, never across the
// store's I/O or archiving. Blocks are immutable and read without a lock. Concurrent writers of
// one key each leave a whole list behind, but memory and the store may then hold different ones
// of those lists. Each thread remembers the last list it found in memory, so that reading the
// same key again while the dictionary is unchanged writes nothing other threads share.
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
#include <vector>

#include "QelHttpDnsSDK/Manager/QelDNSBoundedLists.h"
#include "QelHttpDnsSDK/Manager/QelDNSCachedList.h"
#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"
#include "QelHttpDnsSDK/Platform/Data.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

class QelDNSCacheManager {
public:
    using Dict = std::unordered_map<std::string, QelDNSIPModelListRef>;
    using Reader = std::function<void(const QelDNSIPModelListRef& ips)>;

    /// What a lookup takes from the cache.
    struct Addresses {
        std::vector<std::string> ips;  // in the order of the records
        int64_t secondsLeft = 0;       // the shortest remaining lifetime, rounded up
        double expiresAt = 0;          // when the first of the records expires(d)
        bool fromStore = false;        // read from the store, not from memory
    };

    /// The most store entries kept decoded.
    static constexpr size_t kStoredListLimit = 65536;

    /// The process-wide manager, made on first use and never destroyed.
    static QelDNSCacheManager& shared();

    QelDNSCacheManager(const QelDNSCacheManager&) = delete;
    QelDNSCacheManager& operator=(const QelDNSCacheManager&) = delete;

    /// A snapshot of the memory cache (records made from the kept lists) / replaces it.
    Dict dict() const;
    void setDict(const Dict& dict);

    /// The most names kept in memory (0, the default: no bound). Past it a name is evicted
    /// (see QelDNSBoundedLists); its entry in the store stays. It bounds the memo of decoded
    /// store entries too, when lower than `kStoredListLimit`.
    void setMaxLists(size_t maxLists);

    /// Keeps `ips` in memory under `domain`, replacing any earlier list; with `cacheToDisk`
    /// also archives it into the store, which keeps it in memory and writes it to the file on
    /// a thread of its own within 100 ms (at once on `synchronize`, on entering the background
    /// and at exit).
    /// Without `cacheToDisk` an earlier persisted entry is left as it was. A null list is kept
    /// as an empty one.
    void saveIPs(QelDNSIPModelListRef ips, const std::string& domain, bool cacheToDisk);

    /// The records under `domain`: from memory when the list there is not empty, else from the
    /// store. With `expired` the list is returned as it stands. Without it, the records still
    /// alive (see `filterExpiredTTL`), which may be none. Null when neither memory nor the store
    /// holds a record.
    QelDNSIPModelListRef getIPsWithDomain(const std::string& domain, bool expired) const;
    /// Calls `read` with what `getIPsWithDomain(domain, expired)` returns unless that is null,
    /// and returns whether it did. `*fromStore` (when given) is set to true when the records
    /// were read from the store.
    bool readIPsWithDomain(const std::string& domain, bool expired, const Reader& read,
                           bool* fromStore = nullptr) const;
    /// The lookup's read: the addresses of the records `readIPsWithDomain` would hand over,
    /// without making record objects. False, `out` untouched, when there is no address.
    bool readAddresses(const std::string& domain, bool expired, Addresses& out) const;

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
    using List = QelDNSCachedList::Ref;

    QelDNSCacheManager() = default;

    static bool isAlive(const QelDNSIPModel* record, double now);
    static QelDNSIPModelList aliveRecords(const QelDNSIPModelList& ips, double now);
    /// A number never handed out before, by any manager.
    static uint64_t nextGeneration();

    // The list a lookup of `domain` reads (memory, else the store), or null; valid while
    // `holder` lives and until this thread's next call.
    const QelDNSCachedList* find(const std::string& domain, bool* fromStore, List& holder) const;
    // The list the store holds under `domain`, decoded once; null when there is none.
    List storedList(const std::string& domain) const;
    void rememberStored(const std::string& domain, List list) const QEL_REQUIRES(mutex_);
    void forgetStored(const std::string* domain) const;
    void renewLocked() QEL_REQUIRES(mutex_);

    mutable qel::platform::Mutex mutex_;
    QelDNSBoundedLists lists_ QEL_GUARDED_BY(mutex_);
    // What the store holds, decoded (a null list: nothing). Any change of the store through
    // this process renews storedVersion_, so a read that raced a write is not remembered.
    mutable std::unordered_map<std::string, List> stored_ QEL_GUARDED_BY(mutex_);
    size_t storedLimit_ QEL_GUARDED_BY(mutex_) = kStoredListLimit;
    mutable uint64_t storedVersion_ QEL_GUARDED_BY(mutex_) = 0;
    mutable const void* observedStore_ QEL_GUARDED_BY(mutex_) = nullptr;
    // Renewed (under mutex_) by every change of lists_: equal numbers mean the same state of
    // this manager's dictionary.
    std::atomic<uint64_t> generation_{nextGeneration()};
};
