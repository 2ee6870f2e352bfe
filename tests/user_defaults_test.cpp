#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/ScratchDirectory.h"

using qel::platform::Data;
using qel::platform::MainBundle;
using qel::platform::SqliteUserDefaults;
using qel::platform::UserDefaults;
using qel::test::ScratchDirectory;

namespace {

// Runs `sql` on the application's own connection to the file; the first column of the last
// row, "<none>" without a row, "<error>" when it fails.
std::string appQuery(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    std::string result = "<none>";
    const auto first = [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0] ? values[0] : "<null>";
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
        sqlite3_exec(db, sql.c_str(), first, &result, nullptr) != SQLITE_OK) {
        result = "<error>";
    }
    sqlite3_close(db);
    return result;
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

TEST(SqliteUserDefaults, FileThatIsNotADatabaseIsLeftAloneAndReadsAsEmpty) {
    ScratchDirectory dir;
    const Data original = qel::test::randomBytes(8192, 7);
    dir.write("store.sqlite3", original);
    qel::test::CapturingConsole console;
    {
        SqliteUserDefaults store(dir.file("store.sqlite3"));
        EXPECT_FALSE(store.isUsable());
        store.setData("k", Data{1});
        EXPECT_FALSE(store.data("k"));
        EXPECT_TRUE(store.allKeys().empty());
    }
    EXPECT_EQ(dir.read("store.sqlite3"), original);
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find(dir.file("store.sqlite3")), std::string::npos);
}

TEST(SqliteUserDefaults, CommittedWritesSurviveAKillInTheMiddleOfWriting) {
    ScratchDirectory dir;
    const std::string path = dir.file("store.sqlite3");
    constexpr uint64_t kKeys = 50;
    int progress[2];
    ASSERT_EQ(pipe(progress), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Writes forever; reports each write once it returned, i.e. once it was committed.
        close(progress[0]);
        SqliteUserDefaults store(path);
        for (uint64_t i = 0;; ++i) {  // values of 3000 bytes span pages
            const std::string value = std::to_string(i) + std::string(3000, 'a' + i % 26);
            store.setString("k" + std::to_string(i % kKeys), value);
            if (write(progress[1], &i, sizeof i) != sizeof i) _exit(1);
        }
    }
    close(progress[1]);
    uint64_t acknowledged = 0;
    for (int seen = 0; seen < 300; ++seen) {
        ASSERT_EQ(read(progress[0], &acknowledged, sizeof acknowledged),
                  static_cast<ssize_t>(sizeof acknowledged));
    }
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    close(progress[0]);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    EXPECT_EQ(appQuery(path, "PRAGMA integrity_check"), "ok");
    SqliteUserDefaults store(path);
    EXPECT_EQ(store.allKeys().size(), kKeys);
    for (uint64_t k = 0; k < kKeys; ++k) {
        // The last acknowledged write of this key, or a later one the kill did not let the
        // child report, whole.
        const auto text = store.string("k" + std::to_string(k));
        ASSERT_TRUE(text) << k;
        size_t digits = 0;
        const uint64_t i = std::stoull(*text, &digits);
        EXPECT_GE(i, acknowledged - (acknowledged - k) % kKeys) << k;
        EXPECT_EQ(i % kKeys, k);
        EXPECT_EQ(text->substr(digits), std::string(3000, 'a' + i % 26)) << k;
    }
}

TEST(UserDefaultsStandard, FileFollowsXdgAndTheBundleUntilChosenAndStaysOnceOpen) {
    ScratchDirectory dir;
    const std::string file = "/user-defaults.sqlite3";
    setenv("HOME", dir.file("home").c_str(), 1);
    struct { const char* xdg; std::optional<std::string> bundle; std::string expected; } cases[] = {
        {dir.path().c_str(), std::nullopt, dir.path() + "/QelHttpDnsSDK"},
        {dir.path().c_str(), "..", dir.path() + "/QelHttpDnsSDK"},
        {dir.path().c_str(), "a/b", dir.path() + "/a_b"},
        {"relative", "a/b", dir.path() + "/home/.local/share/a_b"},  // XDG: ignore relative
        {nullptr, "com.example.app", dir.path() + "/home/.local/share/com.example.app"},
    };
    for (const auto& c : cases) {
        c.xdg ? setenv("XDG_DATA_HOME", c.xdg, 1) : unsetenv("XDG_DATA_HOME");
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
