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

    /// Told of changes: a key set or removed through this store (called on the writing thread,
    /// after the change, without the store's lock), or nullptr when another connection to the
    /// same file may have changed anything. One observer; a later call replaces it.
    using ChangeObserver = std::function<void(const std::string* key)>;
    virtual void setChangeObserver(ChangeObserver observer) { (void)observer; }
    /// Looks for changes made through another connection, at most once per check interval
    /// (cheap otherwise), and tells the observer when there were any.
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
