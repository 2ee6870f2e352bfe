#include "QelHttpDnsSDK/Manager/QelDNSPendingLookup.h"

#include "QelHttpDnsSDK/Other/QelDNSNullable.h"

namespace {

using Lock = qel::platform::MutexLock;

// The pending pair as this thread last stored or found it, and the key of a lookup of that same
// pair. While the version is unchanged, a lookup of the same pair would store what is already
// there, so it skips the mutex and the stores (memory every looking-up thread writes to) and the
// building of its key. There is one pending lookup, so one such view per thread. Without it a
// hit on one name costs 1.69x (bench/public_manager_bench, BM_Hit_getIPV4ByDomain).
struct LastPending {
    uint64_t version = 0;  // none: versions start at 1
    bool hasDomain = false;
    int64_t type = 0;
    std::string key;     // the domain (when it has one) and the type's suffix
    std::string ownKey;  // the key when the type pending before was another one

    // The domain is read back from the key, which starts with it: one copy fewer per lookup.
    bool sameDomain(const std::optional<std::string>& domain) const {
        if (hasDomain != domain.has_value()) return false;
        return !domain || (key.size() == domain->size() + 3 &&
                           key.compare(0, domain->size(), *domain) == 0);
    }
};
thread_local LastPending lastPending;

// Copies into the string already there, so that storing a name of no more than the old one's
// length allocates nothing.
void assignKeepingBuffer(std::optional<std::string>& to, const std::optional<std::string>& from) {
    if (to && from) {
        to->assign(*from);
    } else {
        to = from;
    }
}

}  // namespace

std::string QelDNSPendingLookup::cacheKey(const std::optional<std::string>& domain, int64_t type) {
    std::string key;
    writeCacheKey(domain, type, key);
    return key;
}

// In place: a thread's key keeps its buffer from one lookup to the next.
void QelDNSPendingLookup::writeCacheKey(const std::optional<std::string>& domain, int64_t type,
                                        std::string& key) {
    if (domain) {
        key.assign(*domain);
    } else {
        key = QelDNSNullable::text(domain);
    }
    key.append(type == 1 ? "_v4" : "_v6");
}

// The type is exchanged in one step, so concurrent lookups each take a type that some lookup
// really left behind.
const std::string& QelDNSPendingLookup::store(const std::optional<std::string>& domain,
                                              int64_t type) {
    LastPending& last = lastPending;
    int64_t previousType = type;
    if (last.version != version_.load(std::memory_order_acquire) || last.type != type ||
        !last.sameDomain(domain)) {
        {
            Lock lock(mutex_);
            previousType = type_.exchange(type, std::memory_order_acq_rel);
            const bool domainChanged = domain_ != domain;
            if (domainChanged) assignKeepingBuffer(domain_, domain);
            if (domainChanged || previousType != type) {
                version_.store(version_.load(std::memory_order_relaxed) + 1,
                               std::memory_order_release);
            }
            last.version = version_.load(std::memory_order_relaxed);
        }
        // Here for a new pair, or for the same one after another thread changed the pending
        // pair: the key is rebuilt either way, which costs no more than telling them apart.
        last.type = type;
        last.hasDomain = domain.has_value();
        writeCacheKey(domain, type, last.key);
    }
    if (previousType == type) return last.key;
    writeCacheKey(domain, previousType, last.ownKey);
    return last.ownKey;
}

void QelDNSPendingLookup::read(std::optional<std::string>& domain, int64_t& type) const {
    Lock lock(mutex_);
    domain = domain_;
    type = type_.load(std::memory_order_acquire);
}

void QelDNSPendingLookup::setType(int64_t type) {
    Lock lock(mutex_);
    type_.store(type, std::memory_order_release);
    version_.store(version_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

std::optional<std::string> QelDNSPendingLookup::domain() const {
    Lock lock(mutex_);
    return domain_;
}

void QelDNSPendingLookup::setDomain(std::optional<std::string> domain) {
    Lock lock(mutex_);
    domain_.swap(domain);
    version_.store(version_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}
