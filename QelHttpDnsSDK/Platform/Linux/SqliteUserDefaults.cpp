#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

namespace qel::platform {

namespace {

// How long a direct write waits for another connection's lock: short of what a user notices,
// yet longer than an ordinary transaction of the application's (a few upserts and a sync).
// Once a wait has run out, later ones do not wait at all until a write goes through. Reads and
// batches never wait: the connection's busy timeout is 0 outside a direct write, so a lock
// delays a batch of the write-behind layer (which holds its changes readable meanwhile), not
// a lookup that reads the store while the batch's connection is free.
constexpr int kBusyTimeoutMillis = 100;

// The log's size, in pages, from which a commit is followed by a checkpoint (SQLite's own
// automatic checkpoint has the same mark).
constexpr int kCheckpointPages = 1000;

// How often `noticeExternalChanges` looks at the data version.
constexpr double kExternalCheckSeconds = 0.1;

// Another connection holds a lock this operation needs.
bool isLockConflict(int resultCode) {
    const int primary = resultCode & 0xff;
    return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

sqlite3_stmt* prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
        SQLITE_OK) {
        return nullptr;
    }
    return statement;
}

constexpr char kFileName[] = "user-defaults.sqlite3";

std::optional<std::string> absolute(const char* path) {
    if (path && path[0] == '/') return std::string(path);
    return std::nullopt;
}

std::optional<std::string> homeDirectory() {
    if (auto home = absolute(std::getenv("HOME"))) return home;
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found) {
        return absolute(found->pw_dir);
    }
    return std::nullopt;
}

// XDG: $XDG_DATA_HOME when it is an absolute path, else ~/.local/share.
std::optional<std::string> dataHome() {
    if (auto xdg = absolute(std::getenv("XDG_DATA_HOME"))) return xdg;
    if (auto home = homeDirectory()) return *home + "/.local/share";
    return std::nullopt;
}

// `name` as one directory name: no separators, not "." or "..".
std::optional<std::string> directoryName(std::string name) {
    if (name.empty() || name == "." || name == "..") return std::nullopt;
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    return name;
}

// Makes the missing directories of `directory`, each 0700 whatever the umask; the ones that
// exist are left as they are. A failure shows up as the database's own open error.
void makePrivateDirectories(const std::filesystem::path& directory) {
    std::error_code ignored;
    if (directory.empty() || std::filesystem::exists(directory, ignored)) return;
    makePrivateDirectories(directory.parent_path());
    if (::mkdir(directory.c_str(), 0700) == 0) ::chmod(directory.c_str(), 0700);
}

// Why `status` lets someone other than this process's user see or change what the store
// holds, or nothing. A file must be closed to group and others (the names an application
// looked up are its own business); a directory must only be closed to their writes.
std::optional<std::string> notPrivate(const struct stat& status, const char* what) {
    if (status.st_uid != ::geteuid() && !(S_ISDIR(status.st_mode) && status.st_uid == 0)) {
        return std::string(what) + " is owned by uid " + std::to_string(status.st_uid) +
               ", not by uid " + std::to_string(::geteuid());
    }
    const bool directory = S_ISDIR(status.st_mode);
    if (status.st_mode & (directory ? (S_IWGRP | S_IWOTH) : (S_IRWXG | S_IRWXO))) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        return std::string(what) +
               (directory ? " is writable by its group or others (mode "
                          : " is open to its group or others (mode ") +
               mode + ")";
    }
    return std::nullopt;
}

// Why the file at `path` must not hold the store, or nothing once it is a regular file of
// this user's that nobody else can write, made 0600 (whatever the umask) when it was absent.
// A symbolic link is never followed, so the store cannot be pointed at another file. The
// directory must be this user's (or root's) and closed to other writers: otherwise they
// could swap the file between this check and SQLite's open, which goes by the name, or plant
// the journal SQLite replays into it. (SQLITE_OPEN_NOFOLLOW would refuse a link anywhere in
// the path, a linked home directory too.)
std::optional<std::string> untrustedFile(const std::string& path) {
    const std::filesystem::path name(path);
    const std::string directory = name.has_parent_path() ? name.parent_path().string() : ".";
    struct stat status {};
    if (::stat(directory.c_str(), &status) != 0) {
        return "its directory cannot be read (" + std::string(std::strerror(errno)) + ")";
    }
    if (auto reason = notPrivate(status, "its directory")) return reason;
    // O_NONBLOCK: a FIFO put there must not hang the open.
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
        ::fchmod(fd, 0600);
    } else if (errno == EEXIST) {
        fd = ::open(path.c_str(), kFlags);
    }
    if (fd < 0) {
        if (errno == ELOOP) return std::string("it is a symbolic link");
        return "it cannot be opened (" + std::string(std::strerror(errno)) + ")";
    }
    const int statResult = ::fstat(fd, &status);
    ::close(fd);
    if (statResult != 0 || !S_ISREG(status.st_mode)) return std::string("it is not a regular file");
    if (auto reason = notPrivate(status, "it")) return reason;
    // Journals SQLite would read into the database when it opens it.
    for (const char* suffix : {"-wal", "-shm", "-journal"}) {
        const std::string side = path + suffix;
        if (::lstat(side.c_str(), &status) != 0) continue;  // absent
        const std::string what = name.filename().string() + suffix;
        if (!S_ISREG(status.st_mode)) return what + " is not a regular file";
        if (auto reason = notPrivate(status, what.c_str())) return reason;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> SqliteUserDefaults::standardLocation(
    const std::optional<std::string>& bundleIdentifier) {
    std::optional<std::string> directory;
    if (bundleIdentifier) directory = directoryName(*bundleIdentifier);
    // glibc's short program name (declared by <cerrno> under _GNU_SOURCE).
    if (!directory && ::program_invocation_short_name) {
        directory = directoryName(::program_invocation_short_name);
    }
    std::optional<std::string> base = dataHome();
    if (!directory || !base) return std::nullopt;
    return *base + "/" + *directory + "/" + kFileName;
}

// Holds the store's lock for one operation; on the way out it releases the lock before it
// writes a pending report, so a console sink may use the store itself.
class QEL_SCOPED_CAPABILITY SqliteUserDefaults::Session {
public:
    explicit Session(SqliteUserDefaults& store) QEL_ACQUIRE(store.mutex_)
        : store_(store), lock_(store.mutex_) {}
    ~Session() QEL_RELEASE() {
        std::vector<std::string> reports = std::move(store_.pendingReports_);
        store_.pendingReports_.clear();
        lock_.unlock();
        for (const std::string& report : reports) Console::log(report);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

private:
    SqliteUserDefaults& store_;
    MutexLock lock_;
};

SqliteUserDefaults::SqliteUserDefaults(std::string path) : path_(std::move(path)) {
    Session session(*this);
    if (!open()) close();
}

SqliteUserDefaults::~SqliteUserDefaults() {
    {
        MutexLock lock(checkpointMutex_);
        sqlite3_close(checkpointDb_);
    }
    qel::platform::MutexLock lock(mutex_);
    close();
}

bool SqliteUserDefaults::open() {
    retryOpen_ = false;
    const bool inMemory = path_ == kInMemory;
    if (!inMemory) {
        makePrivateDirectories(std::filesystem::path(path_).parent_path());
        if (const auto reason = untrustedFile(path_)) {
            reported_ = true;
            pendingReports_.push_back(prefix() + "not used: " + *reason +
                                      "; the store is treated as empty and the file is left "
                                      "as it is");
            return false;
        }
    }
    int rc =
        sqlite3_open_v2(path_.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) return failOpenLocked(rc);
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, locked_ ? 0 : kBusyTimeoutMillis);
    // The first statement reads the file header, so a file that is not a database fails
    // here, before anything could be written to it.
    static const char* const kSetup[] = {
        "PRAGMA journal_mode=WAL",  // answers the mode it leaves the database in
        "PRAGMA synchronous=NORMAL",
        "CREATE TABLE IF NOT EXISTS user_defaults "
        "(key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID",
    };
    std::string journalMode;
    const auto firstColumn = [](void* out, int, char** values, char**) {
        if (values[0]) *static_cast<std::string*>(out) = values[0];
        return 0;
    };
    for (const char* sql : kSetup) {
        rc = sqlite3_exec(db_, sql, firstColumn, &journalMode, nullptr);
        if (rc != SQLITE_OK) return failOpenLocked(rc);
    }
    sqlite3_busy_timeout(db_, 0);
    select_ = prepare(db_, "SELECT value FROM user_defaults WHERE key = ?1");
    upsert_ = prepare(db_,
                      "INSERT INTO user_defaults (key, value) VALUES (?1, ?2) "
                      "ON CONFLICT (key) DO UPDATE SET value = excluded.value");
    delete_ = prepare(db_, "DELETE FROM user_defaults WHERE key = ?1");
    keys_ = prepare(db_,
                    "SELECT key FROM user_defaults WHERE ?1 IS NULL OR key > ?1 ORDER BY key "
                    "LIMIT ?2");
    begin_ = prepare(db_, "BEGIN IMMEDIATE");
    commit_ = prepare(db_, "COMMIT");
    rollback_ = prepare(db_, "ROLLBACK");
    dataVersion_ = prepare(db_, "PRAGMA data_version");
    if (!select_ || !upsert_ || !delete_ || !keys_ || !begin_ || !commit_ || !rollback_ ||
        !dataVersion_) {
        return failOpenLocked(sqlite3_errcode(db_));
    }
    if (!readDataVersionLocked(knownDataVersion_)) return failOpenLocked(sqlite3_errcode(db_));
    // SQLite would checkpoint (and fsync) inside the commit that crosses the mark, holding
    // this connection from readers for milliseconds; `checkpointIfDue` runs it on a connection
    // of its own instead, after the commit, which a WAL reader does not wait for.
    sqlite3_wal_hook(
        db_,
        [](void* store, sqlite3*, const char*, int pages) {
            static_cast<SqliteUserDefaults*>(store)->logPages_.store(pages,
                                                                     std::memory_order_relaxed);
            return SQLITE_OK;
        },
        this);
    // A database in memory has no journal file to put in WAL mode.
    if (!inMemory && ::strcasecmp(journalMode.c_str(), "wal") != 0) {
        pendingReports_.push_back(prefix() + "journal mode is " + journalMode +
                                  ", not WAL: each write syncs to disk and "
                                  "blocks the application's readers");
    }
    return true;
}

bool SqliteUserDefaults::failOpenLocked(int resultCode) {
    if (isLockConflict(resultCode)) {
        // Not a fault of the file: it is opened again by a later operation.
        retryOpen_ = true;
        noteLockedLocked();
    } else {
        reportOnceLocked("open", resultCode);
    }
    return false;
}

bool SqliteUserDefaults::readyLocked() {
    if (!db_ && retryOpen_) {
        if (open()) {
            externalChange_ = true;  // what was missing may be there now
        } else {
            close();
        }
    }
    return db_ != nullptr;
}

std::string SqliteUserDefaults::prefix() const {
    return "QelHttpDnsSDK: user defaults \"" + path_ + "\": ";
}

void SqliteUserDefaults::noteLockedLocked() {
    if (locked_) return;
    locked_ = true;
    pendingReports_.push_back(prefix() +
                              "locked by another connection; writes wait "
                              "until it releases the lock");
}

void SqliteUserDefaults::noteWrittenLocked() {
    if (!locked_) return;
    locked_ = false;
    pendingReports_.push_back(prefix() + "the lock is released; writes are stored again");
}

int SqliteUserDefaults::stepLocked(sqlite3_stmt* statement, const char* operation, bool writes) {
    const int rc = sqlite3_step(statement);
    if (isLockConflict(rc)) {
        noteLockedLocked();
    } else if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        reportOnceLocked(operation, rc);
    } else if (writes) {
        // Reads of a WAL database pass another connection's write lock, so only a write
        // tells that the lock is gone.
        noteWrittenLocked();
    }
    return rc;
}

void SqliteUserDefaults::close() {
    for (sqlite3_stmt** statement :
         {&select_, &upsert_, &delete_, &keys_, &begin_, &commit_, &rollback_, &dataVersion_}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    sqlite3_close(db_);  // also frees the handle of a failed open
    db_ = nullptr;
}

bool SqliteUserDefaults::isUsable() const {
    qel::platform::MutexLock lock(mutex_);
    return db_ != nullptr;
}

void SqliteUserDefaults::reportOnceLocked(const char* operation, int resultCode) {
    if (reported_) return;
    reported_ = true;
    std::string message = prefix() + operation + " failed (" + sqlite3_errstr(resultCode) + ")";
    if (db_ && std::string(sqlite3_errmsg(db_)) != sqlite3_errstr(resultCode)) {
        message += ": ";
        message += sqlite3_errmsg(db_);
    }
    if (std::string(operation) == "open") {
        message += "; the store is treated as empty and the file is left as it is";
    }
    pendingReports_.push_back(std::move(message));
}

void SqliteUserDefaults::finishLocked(sqlite3_stmt* statement) {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
}

bool SqliteUserDefaults::selectLocked(const std::string& key) {
    if (!readyLocked()) return false;
    sqlite3_bind_text(select_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (stepLocked(select_, "read", false) == SQLITE_ROW) return true;
    finishLocked(select_);
    return false;
}

std::optional<Data> SqliteUserDefaults::data(const std::string& key) {
    Session session(*this);
    if (!selectLocked(key)) return std::nullopt;
    std::optional<Data> value;
    if (sqlite3_column_type(select_, 0) == SQLITE_BLOB) {
        const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(select_, 0));
        const int size = sqlite3_column_bytes(select_, 0);
        value.emplace(bytes, bytes + size);  // a zero-length blob has a null pointer
    }
    finishLocked(select_);
    return value;
}

std::optional<std::string> SqliteUserDefaults::string(const std::string& key) {
    Session session(*this);
    if (!selectLocked(key)) return std::nullopt;
    std::optional<std::string> value;
    if (sqlite3_column_type(select_, 0) == SQLITE_TEXT) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select_, 0));
        value.emplace(text, static_cast<size_t>(sqlite3_column_bytes(select_, 0)));
    }
    finishLocked(select_);
    return value;
}

int SqliteUserDefaults::writeLocked(const std::string& key, const Value* value, bool direct) {
    sqlite3_stmt* const statement = value ? upsert_ : delete_;
    const char* const operation = value ? "write" : "remove";
    int rc =
        sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (rc == SQLITE_OK && value) {
        if (const Data* data = std::get_if<Data>(value)) {
            // A null pointer would store NULL, not an empty blob.
            rc = data->empty()
                     ? sqlite3_bind_zeroblob(statement, 2, 0)
                     : sqlite3_bind_blob64(statement, 2, data->data(), data->size(), SQLITE_STATIC);
        } else {
            const std::string& text = std::get<std::string>(*value);
            rc = sqlite3_bind_text64(statement, 2, text.data(), text.size(), SQLITE_STATIC,
                                     SQLITE_UTF8);
        }
    }
    if (rc == SQLITE_OK) {
        if (direct) sqlite3_busy_timeout(db_, locked_ ? 0 : kBusyTimeoutMillis);
        rc = stepLocked(statement, operation, direct);
        if (direct) sqlite3_busy_timeout(db_, 0);
    } else {
        // A value that could not be bound (too big) must not be written as NULL in its place.
        reportOnceLocked(operation, rc);
        rc = SQLITE_DONE;
    }
    finishLocked(statement);
    return rc;
}

void SqliteUserDefaults::writeDirectly(const std::string& key, const Value* value) {
    {
        Session session(*this);
        if (!readyLocked()) return;
        writeLocked(key, value, true);
    }
    checkpointIfDue();
    notify(&key);
}

void SqliteUserDefaults::setData(const std::string& key, const Data& value) {
    const Value stored(value);
    writeDirectly(key, &stored);
}

void SqliteUserDefaults::setString(const std::string& key, const std::string& value) {
    const Value stored(value);
    writeDirectly(key, &stored);
}

void SqliteUserDefaults::remove(const std::string& key) { writeDirectly(key, nullptr); }

bool SqliteUserDefaults::writeChanges(const std::vector<Change>& changes) {
    const bool done = writeChangesOnce(changes);
    checkpointIfDue();
    return done;
}

void SqliteUserDefaults::checkpointIfDue() {
    if (logPages_.load(std::memory_order_relaxed) < kCheckpointPages) return;
    MutexLock lock(checkpointMutex_);
    // A new connection knows the log once it has read the database.
    if (!checkpointDb_ &&
        (sqlite3_open_v2(path_.c_str(), &checkpointDb_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                         nullptr) != SQLITE_OK ||
         sqlite3_exec(checkpointDb_, "PRAGMA schema_version", nullptr, nullptr, nullptr) !=
             SQLITE_OK)) {
        sqlite3_close(checkpointDb_);  // tried again after the next commit
        checkpointDb_ = nullptr;
        return;
    }
    // PASSIVE: copies what no reader still needs and waits for nobody.
    if (sqlite3_wal_checkpoint_v2(checkpointDb_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr,
                                  nullptr) == SQLITE_OK) {
        logPages_.store(0, std::memory_order_relaxed);
    }
}

bool SqliteUserDefaults::writeChangesOnce(const std::vector<Change>& changes) {
    Session session(*this);
    if (!readyLocked()) return !retryOpen_;  // a store that cannot be used drops them
    if (changes.empty()) return true;
    // IMMEDIATE takes the write lock now, without waiting: a lock held elsewhere costs one
    // failed try, and the batch is left for later whole.
    int rc = stepLocked(begin_, "write", false);
    finishLocked(begin_);
    if (rc != SQLITE_DONE) return !isLockConflict(rc);
    for (const Change& change : changes) {
        rc = writeLocked(change.key, change.value ? &*change.value : nullptr, false);
        if (isLockConflict(rc)) break;  // a rollback journal's spill needs the exclusive lock
    }
    if (!isLockConflict(rc)) {
        rc = stepLocked(commit_, "write", true);
        finishLocked(commit_);
    }
    if (rc == SQLITE_DONE) return true;
    if (!sqlite3_get_autocommit(db_)) {
        sqlite3_step(rollback_);
        finishLocked(rollback_);
    }
    return !isLockConflict(rc);
}

bool SqliteUserDefaults::readDataVersionLocked(int64_t& version) {
    const bool read = sqlite3_step(dataVersion_) == SQLITE_ROW;
    if (read) version = sqlite3_column_int64(dataVersion_, 0);
    sqlite3_reset(dataVersion_);
    return read;
}

void SqliteUserDefaults::noticeExternalChanges() {
    const double now = Clock::currentTime();
    const double last = lastExternalCheck_.load(std::memory_order_relaxed);
    if (now >= last && now - last < kExternalCheckSeconds) return;
    if (!mutex_.tryLock()) return;  // busy now: the next call looks
    lastExternalCheck_.store(now, std::memory_order_relaxed);
    bool changed = std::exchange(externalChange_, false);
    int64_t version = 0;
    if (db_ && readDataVersionLocked(version) && version != knownDataVersion_) {
        knownDataVersion_ = version;
        changed = true;
    }
    mutex_.unlock();
    if (changed) notify(nullptr);
}

void SqliteUserDefaults::setChangeObserver(ChangeObserver observer) {
    auto shared = observer ? std::make_shared<const ChangeObserver>(std::move(observer)) : nullptr;
    MutexLock lock(observerMutex_);
    observer_ = std::move(shared);
}

void SqliteUserDefaults::notify(const std::string* key) {
    std::shared_ptr<const ChangeObserver> observer;
    {
        MutexLock lock(observerMutex_);
        observer = observer_;
    }
    if (observer) (*observer)(key);
}

std::vector<std::string> SqliteUserDefaults::allKeys() { return listKeys(nullptr, -1); }

std::vector<std::string> SqliteUserDefaults::keysAfter(const std::string& after, size_t limit) {
    return listKeys(&after, static_cast<int64_t>(std::min<size_t>(limit, INT64_MAX)));
}

std::vector<std::string> SqliteUserDefaults::listKeys(const std::string* after, int64_t limit) {
    Session session(*this);
    std::vector<std::string> keys;
    if (!readyLocked()) return keys;
    if (after) {
        sqlite3_bind_text(keys_, 1, after->data(), static_cast<int>(after->size()), SQLITE_STATIC);
    }
    sqlite3_bind_int64(keys_, 2, limit);  // negative: no limit
    int rc;
    while ((rc = stepLocked(keys_, "list keys", false)) == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(keys_, 0));
        keys.emplace_back(text ? text : "", static_cast<size_t>(sqlite3_column_bytes(keys_, 0)));
    }
    if (rc != SQLITE_DONE) {
        keys.clear();  // a partial snapshot would look like a complete one
    }
    finishLocked(keys_);
    return keys;
}

}  // namespace qel::platform
