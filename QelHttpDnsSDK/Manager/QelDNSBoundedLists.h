// The cache's memory dictionary: cached lists by key, with an optional bound on their number.
// Past the bound a key is evicted by SIEVE (Zhang et al., NSDI 2024): keys queue in insertion
// order, a hit only marks its key visited, and a hand moving from the oldest key towards the
// newest clears marks until it finds an unmarked key, which goes. On skewed workloads it keeps
// more hits than LRU or FIFO, and a hit writes one flag instead of moving the key in a list
// (bench/cache_eviction_bench compares it with FIFO and random eviction).
//
// Threads: none of its own; the cache manager's mutex guards every call. A list's read mark
// lives in the list (QelDNSCachedList::markVisited), so a reader holding the list may mark it
// without the mutex, even after its key went.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "QelHttpDnsSDK/Manager/QelDNSCachedList.h"

class QelDNSBoundedLists {
public:
    using List = QelDNSCachedList::Ref;

    class Slot {
    public:
        const List& list() const { return list_; }

    private:
        friend class QelDNSBoundedLists;
        List list_;
        const std::string* key_ = nullptr;  // the node's own key
        Slot* newer_ = nullptr;
        Slot* older_ = nullptr;
    };

    QelDNSBoundedLists() = default;
    QelDNSBoundedLists(const QelDNSBoundedLists&) = delete;
    QelDNSBoundedLists& operator=(const QelDNSBoundedLists&) = delete;

    /// The slot of `key`, or null.
    const Slot* find(const std::string& key) const;
    /// Keeps `list` under `key` and returns the list it replaced (null for a new key), and in
    /// `evicted` the lists that had to go to stay within the bound; the caller frees them
    /// without its lock.
    List put(const std::string& key, List list, std::vector<List>& evicted);
    /// Removes `key`; returns its list (null when absent).
    List remove(const std::string& key);
    /// Removes every key; returns the lists.
    std::vector<List> clear();

    size_t size() const { return slots_.size(); }
    /// 0: no bound. A lower bound evicts at once, into `evicted`.
    void setMaxSize(size_t maxSize, std::vector<List>& evicted);
    size_t maxSize() const { return maxSize_; }

    template <typename Visit>
    void forEach(Visit visit) const {
        for (const auto& [key, slot] : slots_) visit(key, slot.list_);
    }

private:
    void linkNewest(Slot& slot);
    void unlink(Slot& slot);
    void evictOne(std::vector<List>& evicted);

    std::unordered_map<std::string, Slot> slots_;
    Slot* newest_ = nullptr;
    Slot* oldest_ = nullptr;
    Slot* hand_ = nullptr;  // where the next eviction looks first; null: the oldest
    size_t maxSize_ = 0;
};
