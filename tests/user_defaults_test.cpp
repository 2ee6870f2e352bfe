#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/WriteBehindUserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FakeClock.h"
#include "support/ScratchDirectory.h"
#include "support/SqliteQuery.h"

using qel::platform::Data;
using qel::platform::SqliteUserDefaults;
using qel::test::appQuery;
using qel::test::ScratchDirectory;
using Keys = std::vector<std::string>;

namespace {

constexpr char kTable[] = "CREATE TABLE user_defaults (key TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID; ";

mode_t permissions(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Every entry under `directory`: its owner, mode and contents (a link's target).
std::map<std::string, std::string> snapshot(const std::string& directory) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        struct stat status {};
        ::lstat(entry.path().c_str(), &status);
        std::ifstream in(entry.is_regular_file() && !entry.is_symlink() ? entry.path().string() : "");
        entries[entry.path()] =
            std::to_string(status.st_uid) + " " + std::to_string(status.st_mode) +
            (entry.is_symlink() ? entry.path().filename().string() + "->" + std::filesystem::read_symlink(entry.path()).string()
                                : std::string(std::istreambuf_iterator<char>(in), {}));
    }
    return entries;
}

}  // namespace

TEST(SqliteUserDefaults, ValuesPersistPrivatelyWhateverTheUmaskBesideTheApplicationsKeys) {
    ScratchDirectory dir;
    const std::string path = dir.file("made/for/store.sqlite3");  // parents are created
    const mode_t previous = ::umask(0);
    {  // the log and shared-memory files exist while the connection is open
        SqliteUserDefaults store(path);
        store.setData("blob", Data{0, 1, 2, 0, 255});
        store.setData("empty", Data{});
        store.setString("gone", "x");
        store.remove("gone");
        for (const char* name :
             {"made", "made/for", "made/for/store.sqlite3", "made/for/store.sqlite3-wal", "made/for/store.sqlite3-shm"}) {
            EXPECT_EQ(permissions(dir.file(name)), std::strchr(name, '.') ? 0600u : 0700u) << name;
        }
    }
    ::umask(previous);
    EXPECT_EQ(permissions(dir.path()), 0700u) << "a directory that exists is left as it is";
    EXPECT_EQ(appQuery(path, "PRAGMA journal_mode"), "wal");
    EXPECT_EQ(appQuery(path, "INSERT INTO user_defaults VALUES ('app_key', 'x')"), "<none>");
    SqliteUserDefaults store(path);
    EXPECT_EQ(store.data("blob"), (Data{0, 1, 2, 0, 255}));
    EXPECT_EQ(store.data("empty"), Data{}) << "an empty blob is a value, not an absence";
    EXPECT_EQ(store.string("app_key"), "x");
    EXPECT_EQ(store.allKeys(), (Keys{"app_key", "blob", "empty"}));
}

TEST(SqliteUserDefaults, AFileOthersCouldHaveWrittenALinkOrNoDatabaseIsRefusedAndLeftAsItIs) {
    constexpr uid_t kOtherUser = 65534;
    const uid_t me = ::geteuid();
    // A database with a record another user wants lookups to answer with.
    const auto planted = [](const std::string& path, mode_t mode, uid_t owner) {
        return appQuery(path, kTable + std::string("INSERT INTO user_defaults VALUES "
                                                   "('planted', '6.6.6.6')")) == "<none>" &&
               ::chmod(path.c_str(), mode) == 0 && ::chown(path.c_str(), owner, -1) == 0;
    };
    const auto dirOf = [](const ScratchDirectory& d, const char* name, mode_t mode, uid_t owner) {
        return ::mkdir(d.file(name).c_str(), 0700) == 0 && ::chmod(d.file(name).c_str(), mode) == 0 &&
               ::chown(d.file(name).c_str(), owner, -1) == 0;
    };
    using Prepare = std::function<bool(const ScratchDirectory&)>;
    const struct {
        const char* name;
        const char* store;
        Prepare prepare;
        const char* reason;
    } cases[] = {
        {"owned by another user", "s.db", [&](auto& d) { return planted(d.file("s.db"), 0600, kOtherUser); }, "owned by"},
        {"writable by others", "s.db", [&](auto& d) { return planted(d.file("s.db"), 0606, me); }, "open to"},
        {"dangling link", "s.db", [](auto& d) { return ::symlink("new.db", d.file("s.db").c_str()) == 0; }, "symbolic link"},
        {"a pipe, which must not hang the open", "s.db", [](auto& d) { return ::mkfifo(d.file("s.db").c_str(), 0600) == 0; },
         "not a regular file"},
        {"in a directory others can write", "shared/s.db", [&](auto& d) { return dirOf(d, "shared", 01777, me); },
         "directory is writable"},
        {"in a directory of another user", "theirs/s.db", [&](auto& d) { return dirOf(d, "theirs", 0700, kOtherUser); },
         "directory is owned"},
        {"log of another user beside it", "s.db",
         [&](auto& d) {
             return planted(d.file("s.db"), 0600, me) && (d.write("s.db-wal", {}), true) &&
                    ::chown(d.file("s.db-wal").c_str(), kOtherUser, -1) == 0;
         },
         "s.db-wal is owned"},
        {"not a database", "s.db",
         [](auto& d) {
             d.write("s.db", qel::test::randomBytes(8192, 7));
             return ::chmod(d.file("s.db").c_str(), 0600) == 0;
         },
         "not a database"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScratchDirectory dir;
        ASSERT_TRUE(c.prepare(dir)) << "needs root to give a file another owner: " << std::strerror(errno);
        const auto before = snapshot(dir.path());
        qel::test::CapturingConsole console;
        {
            SqliteUserDefaults store(dir.file(c.store));
            EXPECT_FALSE(store.isUsable());
            EXPECT_FALSE(store.string("planted"));
            store.setString("k", "v");
        }
        EXPECT_EQ(snapshot(dir.path()), before) << "the files were changed";
        const auto lines = console.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find(c.reason), std::string::npos) << lines[0];
    }
}

// Another connection's lock: while it keeps even the open out (rollback journal) and while it
// only keeps writes out (WAL), writes are skipped and reads go on; the store says so once each
// way, and the application's keys are kept.
TEST(SqliteUserDefaults, AnotherConnectionsLockSkipsWritesUntilItGoesAndIsSaidOnceEachWay) {
    ScratchDirectory dir;
    const std::string path = dir.file("s.db");
    ASSERT_EQ(appQuery(path, kTable + std::string("INSERT INTO user_defaults VALUES ('app', 'kept')")), "<none>");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    const auto otherRuns = [other](const char* sql) { return sqlite3_exec(other, sql, nullptr, nullptr, nullptr) == 0; };
    qel::test::CapturingConsole console;
    ASSERT_TRUE(otherRuns("BEGIN EXCLUSIVE"));
    SqliteUserDefaults store(path);
    store.setString("skipped", "1");
    EXPECT_FALSE(store.string("app"));
    EXPECT_EQ(console.lines().size(), 1u);
    ASSERT_TRUE(otherRuns("COMMIT"));
    store.setString("a", "1");
    EXPECT_EQ(store.string("app"), "kept");
    EXPECT_EQ(console.lines().size(), 2u);
    ASSERT_TRUE(otherRuns("BEGIN EXCLUSIVE"));
    store.setString("b", "1");
    store.setString("c", "1");
    EXPECT_EQ(store.string("a"), "1");
    ASSERT_TRUE(otherRuns("COMMIT"));
    store.setString("d", "1");
    sqlite3_close(other);
    EXPECT_EQ(store.allKeys(), (Keys{"a", "app", "d"}));
    EXPECT_EQ(console.lines().size(), 4u) << testing::PrintToString(console.lines());
}

// Writes are read back at once and coalesce; another connection's lock keeps out the batch,
// never a write or a read; the observer hears every write made here and other connections'
// commits (not the store's own), at most once per 100 ms.
TEST(WriteBehindUserDefaults, WritesReadBackAtOnceAndReachTheFileWhenTheLockGoes) {
    ScratchDirectory dir;
    const std::string path = dir.file("s.db");
    qel::test::FakeClock clock;
    qel::platform::WriteBehindUserDefaults store(std::make_unique<SqliteUserDefaults>(path));
    Keys told, expected(200, "k");
    store.setChangeObserver([&](const std::string* key) { told.push_back(key ? *key : "<all>"); });
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
    const auto otherRuns = [other](const char* sql) { return sqlite3_exec(other, sql, nullptr, nullptr, nullptr) == 0; };
    ASSERT_TRUE(otherRuns("BEGIN EXCLUSIVE; INSERT INTO user_defaults VALUES ('app', 'a')"));
    for (int i = 0; i < 200; ++i) store.setString("k", std::to_string(i));
    store.setData("blob", Data{1, 2});
    store.setString("gone", "x");
    store.remove("gone");
    EXPECT_EQ(store.string("k"), "199");
    EXPECT_EQ(store.data("blob"), (Data{1, 2}));
    EXPECT_FALSE(store.string("gone"));
    EXPECT_EQ(store.allKeys(), (Keys{"blob", "k"}));
    EXPECT_FALSE(store.synchronize()) << "the lock keeps the batch out";
    ASSERT_TRUE(otherRuns("COMMIT"));
    expected.insert(expected.end(), {"blob", "gone", "gone", "<all>"});  // at 0
    for (double at : {0.0, 0.05, 0.2}) {
        ASSERT_TRUE(otherRuns("INSERT OR REPLACE INTO user_defaults VALUES ('app', 'b')"));
        clock.set(1e9 + at);
        store.noticeExternalChanges();
    }
    expected.push_back("<all>");  // at 0.2; not at 0.05
    EXPECT_TRUE(store.synchronize());
    clock.set(1e9 + 0.4);
    store.noticeExternalChanges();
    EXPECT_EQ(told, expected) << "our own batch is not another connection's commit";
    sqlite3_close(other);
    EXPECT_EQ(appQuery(path, "SELECT group_concat(key || '=' || quote(value)) FROM user_defaults"),
              "app='b',blob=X'0102',k='199'");
    // Read in parts, with changes not yet written on both sides of a part's end.
    store.remove("app"), store.remove("blob"), store.setString("c", ""), store.setString("z", "");
    Keys parts;
    for (Keys part{""}; !part.empty();) {
        part = store.keysAfter(parts.empty() ? "" : parts.back(), 1);
        parts.insert(parts.end(), part.begin(), part.end());
    }
    EXPECT_EQ(parts, (Keys{"c", "k", "z"}));
    EXPECT_EQ(store.keysAfter("", 2), (Keys{"c", "k"}));
}
