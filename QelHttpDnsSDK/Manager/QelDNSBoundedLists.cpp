#include "QelHttpDnsSDK/Manager/QelDNSBoundedLists.h"

const QelDNSBoundedLists::Slot* QelDNSBoundedLists::find(const std::string& key) const {
    const auto found = slots_.find(key);
    return found == slots_.end() ? nullptr : &found->second;
}

QelDNSBoundedLists::List QelDNSBoundedLists::put(const std::string& key, List list,
                                                 std::vector<List>& evicted) {
    if (const auto found = slots_.find(key); found != slots_.end()) {
        std::swap(found->second.list_, list);
        found->second.list_->markVisited();  // a renewed answer is in use
        return list;
    }
    // Room first, so that the new key is not the one to go.
    while (maxSize_ != 0 && slots_.size() >= maxSize_) evictOne(evicted);
    const auto at = slots_.try_emplace(key).first;
    Slot& slot = at->second;
    slot.key_ = &at->first;
    slot.list_ = std::move(list);
    linkNewest(slot);
    return List();
}

QelDNSBoundedLists::List QelDNSBoundedLists::remove(const std::string& key) {
    const auto found = slots_.find(key);
    if (found == slots_.end()) return List();
    unlink(found->second);
    List list = std::move(found->second.list_);
    slots_.erase(found);
    return list;
}

std::vector<QelDNSBoundedLists::List> QelDNSBoundedLists::clear() {
    std::vector<List> lists;
    lists.reserve(slots_.size());
    for (auto& [key, slot] : slots_) lists.push_back(std::move(slot.list_));
    // A new table: clear() would keep the buckets of the largest size it ever had.
    std::unordered_map<std::string, Slot>().swap(slots_);
    newest_ = oldest_ = hand_ = nullptr;
    return lists;
}

void QelDNSBoundedLists::setMaxSize(size_t maxSize, std::vector<List>& evicted) {
    maxSize_ = maxSize;
    while (maxSize_ != 0 && slots_.size() > maxSize_) evictOne(evicted);
}

void QelDNSBoundedLists::linkNewest(Slot& slot) {
    slot.older_ = newest_;
    slot.newer_ = nullptr;
    if (newest_) newest_->newer_ = &slot;
    newest_ = &slot;
    if (!oldest_) oldest_ = &slot;
}

void QelDNSBoundedLists::unlink(Slot& slot) {
    if (hand_ == &slot) hand_ = slot.newer_;
    (slot.newer_ ? slot.newer_->older_ : newest_) = slot.older_;
    (slot.older_ ? slot.older_->newer_ : oldest_) = slot.newer_;
    slot.newer_ = slot.older_ = nullptr;
}

void QelDNSBoundedLists::evictOne(std::vector<List>& evicted) {
    Slot* victim = hand_ ? hand_ : oldest_;
    // Ends within one lap: every mark passed is cleared.
    while (victim->list_->visited()) {
        victim->list_->clearVisited();
        victim = victim->newer_ ? victim->newer_ : oldest_;
    }
    hand_ = victim->newer_;
    evicted.push_back(std::move(victim->list_));
    unlink(*victim);
    slots_.erase(slots_.find(*victim->key_));
}
