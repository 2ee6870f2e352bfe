#include "QelHttpDnsSDK/Platform/WriteBehindUserDefaults.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <system_error>
#include <utility>

namespace qel::platform {

namespace {

// The waits before a batch that a lock kept out is tried again: the first, then doubling.
constexpr std::chrono::milliseconds kFirstRetry{10};
constexpr std::chrono::milliseconds kLastRetry{1000};
// How long the writer keeps looking every kWriteDelay after its last batch before it sleeps
// until woken: while writes come often, a write need not wake it (a futex call and a thread
// switch on the answering path).
constexpr std::chrono::seconds kLinger{1};

}  // namespace

WriteBehindUserDefaults::WriteBehindUserDefaults(std::unique_ptr<UserDefaults> backend)
    : backend_(std::move(backend)) {}

WriteBehindUserDefaults::~WriteBehindUserDefaults() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (writer_.joinable()) writer_.join();
    synchronize();
}

std::optional<Data> WriteBehindUserDefaults::data(const std::string& key) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = pending_.find(key);
        if (found != pending_.end()) {
            const std::optional<Value>& value = found->second.value;
            if (const Data* data = value ? std::get_if<Data>(&*value) : nullptr) return *data;
            return std::nullopt;
        }
    }
    return backend_->data(key);
}

std::optional<std::string> WriteBehindUserDefaults::string(const std::string& key) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto found = pending_.find(key);
        if (found != pending_.end()) {
            const std::optional<Value>& value = found->second.value;
            if (const auto* text = value ? std::get_if<std::string>(&*value) : nullptr) {
                return *text;
            }
            return std::nullopt;
        }
    }
    return backend_->string(key);
}

void WriteBehindUserDefaults::setData(const std::string& key, const Data& value) {
    record(key, Value(value));
}

void WriteBehindUserDefaults::setString(const std::string& key, const std::string& value) {
    record(key, Value(value));
}

void WriteBehindUserDefaults::remove(const std::string& key) { record(key, std::nullopt); }

std::vector<std::string> WriteBehindUserDefaults::allKeys() {
    // The changes are taken first: one written after this look is in the store behind when
    // it is read.
    std::vector<std::pair<std::string, bool>> changed;  // key, whether it holds a value
    {
        std::lock_guard<std::mutex> lock(mutex_);
        changed.reserve(pending_.size());
        for (const auto& [key, entry] : pending_)
            changed.emplace_back(key, entry.value.has_value());
    }
    const std::vector<std::string> stored = backend_->allKeys();
    std::set<std::string> keys(stored.begin(), stored.end());
    for (const auto& [key, present] : changed) {
        if (present) {
            keys.insert(key);
        } else {
            keys.erase(key);
        }
    }
    return {keys.begin(), keys.end()};
}

// The store behind is read a part at a time up to its last key read; the changes not yet
// written are merged into each part, so that removals do not cut a part short.
std::vector<std::string> WriteBehindUserDefaults::keysAfter(const std::string& after,
                                                            size_t limit) {
    std::map<std::string, bool> changed;  // key, whether it holds a value
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = pending_.upper_bound(after); it != pending_.end(); ++it) {
            changed.emplace(it->first, it->second.value.has_value());
        }
    }
    std::vector<std::string> keys;
    std::string from = after;
    while (keys.size() < limit) {
        const std::vector<std::string> stored = backend_->keysAfter(from, limit);
        const bool last = stored.size() < limit;
        std::set<std::string> part(stored.begin(), stored.end());
        const auto end = last ? changed.end() : changed.upper_bound(stored.back());
        for (auto it = changed.upper_bound(from); it != end; ++it) {
            if (it->second) {
                part.insert(it->first);
            } else {
                part.erase(it->first);
            }
        }
        for (const std::string& key : part) {
            if (keys.size() == limit) break;
            keys.push_back(key);
        }
        if (last) break;
        from = stored.back();
    }
    return keys;
}

bool WriteBehindUserDefaults::writeChanges(const std::vector<Change>& changes) {
    for (const Change& change : changes) record(change.key, change.value);
    return true;
}

void WriteBehindUserDefaults::record(const std::string& key, std::optional<Value> value) {
    std::shared_ptr<const ChangeObserver> observer;
    bool noThread = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool first = pending_.empty();
        Pending& entry = pending_[key];
        entry.value = std::move(value);
        entry.sequence = ++sequence_;
        if (first) firstPending_ = std::chrono::steady_clock::now();
        if (!writer_.joinable() && !stopping_) {
            try {
                writer_ = std::thread([this] { run(); });
            } catch (const std::system_error&) {
                noThread = true;  // none to be had now: the next write tries again
            }
        } else if ((first && idle_) || pending_.size() == kBatchSize) {
            wake_.notify_one();
        }
        observer = observer_;
    }
    if (noThread) synchronize();  // written on the caller's thread, as a store without one does
    if (observer) (*observer)(&key);
}

WriteBehindUserDefaults::Batch WriteBehindUserDefaults::writeBatch(uint64_t upTo) {
    std::lock_guard<std::mutex> writing(writing_);
    std::vector<Change> changes;
    std::vector<uint64_t> sequences;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [key, entry] : pending_) {
            if (entry.sequence > upTo) continue;
            changes.push_back({key, entry.value});
            sequences.push_back(entry.sequence);
            if (changes.size() == kBatchSize) break;
        }
    }
    if (changes.empty()) return Batch::Nothing;
    if (!backend_->writeChanges(changes)) return Batch::Locked;
    // Written: the changes leave, unless the key was written again meanwhile.
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < changes.size(); ++i) {
        const auto found = pending_.find(changes[i].key);
        if (found != pending_.end() && found->second.sequence == sequences[i]) {
            pending_.erase(found);
        }
    }
    return Batch::Written;
}

bool WriteBehindUserDefaults::synchronize() {
    uint64_t upTo;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        upTo = sequence_;  // writes that come after the call do not keep it going
    }
    Batch batch;
    do {
        batch = writeBatch(upTo);
    } while (batch == Batch::Written);
    std::lock_guard<std::mutex> lock(mutex_);
    return pending_.empty();
}

void WriteBehindUserDefaults::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    std::chrono::milliseconds retry{0};
    auto lastBatch = std::chrono::steady_clock::now();
    while (!stopping_) {
        if (pending_.empty()) {
            const auto now = std::chrono::steady_clock::now();
            if (now - lastBatch < kLinger) {
                wake_.wait_until(lock, now + kWriteDelay);
            } else {
                idle_ = true;
                wake_.wait(lock);
                idle_ = false;
            }
            continue;
        }
        const auto due = firstPending_ + kWriteDelay;
        if (pending_.size() < kBatchSize && std::chrono::steady_clock::now() < due) {
            wake_.wait_until(lock, due);
            continue;
        }
        lock.unlock();
        const Batch batch = writeBatch(UINT64_MAX);
        lock.lock();
        lastBatch = std::chrono::steady_clock::now();
        if (batch != Batch::Locked) {
            retry = std::chrono::milliseconds(0);
            continue;
        }
        retry = std::clamp(retry * 2, kFirstRetry, kLastRetry);
        wake_.wait_for(lock, retry, [this] { return stopping_; });
    }
}

void WriteBehindUserDefaults::setChangeObserver(ChangeObserver observer) {
    auto shared = observer ? std::make_shared<const ChangeObserver>(std::move(observer)) : nullptr;
    // The store behind reports other connections' commits; its own writes are this store's.
    ChangeObserver external;
    if (shared) {
        external = [shared](const std::string* key) {
            if (!key) (*shared)(nullptr);
        };
    }
    backend_->setChangeObserver(std::move(external));
    std::lock_guard<std::mutex> lock(mutex_);
    observer_ = std::move(shared);
}

void WriteBehindUserDefaults::noticeExternalChanges() { backend_->noticeExternalChanges(); }

void WriteBehindUserDefaults::holdWrites() { writing_.lock(); }

void WriteBehindUserDefaults::releaseWrites() { writing_.unlock(); }

}  // namespace qel::platform
