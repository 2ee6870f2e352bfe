#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"

#include <algorithm>
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
    QelDNSIPModelListRef ips;
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
    qel::platform::MutexLock lock(mutex_);
    return dict_;
}

void QelDNSCacheManager::setDict(Dict dict) {
    Dict old;  // the replaced lists are released outside the lock
    qel::platform::MutexLock lock(mutex_);
    old.swap(dict_);
    dict_ = std::move(dict);
    generation_.store(nextGeneration(), std::memory_order_release);
}

void QelDNSCacheManager::saveIPs(QelDNSIPModelListRef ips, const std::string& domain,
                                 bool cacheToDisk) {
    if (!ips) ips = std::make_shared<const QelDNSIPModelList>();
    QelDNSIPModelListRef replaced;
    {
        qel::platform::MutexLock lock(mutex_);
        QelDNSIPModelListRef& slot = dict_[domain];
        replaced = std::move(slot);
        slot = ips;
        generation_.store(nextGeneration(), std::memory_order_release);
    }
    if (cacheToDisk) saveCaches(*ips, domain);
}

QelDNSIPModelListRef QelDNSCacheManager::getIPsWithDomain(const std::string& domain,
                                                          bool expired) const {
    QelDNSIPModelListRef found;
    readIPsWithDomain(domain, expired, [&found](const QelDNSIPModelListRef& ips) { found = ips; });
    return found;
}

bool QelDNSCacheManager::readIPsWithDomain(const std::string& domain, bool expired,
                                           const Reader& read, bool* fromStore) const {
    LastMemoryHit& last = lastMemoryHit;
    if (last.generation == generation_.load(std::memory_order_acquire) && last.domain == domain) {
        readAlive(last.ips, expired, read);
        return true;
    }
    QelDNSIPModelListRef ips;
    uint64_t generation;
    {
        qel::platform::MutexLock lock(mutex_);
        const auto found = dict_.find(domain);
        if (found != dict_.end()) ips = found->second;
        generation = generation_.load(std::memory_order_relaxed);
    }
    if (!ips || ips->empty()) {
        // Not remembered: the store may be changed through another handle on it.
        ips = getCacheWithDomain(domain);
        if (!ips || ips->empty()) return false;
        if (fromStore) *fromStore = true;
        readAlive(ips, expired, read);
        return true;
    }
    last.generation = generation;
    last.domain = domain;
    last.ips = std::move(ips);
    readAlive(last.ips, expired, read);
    return true;
}

void QelDNSCacheManager::readAlive(const QelDNSIPModelListRef& ips, bool expired,
                                   const Reader& read) {
    if (expired) return read(ips);
    const double now = qel::platform::Clock::currentTime();
    // Lists are immutable, so when every record is alive the list itself is as good as a
    // copy, and a hit costs no allocation.
    if (std::all_of(ips->begin(), ips->end(),
                    [now](const auto& record) { return isAlive(record.get(), now); })) {
        return read(ips);
    }
    read(std::make_shared<const QelDNSIPModelList>(aliveRecords(*ips, now)));
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
    QelDNSIPModelListRef removed;
    {
        qel::platform::MutexLock lock(mutex_);
        const auto found = dict_.find(domain);
        if (found != dict_.end()) {
            removed = std::move(found->second);
            dict_.erase(found);
            generation_.store(nextGeneration(), std::memory_order_release);
        }
    }
    UserDefaults::standard().remove(domain);
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
    }
}

void QelDNSCacheManager::clearAllDiskCache() {
    UserDefaults& store = UserDefaults::standard();
    for (const std::string& key : store.allKeys()) {
        if (key.find("_v4") != std::string::npos || key.find("_v6") != std::string::npos) {
            store.remove(key);
        }
    }
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
