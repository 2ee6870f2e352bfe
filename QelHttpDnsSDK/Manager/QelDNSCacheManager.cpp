#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"

using qel::platform::Data;
using qel::platform::KeyedArchiver;
using qel::platform::KeyedUnarchiver;
using qel::platform::UserDefaults;

namespace {

const std::vector<KeyedUnarchiver::AllowedClass>& allowedClasses() {
    static const auto* classes = new std::vector<KeyedUnarchiver::AllowedClass>{
        KeyedUnarchiver::AllowedClass::array(),
        KeyedUnarchiver::AllowedClass::of<QelDNSIPModel>(),
        KeyedUnarchiver::AllowedClass::string(),
    };
    return *classes;
}

// The calling thread's last list found in memory, with the generation of the dictionary it
// was found in. Reading the same key again in that generation finds the same list, so neither
// the mutex nor the list's reference count (memory every reading thread writes to) is touched.
// Without it a hit on one name costs 1.35x (bench/public_manager_bench, BM_Hit_getIPV4ByDomain).
struct LastMemoryHit {
    uint64_t generation = 0;  // none: generations start at 1
    std::string domain;
    QelDNSCachedList::Ref list;
};
thread_local LastMemoryHit lastMemoryHit;

std::atomic<uint64_t> lastGeneration{0};

}  // namespace

uint64_t QelDNSCacheManager::nextGeneration() {
    return lastGeneration.fetch_add(1, std::memory_order_relaxed) + 1;
}

QelDNSCacheManager& QelDNSCacheManager::shared() {
    static QelDNSCacheManager* const instance = new QelDNSCacheManager();
    return *instance;
}

QelDNSCacheManager::Dict QelDNSCacheManager::dict() const {
    std::vector<std::pair<std::string, List>> lists;
    {
        qel::platform::MutexLock lock(mutex_);
        lists.reserve(lists_.size());
        lists_.forEach([&lists](const std::string& key, const List& list) {
            lists.emplace_back(key, list);
        });
    }
    Dict dict;
    for (const auto& [key, list] : lists) dict.emplace(key, list->records());
    return dict;
}

void QelDNSCacheManager::setDict(const Dict& dict) {
    std::vector<std::pair<std::string, List>> lists;  // made, and the replaced ones freed, unlocked
    lists.reserve(dict.size());
    for (const auto& [key, records] : dict) {
        lists.emplace_back(key, QelDNSCachedList::make(records ? *records : QelDNSIPModelList()));
    }
    std::vector<List> dropped;
    qel::platform::MutexLock lock(mutex_);
    dropped = lists_.clear();
    for (auto& [key, list] : lists) lists_.put(key, std::move(list), dropped);
    renewLocked();
}

void QelDNSCacheManager::setMaxLists(size_t maxLists) {
    std::vector<List> evicted;
    std::unordered_map<std::string, List> forgotten;  // freed outside the lock
    qel::platform::MutexLock lock(mutex_);
    lists_.setMaxSize(maxLists, evicted);
    if (!evicted.empty()) renewLocked();
    storedLimit_ = maxLists == 0 ? kStoredListLimit : std::min(maxLists, kStoredListLimit);
    // Decoded again when read: cheaper than choosing which to keep.
    if (stored_.size() > storedLimit_) forgotten.swap(stored_);
}

void QelDNSCacheManager::renewLocked() {
    generation_.store(nextGeneration(), std::memory_order_release);
}

void QelDNSCacheManager::saveIPs(QelDNSIPModelListRef ips, const std::string& domain,
                                 bool cacheToDisk) {
    List list = QelDNSCachedList::make(ips ? *ips : QelDNSIPModelList());
    std::vector<List> evicted;  // these and the replaced list are freed outside the lock
    {
        qel::platform::MutexLock lock(mutex_);
        list = lists_.put(domain, std::move(list), evicted);
        renewLocked();
    }
    if (cacheToDisk && ips) saveCaches(*ips, domain);
}

QelDNSIPModelListRef QelDNSCacheManager::getIPsWithDomain(const std::string& domain,
                                                          bool expired) const {
    QelDNSIPModelListRef found;
    readIPsWithDomain(domain, expired, [&found](const QelDNSIPModelListRef& ips) { found = ips; });
    return found;
}

bool QelDNSCacheManager::readIPsWithDomain(const std::string& domain, bool expired,
                                           const Reader& read, bool* fromStore) const {
    List holder;
    const QelDNSCachedList* list = find(domain, fromStore, holder);
    if (!list) return false;
    QelDNSIPModelListRef records = list->records();
    if (!expired) {
        records = std::make_shared<const QelDNSIPModelList>(
            aliveRecords(*records, qel::platform::Clock::currentTime()));
    }
    read(records);
    return true;
}

bool QelDNSCacheManager::readAddresses(const std::string& domain, bool expired,
                                       Addresses& out) const {
    bool fromStore = false;
    List holder;
    const QelDNSCachedList* list = find(domain, &fromStore, holder);
    if (!list) return false;
    std::vector<std::string> ips;
    ips.reserve(list->size());
    const double now = qel::platform::Clock::currentTime();
    const double end = list->appendAddresses(now, expired, ips);
    // A stored record may lack its address: a list with none left is no answer.
    if (ips.empty()) return false;
    out.ips = std::move(ips);
    out.expiresAt = end;
    // Rounded up: an answer just received shows the TTL the service gave.
    out.secondsLeft = end > now ? static_cast<int64_t>(std::ceil(std::min(end - now, 0x1p62))) : 0;
    out.fromStore = fromStore;
    return true;
}

const QelDNSCachedList* QelDNSCacheManager::find(const std::string& domain, bool* fromStore,
                                                 List& holder) const {
    LastMemoryHit& last = lastMemoryHit;
    if (last.generation == generation_.load(std::memory_order_acquire) && last.domain == domain) {
        last.list->markVisited();
        return last.list.get();
    }
    List list;
    uint64_t generation;
    {
        qel::platform::MutexLock lock(mutex_);
        if (const QelDNSBoundedLists::Slot* slot = lists_.find(domain)) {
            list = slot->list();
            list->markVisited();
        }
        generation = generation_.load(std::memory_order_relaxed);
    }
    if (!list || list->empty()) {
        holder = storedList(domain);
        if (!holder || holder->empty()) return nullptr;
        if (fromStore) *fromStore = true;
        return holder.get();
    }
    last.generation = generation;
    last.domain = domain;
    last.list = std::move(list);
    return last.list.get();
}

QelDNSCacheManager::List QelDNSCacheManager::storedList(const std::string& domain) const {
    UserDefaults& store = UserDefaults::standard();
    store.noticeExternalChanges();  // may forget every remembered entry
    uint64_t version;
    {
        qel::platform::MutexLock lock(mutex_);
        if (observedStore_ != &store) {
            // The store of this process (a forked child has a new one): told of its changes.
            observedStore_ = &store;
            stored_.clear();
            store.setChangeObserver([this](const std::string* key) { forgetStored(key); });
        }
        const auto found = stored_.find(domain);
        if (found != stored_.end()) return found->second;
        version = storedVersion_;
    }
    QelDNSIPModelListRef records = unarchivedObjects(store.data(domain));
    List list = records ? QelDNSCachedList::make(*records) : List();
    qel::platform::MutexLock lock(mutex_);
    // A change since the read may have made it stale.
    if (version == storedVersion_) rememberStored(domain, list);
    return list;
}

void QelDNSCacheManager::rememberStored(const std::string& domain, List list) const {
    if (stored_.size() >= storedLimit_) {
        // A random entry goes: the memo stays bounded without a hit having to record its use.
        const size_t buckets = stored_.bucket_count();
        for (size_t b = static_cast<size_t>(generation_.load(std::memory_order_relaxed)) % buckets;;
             b = (b + 1) % buckets) {
            if (stored_.bucket_size(b) == 0) continue;
            stored_.erase(stored_.begin(b)->first);
            break;
        }
    }
    stored_[domain] = std::move(list);
}

void QelDNSCacheManager::forgetStored(const std::string* domain) const {
    std::unordered_map<std::string, List> forgotten;  // freed outside the lock
    qel::platform::MutexLock lock(mutex_);
    ++storedVersion_;
    if (!domain) {
        forgotten.swap(stored_);
    } else if (const auto found = stored_.find(*domain); found != stored_.end()) {
        stored_.erase(found);
    }
}

bool QelDNSCacheManager::isAlive(const QelDNSIPModel* record, double now) {
    if (!record) return false;
    const double lookupTime = record->lookupTime();
    return static_cast<double>(record->ttl()) + lookupTime > now;
}

QelDNSIPModelList QelDNSCacheManager::aliveRecords(const QelDNSIPModelList& ips, double now) {
    QelDNSIPModelList alive;
    alive.reserve(ips.size());
    for (const auto& record : ips) {
        if (isAlive(record.get(), now)) alive.push_back(record);
    }
    return alive;
}

QelDNSIPModelList QelDNSCacheManager::filterExpiredTTL(const QelDNSIPModelList& ips) const {
    return aliveRecords(ips, qel::platform::Clock::currentTime());
}

void QelDNSCacheManager::clearCacheForDomain(const std::string& domain) {
    List removed;
    {
        qel::platform::MutexLock lock(mutex_);
        removed = lists_.remove(domain);
        if (removed) renewLocked();
    }
    UserDefaults::standard().remove(domain);
    forgetStored(&domain);  // also told by the store's observer, which another store may lack
}

void QelDNSCacheManager::clearAllCache() {
    setDict({});
    clearAllDiskCache();
}

QelDNSIPModelListRef QelDNSCacheManager::getCacheWithDomain(const std::string& domain) const {
    return unarchivedObjects(UserDefaults::standard().data(domain));
}

void QelDNSCacheManager::saveCaches(const QelDNSIPModelList& ips, const std::string& domain) {
    if (std::optional<Data> data = archivedDataWithObjects(ips)) {
        UserDefaults::standard().setData(domain, *data);
        forgetStored(&domain);
    }
}

void QelDNSCacheManager::clearAllDiskCache() {
    UserDefaults& store = UserDefaults::standard();
    for (const std::string& key : store.allKeys()) {
        if (key.find("_v4") != std::string::npos || key.find("_v6") != std::string::npos) {
            store.remove(key);
        }
    }
    forgetStored(nullptr);
}

std::optional<Data> QelDNSCacheManager::archivedDataWithObjects(
    const QelDNSIPModelList& ips) const {
    return KeyedArchiver::archivedDataWithRootObjects(ips);
}

QelDNSIPModelListRef QelDNSCacheManager::unarchivedObjects(const std::optional<Data>& data) const {
    if (!data) return nullptr;
    auto records = KeyedUnarchiver::unarchivedArrayOfObjects<std::shared_ptr<const QelDNSIPModel>>(
        *data, allowedClasses());
    if (!records) return nullptr;
    return std::make_shared<const QelDNSIPModelList>(std::move(*records));
}
