// The application's key-value store (the stand-in for the platform's standard user defaults).
// The SDK keeps its persisted cache here, one entry per cache key, beside whatever keys the
// application keeps for itself. Values are typed: a key holds either a data blob or a string.
//
// Every operation is callable from any thread and never throws. A store that cannot be used
// (a damaged or unreadable file) behaves as an empty store that ignores writes; its
// implementation says how that is reported.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "QelHttpDnsSDK/Platform/Data.h"

namespace qel::platform {

class UserDefaults {
public:
    virtual ~UserDefaults() = default;

    /// The blob stored under `key`; nothing when the key is absent or holds a string.
    virtual std::optional<Data> data(const std::string& key) = 0;
    /// The string stored under `key`; nothing when the key is absent or holds a blob.
    virtual std::optional<std::string> string(const std::string& key) = 0;
    /// Stores `value` under `key`, replacing whatever the key held.
    virtual void setData(const std::string& key, const Data& value) = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
    /// Removes `key`; an absent key is not an error.
    virtual void remove(const std::string& key) = 0;
    /// Every key at the moment of the call, in ascending byte order.
    virtual std::vector<std::string> allKeys() = 0;
    /// The first `limit` keys after `after` in ascending byte order: a store read in parts.
    virtual std::vector<std::string> keysAfter(const std::string& after, size_t limit);

    /// What a key holds: a blob or a string.
    using Value = std::variant<Data, std::string>;
    /// One write: `key` gets `value`, or is removed when it has none.
    struct Change {
        std::string key;
        std::optional<Value> value;
    };

    /// Writes `changes` in order, at once where the store can (one transaction). False when
    /// another connection's lock kept them out: nothing was written and the caller may try
    /// again later. A change the store cannot write for any other reason is dropped, as a
    /// write of it alone would be. This default writes them one by one.
    virtual bool writeChanges(const std::vector<Change>& changes) {
        for (const Change& change : changes) {
            if (!change.value) {
                remove(change.key);
            } else if (const Data* data = std::get_if<Data>(&*change.value)) {
                setData(change.key, *data);
            } else {
                setString(change.key, std::get<std::string>(*change.value));
            }
        }
        return true;
    }

    /// Writes every change still held in memory to the file now, on the calling thread; true
    /// when nothing is left to write (false while another connection's lock keeps them out).
    /// A store that writes as it goes has nothing to do.
    virtual bool synchronize() { return true; }

    /// Told of a change of the stored contents: with the key after an in-process write
    /// (setData, setString, remove) of it, or with nullptr when anything may have changed
    /// because another connection (another process, or the application's own) committed.
    using ChangeObserver = std::function<void(const std::string* key)>;
    /// Installs the one observer (a later call replaces it; an empty one removes it). It runs
    /// synchronously on the writing thread after the write, never under the store's lock.
    virtual void setChangeObserver(ChangeObserver /*observer*/) {}
    /// Looks for other connections' commits and tells the observer (with nullptr) when there
    /// were some. Cheap enough for every lookup: it looks at most once per 100 ms and never
    /// waits for the store.
    virtual void noticeExternalChanges() {}

    /// The process-wide store, opened on first use at `standardPath()` (in memory when that
    /// is absent) and never destroyed. Callable from any thread.
    static UserDefaults& standard();

    /// Chooses the file of the standard store. Takes effect only before the first call of
    /// `standard()`; returns false (and changes nothing) once the store is open.
    static bool setStandardPath(const std::string& path);

    /// The file the standard store uses: the path chosen with `setStandardPath`, or else the
    /// platform's place for it, which is private to the user and to the application (on Linux
    /// see `SqliteUserDefaults::standardLocation`). Absent when the platform has no place for
    /// it; the store then lives in memory.
    static std::optional<std::string> standardPath();
};

}  // namespace qel::platform
