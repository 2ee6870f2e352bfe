// The defaults store on Linux: one SQLite database file with one table,
//   CREATE TABLE user_defaults (key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID
// where a blob value is stored as BLOB and a string value as TEXT. The application may open
// the same file itself and keep its own rows in that table.
//
// The database runs in WAL mode with synchronous=NORMAL: a commit is appended to the
// write-ahead log with write(2) and not flushed to disk, so a commit costs no fsync, yet every
// committed write survives a crash (even `kill -9`) of the process; only a crash of the whole
// machine may lose the latest commits, never the file's consistency. The log is checkpointed
// (and synced) once it holds 1000 pages, right after the commit that crossed the mark, on a
// second connection: SQLite's own automatic checkpoint would run inside the commit, keeping
// this connection from readers meanwhile.
//
// The standard store does not commit on the caller's thread: it is this store behind a
// WriteBehindUserDefaults, which keeps each write in memory (readable at once) and commits it
// within 100 ms, in batches (`writeChanges`, one transaction each), on its own thread; and at
// once on `synchronize()`, when the application enters the background and at normal exit. A
// process killed before then loses the writes of its last 100 ms, never the file's
// consistency.
//
// One connection with prepared statements serves all threads, one operation at a time.
//
// The store is private to its user: the file is made 0600 and each directory the store makes
// 0700, whatever the umask (SQLite gives its -wal and -shm files the mode of the database
// file). A file or directory that exists keeps its mode: the application chose it. But what
// another user could have written is never read, since its records would answer lookups: the
// store refuses a file that is a symbolic link (never followed, so never created through a
// dangling one), not a regular file, not owned by the effective user, or writable by group or
// others; the same for a -wal, -shm or -journal file beside it; and a file in a directory that
// another user (root aside) owns or that group or others may write. A refused store is
// reported once to the `Console` and behaves as one that cannot be opened (below).
//
// A file that cannot be opened as a database (damaged, not a database, a directory, no
// permission) is never deleted, repaired or rewritten: it may hold the application's own
// keys. The store then behaves as empty and ignores writes for its whole life. The first
// problem a store meets (at open or on a later operation) is written once to the `Console`;
// callers are told nothing. So is a database that cannot run in WAL mode (it then keeps its
// journal mode and works on).
//
// Another connection (the application's, in this or another process) may hold the file's
// lock. Nothing on a caller's path waits for it: a read never waits (in WAL mode another
// connection's write does not hold it up; a database in rollback-journal mode under an
// exclusive lock reads as without the value), and a batch (`writeChanges`) tries the lock once
// and, when it is taken, writes nothing and returns false, for the write-behind layer to try
// again later. A write made directly (setData, setString, remove) waits 100 ms at most, then
// is skipped, and later direct writes do not wait at all until a write goes through again. A
// lock that keeps the file from being opened does not make the store unusable: later
// operations open it again. One line goes to the `Console` when a lock first gets in the way,
// and one when a write goes through after it; these do not count as the store's one problem
// above.
//
// Commits of other connections are noticed with `PRAGMA data_version` on this connection (its
// own commits leave it as it is); see `noticeExternalChanges`.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"

struct sqlite3;
struct sqlite3_stmt;

namespace qel::platform {

class SqliteUserDefaults final : public UserDefaults {
public:
    /// The path of a store that lives in memory, for this process only.
    static constexpr char kInMemory[] = ":memory:";

    /// Opens the database at `path`, creating the file and its missing parent directories.
    explicit SqliteUserDefaults(std::string path);
    ~SqliteUserDefaults() override;
    SqliteUserDefaults(const SqliteUserDefaults&) = delete;
    SqliteUserDefaults& operator=(const SqliteUserDefaults&) = delete;

    /// Where the standard store lives: `$XDG_DATA_HOME/<dir>/user-defaults.sqlite3`, with
    /// `$HOME/.local/share` when XDG_DATA_HOME is not an absolute path, and the home directory
    /// of the user's passwd entry when HOME is not one either. <dir> is `bundleIdentifier`, or
    /// the program's name without one, so applications never share a store ('/' becomes '_';
    /// "", "." and ".." do not count). Nothing when no absolute directory or no name is known:
    /// a relative path would put the store wherever the process happens to run.
    static std::optional<std::string> standardLocation(
        const std::optional<std::string>& bundleIdentifier);

    /// False when the file could not be opened as a database (the store is then empty), or
    /// has not been yet because another connection's lock was in the way.
    bool isUsable() const;

    std::optional<Data> data(const std::string& key) override;
    std::optional<std::string> string(const std::string& key) override;
    void setData(const std::string& key, const Data& value) override;
    void setString(const std::string& key, const std::string& value) override;
    void remove(const std::string& key) override;
    std::vector<std::string> allKeys() override;
    std::vector<std::string> keysAfter(const std::string& after, size_t limit) override;
    /// One transaction, begun without waiting for another connection's lock.
    bool writeChanges(const std::vector<Change>& changes) override;
    /// Observes direct writes (with the key) and other connections' commits (with nullptr);
    /// the batches of `writeChanges` are not reported again.
    void setChangeObserver(ChangeObserver observer) override;
    void noticeExternalChanges() override;

private:
    class Session;

    bool open() QEL_REQUIRES(mutex_);
    void close() QEL_REQUIRES(mutex_);
    // Keys in order, after `*after` when given, `limit` at most (negative: all).
    std::vector<std::string> listKeys(const std::string* after, int64_t limit);
    // Records why `open` failed and returns false: a lock is waited out, anything else ends it.
    bool failOpenLocked(int resultCode) QEL_REQUIRES(mutex_);
    // Opens the file again after a lock kept it from opening; whether the store is open.
    bool readyLocked() QEL_REQUIRES(mutex_);
    std::string prefix() const;
    // Steps `statement`; reports a failure once, or notes a lock in the way or gone.
    int stepLocked(sqlite3_stmt* statement, const char* operation, bool writes)
        QEL_REQUIRES(mutex_);
    void noteLockedLocked() QEL_REQUIRES(mutex_);
    // Stores `value` under `key` (removes it without one); the step's result, SQLITE_DONE when
    // the value was dropped. A `direct` write waits for another connection's lock (above).
    int writeLocked(const std::string& key, const Value* value, bool direct) QEL_REQUIRES(mutex_);
    void writeDirectly(const std::string& key, const Value* value);
    bool writeChangesOnce(const std::vector<Change>& changes);
    // Checkpoints the log on a connection of its own once it holds kCheckpointPages pages.
    void checkpointIfDue();
    bool readDataVersionLocked(int64_t& version) QEL_REQUIRES(mutex_);
    void notify(const std::string* key);
    void noteWrittenLocked() QEL_REQUIRES(mutex_);
    // Runs `select_` for `key`; true with the row's column ready, false for no row or error.
    bool selectLocked(const std::string& key) QEL_REQUIRES(mutex_);
    void finishLocked(sqlite3_stmt* statement) QEL_REQUIRES(mutex_);
    void reportOnceLocked(const char* operation, int resultCode) QEL_REQUIRES(mutex_);

    const std::string path_;
    mutable qel::platform::Mutex mutex_;
    sqlite3* db_ QEL_GUARDED_BY(mutex_) = nullptr;  // null when unusable
    sqlite3_stmt* select_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* upsert_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* delete_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* keys_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* begin_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* commit_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* rollback_ QEL_GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* dataVersion_ QEL_GUARDED_BY(mutex_) = nullptr;
    int64_t knownDataVersion_ QEL_GUARDED_BY(mutex_) = 0;
    bool externalChange_ QEL_GUARDED_BY(mutex_) = false;  // reopened: anything may differ
    std::atomic<double> lastExternalCheck_{0};            // Clock::currentTime of the last look
    std::atomic<int> logPages_{0};  // the log's size after this connection's last commit
    qel::platform::Mutex checkpointMutex_;
    sqlite3* checkpointDb_ QEL_GUARDED_BY(checkpointMutex_) = nullptr;
    qel::platform::Mutex observerMutex_;
    std::shared_ptr<const ChangeObserver> observer_ QEL_GUARDED_BY(observerMutex_);
    bool reported_ QEL_GUARDED_BY(mutex_) = false;
    bool locked_ QEL_GUARDED_BY(mutex_) =
        false;  // another connection's lock got in the way and no write since
    bool retryOpen_ QEL_GUARDED_BY(mutex_) = false;  // the last open failed on a lock
    std::vector<std::string> pendingReports_
        QEL_GUARDED_BY(mutex_);  // written to the Console once the lock is released
};

}  // namespace qel::platform
