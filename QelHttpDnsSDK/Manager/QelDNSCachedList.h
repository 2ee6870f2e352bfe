// One cached list of records as the cache keeps it: a single immutable block holding every
// record's fields and texts, a domain shared by consecutive records stored once. A list of
// `QelDNSIPModel` objects costs a vector, an object per record and a string per domain (some
// 660 bytes for two addresses of a 40-character name, six allocations); the block costs one
// allocation of about 150 bytes, and a hit reads it without touching another cache line.
//
// Threads: a block is never changed once made, so any thread may read it; `Ref` counts its
// owners atomically, like std::shared_ptr.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"

class alignas(alignof(double)) QelDNSCachedList {
public:
    /// A counted reference to a block; null when default-made.
    class Ref {
    public:
        Ref() = default;
        Ref(const Ref& other) : list_(other.list_) { retain(); }
        Ref(Ref&& other) noexcept : list_(other.list_) { other.list_ = nullptr; }
        Ref& operator=(Ref other) noexcept {
            std::swap(list_, other.list_);
            return *this;
        }
        ~Ref() { release(); }

        const QelDNSCachedList* get() const { return list_; }
        const QelDNSCachedList* operator->() const { return list_; }
        const QelDNSCachedList& operator*() const { return *list_; }
        explicit operator bool() const { return list_ != nullptr; }

    private:
        friend class QelDNSCachedList;
        explicit Ref(QelDNSCachedList* list) : list_(list) {}
        void retain() const {
            if (list_) list_->owners_.fetch_add(1, std::memory_order_relaxed);
        }
        void release() {
            if (list_ && list_->owners_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(list_);
            list_ = nullptr;
        }
        QelDNSCachedList* list_ = nullptr;
    };

    /// A block with the records of `records`, in order (a null record is left out).
    static Ref make(const QelDNSIPModelList& records);

    size_t size() const { return count_; }
    /// Whether the list was read since the mark was last cleared: the cache's eviction keeps
    /// what was read. A mark, not a part of the list's value.
    bool visited() const { return visited_.load(std::memory_order_relaxed); }
    void markVisited() const {
        if (!visited_.load(std::memory_order_relaxed)) visited_.store(true, std::memory_order_relaxed);
    }
    void clearVisited() const { visited_.store(false, std::memory_order_relaxed); }
    bool empty() const { return count_ == 0; }
    /// The records as `QelDNSIPModel` objects, made anew: equal to those the block was made
    /// from, the lookup time included.
    QelDNSIPModelListRef records() const;
    /// Appends the address of each record alive at `now` (every record with `expired`) to
    /// `out` and returns the earliest end (lookupTime + ttl) among those records, NaN when
    /// there is no such record. A record is alive while its end is strictly later than `now`.
    double appendAddresses(double now, bool expired, std::vector<std::string>& out) const;

    QelDNSCachedList(const QelDNSCachedList&) = delete;
    QelDNSCachedList& operator=(const QelDNSCachedList&) = delete;

private:
    static constexpr uint32_t kAbsent = UINT32_MAX;  // a text the record does not have

    struct Record {
        double lookupTime;
        int64_t ttl;
        int32_t type;
        uint32_t domain;  // offset of the domain's text, or kAbsent
        uint32_t ip;      // offset of the address's text, or kAbsent
    };

    explicit QelDNSCachedList(uint32_t count) : count_(count) {}
    static void destroy(QelDNSCachedList* list);
    Record* recordsBegin() { return reinterpret_cast<Record*>(this + 1); }
    const Record* recordsBegin() const { return reinterpret_cast<const Record*>(this + 1); }
    // A text is its length (4 bytes, unaligned) followed by its bytes.
    const char* texts() const { return reinterpret_cast<const char*>(recordsBegin() + count_); }
    std::string_view text(uint32_t offset) const;

    mutable std::atomic<uint32_t> owners_{1};
    const uint32_t count_;
    mutable std::atomic<bool> visited_{false};
};
