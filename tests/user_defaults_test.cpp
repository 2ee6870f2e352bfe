#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/ScratchDirectory.h"
#include "support/SqliteQuery.h"

using qel::platform::Data;
using qel::platform::MainBundle;
using qel::platform::SqliteUserDefaults;
using qel::platform::UserDefaults;
using qel::test::appQuery;
using qel::test::ScratchDirectory;

namespace {

mode_t permissions(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Every entry under `directory`: its name, owner, mode and contents (a link's target).
std::map<std::string, std::string> snapshot(const std::string& directory) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        struct stat status {};
        ::lstat(entry.path().c_str(), &status);
        std::string& state = entries[entry.path()];
        state = std::to_string(status.st_uid) + " " + std::to_string(status.st_mode) + " ";
        if (entry.is_symlink()) {
            state += std::filesystem::read_symlink(entry.path());
        } else if (entry.is_regular_file()) {
            std::ifstream in(entry.path(), std::ios::binary);
            state += std::to_string(std::hash<std::string>()({std::istreambuf_iterator<char>(in), {}}));
        }
    }
    return entries;
}

}  // namespace

TEST(SqliteUserDefaults, TypedValuesPersistAndTheFileIsSharedWithTheApplication) {
    ScratchDirectory dir;
    const std::string path = dir.file("a/b/store.sqlite3");  // parents are created
    {
        SqliteUserDefaults store(path);
        store.setData("blob", Data{0, 1, 2, 0, 255});
        store.setData("empty", Data{});
        store.setString("text", std::string("a\0b", 3));
        store.setString("kind", "a string first");
        store.setData("kind", Data{7});
    }
    EXPECT_EQ(appQuery(path, "PRAGMA journal_mode"), "wal");
    EXPECT_EQ(appQuery(path, "INSERT INTO user_defaults VALUES ('app_key', 'x')"), "<none>");
    SqliteUserDefaults store(path);
    EXPECT_EQ(store.data("blob"), (Data{0, 1, 2, 0, 255}));
    EXPECT_EQ(store.data("empty"), Data{}) << "an empty blob is a value, not an absence";
    EXPECT_EQ(store.string("text"), std::string("a\0b", 3));
    EXPECT_FALSE(store.data("text"));
    EXPECT_EQ(store.data("kind"), Data{7});
    EXPECT_FALSE(store.string("kind"));
    EXPECT_EQ(store.string("app_key"), "x");
    EXPECT_EQ(store.allKeys(), (std::vector<std::string>{"app_key", "blob", "empty", "kind", "text"}));
}

TEST(SqliteUserDefaults, AFileOthersCouldHaveWrittenALinkOrNoDatabaseIsRefusedAndLeftAsItIs) {
    if (::geteuid() != 0) GTEST_SKIP() << "giving a file another owner needs root";
    constexpr uid_t kOtherUser = 65534;
    const auto own = [](const std::string& path, mode_t mode, uid_t owner) {
        return ::chmod(path.c_str(), mode) == 0 && ::chown(path.c_str(), owner, -1) == 0;
    };
    // A database with a record another user wants lookups to answer with.
    const auto planted = [&](const std::string& path, mode_t mode, uid_t owner) {
        return appQuery(path, "CREATE TABLE user_defaults (key TEXT PRIMARY KEY NOT NULL, "
                              "value) WITHOUT ROWID; INSERT INTO user_defaults VALUES "
                              "('planted', '6.6.6.6')") == "<none>" && own(path, mode, owner);
    };
    const uid_t me = ::geteuid();
    const struct {
        const char* name;
        const char* store;  // in the scratch directory
        std::function<bool(const ScratchDirectory&)> prepare;
        const char* reason;
    } cases[] = {
        {"owned by another user", "s.db",
         [&](auto& d) { return planted(d.file("s.db"), 0600, kOtherUser); }, "owned by"},
        {"writable by others", "s.db",
         [&](auto& d) { return planted(d.file("s.db"), 0666, me); }, "open to"},
        {"readable by its group", "s.db",
         [&](auto& d) { return planted(d.file("s.db"), 0640, me); }, "open to"},
        {"dangling link", "s.db",
         [](auto& d) { return ::symlink("new.db", d.file("s.db").c_str()) == 0; }, "symbolic link"},
        {"link to another database", "s.db", [](auto& d) {
             return appQuery(d.file("other.db"), "CREATE TABLE t (x)") == "<none>" &&
                    ::symlink("other.db", d.file("s.db").c_str()) == 0;
         }, "symbolic link"},
        {"in a directory others can write", "shared/s.db", [&](auto& d) {
             return ::mkdir(d.file("shared").c_str(), 0700) == 0 &&
                    own(d.file("shared"), 01777, me);
         }, "directory"},
        {"log of another user beside it", "s.db", [&](auto& d) {
             if (!planted(d.file("s.db"), 0600, me)) return false;
             d.write("s.db-wal", qel::test::randomBytes(4096, 3));
             return own(d.file("s.db-wal"), 0600, kOtherUser);
         }, "s.db-wal"},
        {"not a database", "s.db", [](auto& d) {
             d.write("s.db", qel::test::randomBytes(8192, 7));
             return true;
         }, "s.db"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScratchDirectory dir;
        ASSERT_TRUE(c.prepare(dir)) << strerror(errno);
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
        EXPECT_EQ(lines.size(), 1u);
        EXPECT_NE(lines.empty() ? std::string::npos : lines[0].find(c.reason), std::string::npos)
            << testing::PrintToString(lines);
    }
}

TEST(SqliteUserDefaults, FilesAndTheDirectoriesItMakesArePrivateWhateverTheUmask) {
    ScratchDirectory dir;
    const mode_t previous = ::umask(0);
    SqliteUserDefaults store(dir.file("made/for/store.sqlite3"));
    store.setString("k", "v");
    ::umask(previous);
    // The log and shared-memory files exist while the connection is open.
    const std::pair<std::string, mode_t> expected[] = {
        {"made", 0700}, {"made/for", 0700}, {"made/for/store.sqlite3", 0600},
        {"made/for/store.sqlite3-wal", 0600}, {"made/for/store.sqlite3-shm", 0600},
    };
    for (const auto& [name, mode] : expected) {
        EXPECT_EQ(permissions(dir.file(name)), mode) << name;
    }
    EXPECT_EQ(permissions(dir.path()), 0700u) << "a directory that exists is left as it is";
}

TEST(SqliteUserDefaults, AJournalThatCannotBeWalIsReportedOnceAndTheStoreStillWorks) {
    // The dot-file locking VFS has no shared memory, which WAL needs.
    ASSERT_EQ(sqlite3_vfs_register(sqlite3_vfs_find("unix-dotfile"), /*makeDefault=*/1), SQLITE_OK);
    ScratchDirectory dir;
    qel::test::CapturingConsole console;
    SqliteUserDefaults store(dir.file("store.sqlite3"));
    store.setString("k", "v");
    EXPECT_EQ(store.string("k"), "v");
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("WAL"), std::string::npos) << console.lines()[0];
}

TEST(UserDefaultsStandard, FileFollowsXdgAndTheApplicationUntilChosenAndStaysOnceOpen) {
    ScratchDirectory dir;
    const std::string file = "/user-defaults.sqlite3";
    const std::string program = program_invocation_short_name;
    const passwd* user = ::getpwuid(::getuid());
    ASSERT_TRUE(user && user->pw_dir && user->pw_dir[0] == '/');
    const std::string passwdHome = user->pw_dir;
    struct { const char* xdg; const char* home; std::optional<std::string> bundle; std::string expected; } cases[] = {
        {dir.path().c_str(), "/h", std::nullopt, dir.path() + "/" + program},
        {dir.path().c_str(), "/h", "..", dir.path() + "/" + program},
        {dir.path().c_str(), "/h", "a/b", dir.path() + "/a_b"},
        {"relative", "/h", "a/b", "/h/.local/share/a_b"},  // XDG: ignore relative
        {nullptr, "/h", "com.example.app", "/h/.local/share/com.example.app"},
        {nullptr, "relative", "app", passwdHome + "/.local/share/app"},
        {nullptr, nullptr, "app", passwdHome + "/.local/share/app"},
    };
    for (const auto& c : cases) {
        c.xdg ? setenv("XDG_DATA_HOME", c.xdg, 1) : unsetenv("XDG_DATA_HOME");
        c.home ? setenv("HOME", c.home, 1) : unsetenv("HOME");
        MainBundle::setIdentifier(c.bundle);
        EXPECT_EQ(UserDefaults::standardPath(), c.expected + file);
    }

    const std::string chosen = dir.file("chosen/store.db");
    ASSERT_TRUE(UserDefaults::setStandardPath(chosen));
    UserDefaults::standard().setString("app", "v");
    EXPECT_EQ(appQuery(chosen, "SELECT value FROM user_defaults"), "v");
    // Once open, the store stays where it is.
    EXPECT_FALSE(UserDefaults::setStandardPath(dir.file("elsewhere")));
    MainBundle::setIdentifier("other");
    EXPECT_EQ(UserDefaults::standardPath(), chosen);
}

TEST(UserDefaultsStandard, WithoutAnyHomeTheStoreStaysInMemoryAndNothingIsWrittenHere) {
    ScratchDirectory dir;
    // A user without a passwd entry: this process's user seen from a user namespace of its
    // own, where it has another number, or as root that number itself. A child does it: the
    // kernel gives a user namespace only to a process without threads.
    constexpr uid_t kUnknownUser = 4000000;
    const uid_t uid = ::getuid();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string map = std::to_string(kUnknownUser) + " " + std::to_string(uid) + " 1";
        if (::unshare(CLONE_NEWUSER) == 0) {
            const int fd = ::open("/proc/self/uid_map", O_WRONLY);
            if (fd < 0 || ::write(fd, map.data(), map.size()) != static_cast<ssize_t>(map.size())) {
                _exit(77);
            }
            ::close(fd);
        } else if (::chmod(dir.path().c_str(), 0777) != 0 || ::setuid(kUnknownUser) != 0) {
            _exit(77);
        }
        if (::getpwuid(::getuid()) != nullptr || ::chdir(dir.path().c_str()) != 0) _exit(77);
        unsetenv("HOME");
        unsetenv("XDG_DATA_HOME");
        qel::test::CapturingConsole console;
        EXPECT_EQ(UserDefaults::standardPath(), std::nullopt);
        UserDefaults::standard().setString("k", "v");
        EXPECT_EQ(UserDefaults::standard().string("k"), "v");
        EXPECT_EQ(console.lines().size(), 1u);
        EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "wrote into the working directory";
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "cannot become a user without a passwd entry: needs root or a user "
                        "namespace";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0) << "see the child's failures above";
}
