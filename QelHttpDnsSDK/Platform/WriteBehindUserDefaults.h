// A store in front of another that writes behind the caller, as the platform's own defaults
// store does: a write is kept in memory and returns at once; reads see it at once (they look
// at the changes not yet written before the store behind); a thread of this store's own
// writes the changes to the store behind within 100 ms of the first one, in batches of at most
// 64, each one `writeChanges` call (one transaction on SQLite). Changes of one key coalesce:
// only the latest is written, a removal included.
//
// Why: a lookup's answer used to wait for its save on the one thread that delivers every
// answer, and behind any lock another connection held on the file. Now a lock held elsewhere
// delays the batch, never a caller: the batch is tried again after 10 ms, doubling to 1 s;
// its changes stay readable meanwhile, and newer changes of a key replace them. A batch is
// small so that a read that needs the store behind waits little for the connection.
//
// `synchronize()` writes everything now, on the calling thread. The standard store also does
// so when the application enters the background and at normal exit (see PlatformServices).
//
// fork(): the child never uses this instance (the standard store is a PerProcess one: the
// child makes its own, with its own thread and connection); `holdWrites` keeps a batch from
// being under way in the store behind (and its library's locks held) while a fork runs.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "QelHttpDnsSDK/Platform/UserDefaults.h"

namespace qel::platform {

class WriteBehindUserDefaults final : public UserDefaults {
public:
    /// The longest a change waits before its batch starts (barring a lock).
    static constexpr std::chrono::milliseconds kWriteDelay{100};
    /// The most changes one batch writes.
    static constexpr size_t kBatchSize = 64;

    explicit WriteBehindUserDefaults(std::unique_ptr<UserDefaults> backend);
    /// Stops the thread and writes what is left.
    ~WriteBehindUserDefaults() override;
    WriteBehindUserDefaults(const WriteBehindUserDefaults&) = delete;
    WriteBehindUserDefaults& operator=(const WriteBehindUserDefaults&) = delete;

    std::optional<Data> data(const std::string& key) override;
    std::optional<std::string> string(const std::string& key) override;
    void setData(const std::string& key, const Data& value) override;
    void setString(const std::string& key, const std::string& value) override;
    void remove(const std::string& key) override;
    std::vector<std::string> allKeys() override;
    std::vector<std::string> keysAfter(const std::string& after, size_t limit) override;
    bool writeChanges(const std::vector<Change>& changes) override;
    bool synchronize() override;
    /// Told of every write made here, with its key, and (from the store behind) of other
    /// connections' commits, with nullptr.
    void setChangeObserver(ChangeObserver observer) override;
    void noticeExternalChanges() override;

    /// Waits for the batch under way and keeps another from starting until `releaseWrites`
    /// (in the same thread): a fork's prepare and parent handlers.
    void holdWrites();
    void releaseWrites();

private:
    struct Pending {
        std::optional<Value> value;
        uint64_t sequence;  // which write of the key this is
    };
    enum class Batch { Nothing, Written, Locked };

    void record(const std::string& key, std::optional<Value> value);
    // Writes one batch of the changes made up to write number `upTo`.
    Batch writeBatch(uint64_t upTo);
    void run();

    const std::unique_ptr<UserDefaults> backend_;
    std::mutex writing_;  // held by the one batch under way, so batches keep the order of writes
    std::mutex mutex_;    // guards what follows
    std::condition_variable wake_;
    std::map<std::string, Pending> pending_;
    uint64_t sequence_ = 0;
    std::chrono::steady_clock::time_point firstPending_;
    bool stopping_ = false;
    bool idle_ = false;   // the writer sleeps until a write wakes it
    std::thread writer_;  // started with the first write
    std::shared_ptr<const ChangeObserver> observer_;
};

}  // namespace qel::platform
