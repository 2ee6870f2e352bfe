#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FileBytes.h"
#include "support/ScratchDirectory.h"

using qel::platform::Data;
using qel::platform::MainBundle;
using qel::platform::SqliteUserDefaults;
using qel::platform::UserDefaults;
using qel::test::ScratchDirectory;

namespace {

// The application's own connection to the store's file.
class AppConnection {
public:
    explicit AppConnection(const std::string& path) {
        if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) ADD_FAILURE() << sqlite3_errmsg(db_);
        sqlite3_busy_timeout(db_, 2000);
    }
    ~AppConnection() { sqlite3_close(db_); }

    // The first column of the first row, as text; "<error>" when the statement fails.
    std::string query(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        std::string result = "<error>";
        if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
            const int rc = sqlite3_step(statement);
            if (rc == SQLITE_ROW) {
                const auto* text = sqlite3_column_text(statement, 0);
                result = text ? reinterpret_cast<const char*>(text) : "<null>";
            } else if (rc == SQLITE_DONE) {
                result = "<none>";
            }
        }
        sqlite3_finalize(statement);
        return result;
    }

private:
    sqlite3* db_ = nullptr;
};

Data filled(size_t size, uint8_t value) { return Data(size, value); }

}  // namespace

TEST(SqliteUserDefaults, TypedValuesPersistAcrossReopening) {
    ScratchDirectory dir;
    const std::string path = dir.file("a/b/store.sqlite3");  // parents are created
    {
        SqliteUserDefaults store(path);
        ASSERT_TRUE(store.isUsable());
        store.setData("blob", Data{0, 1, 2, 0, 255});
        store.setData("empty", Data{});
        store.setString("text", std::string("a\0b", 3));
        store.setString("kind", "a string first");
        store.setData("kind", Data{7});
        store.setString("gone", "x");
        store.remove("gone");
        store.remove("never there");
    }
    SqliteUserDefaults store(path);
    EXPECT_EQ(store.data("blob"), (Data{0, 1, 2, 0, 255}));
    ASSERT_TRUE(store.data("empty").has_value()) << "an empty blob is a value, not an absence";
    EXPECT_TRUE(store.data("empty")->empty());
    EXPECT_EQ(store.string("text"), std::string("a\0b", 3));
    EXPECT_FALSE(store.data("text"));
    EXPECT_EQ(store.data("kind"), Data{7});
    EXPECT_FALSE(store.string("kind"));
    EXPECT_FALSE(store.string("gone"));
    EXPECT_EQ(store.allKeys(), (std::vector<std::string>{"blob", "empty", "kind", "text"}));
}

TEST(SqliteUserDefaults, SharesItsFileWithTheApplicationsOwnConnection) {
    ScratchDirectory dir;
    const std::string path = dir.file("store.sqlite3");
    SqliteUserDefaults store(path);
    store.setString("ours", "1");
    AppConnection app(path);
    EXPECT_EQ(app.query("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(app.query("SELECT value FROM user_defaults WHERE key = 'ours'"), "1");
    EXPECT_EQ(app.query("INSERT INTO user_defaults VALUES ('app_key', 'x')"), "<none>");
    EXPECT_EQ(store.string("app_key"), "x");
    EXPECT_EQ(store.allKeys(), (std::vector<std::string>{"app_key", "ours"}));
}

TEST(SqliteUserDefaults, FileThatIsNotADatabaseIsLeftAloneAndReadsAsEmpty) {
    qel::test::CapturingConsole console;
    ScratchDirectory dir;
    const std::string path = dir.file("store.sqlite3");
    const Data original = qel::test::randomBytes(8192, 7);
    qel::test::writeFileBytes(path, original);
    {
        SqliteUserDefaults store(path);
        EXPECT_FALSE(store.isUsable());
        store.setData("k", Data{1});
        store.setString("s", "v");
        store.remove("k");
        EXPECT_FALSE(store.data("k"));
        EXPECT_FALSE(store.string("s"));
        EXPECT_TRUE(store.allKeys().empty());
    }
    EXPECT_EQ(qel::test::readFileBytes(path), original);
    const auto lines = console.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(path), std::string::npos) << lines[0];

    SqliteUserDefaults directory(dir.path());
    EXPECT_FALSE(directory.isUsable());
    EXPECT_FALSE(directory.data("k"));
    EXPECT_TRUE(std::filesystem::is_directory(dir.path()));
}

TEST(SqliteUserDefaults, DamagedPagesReadAsEmptyWithoutCrashing) {
    qel::test::CapturingConsole console;
    ScratchDirectory dir;
    const std::string path = dir.file("store.sqlite3");
    {
        SqliteUserDefaults store(path);
        for (int i = 0; i < 200; ++i) store.setData("k" + std::to_string(i), filled(100, 1));
    }
    qel::test::scrambleFileAfter(path, 4096, 11);  // the header page survives, the table not
    SqliteUserDefaults store(path);
    EXPECT_FALSE(store.data("k1"));
    EXPECT_TRUE(store.allKeys().empty());
    store.setData("k1", Data{1});
    store.remove("k2");
    EXPECT_FALSE(store.data("k1"));
    EXPECT_EQ(console.lines().size(), 1u);
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
        for (uint64_t i = 0;; ++i) {
            store.setString("k" + std::to_string(i % kKeys), std::to_string(i));
            store.setData("blob" + std::to_string(i % kKeys), filled(3000, static_cast<uint8_t>(i)));
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

    {
        AppConnection app(path);
        EXPECT_EQ(app.query("PRAGMA integrity_check"), "ok");
    }
    SqliteUserDefaults store(path);
    ASSERT_TRUE(store.isUsable());
    EXPECT_EQ(store.allKeys().size(), 2 * kKeys);
    for (uint64_t k = 0; k < kKeys; ++k) {
        // The last acknowledged write of this key, or a later one the kill did not let the
        // child report.
        const uint64_t last = acknowledged - (acknowledged - k) % kKeys;
        const auto text = store.string("k" + std::to_string(k));
        ASSERT_TRUE(text) << k;
        const uint64_t value = std::stoull(*text);
        EXPECT_GE(value, last) << k;
        EXPECT_EQ(value % kKeys, k);
        const auto blob = store.data("blob" + std::to_string(k));
        ASSERT_TRUE(blob && blob->size() == 3000) << k;
        EXPECT_EQ(*blob, filled(3000, (*blob)[0])) << "a torn blob under " << k;
    }
}

TEST(UserDefaultsStandard, DefaultFileLivesUnderTheXdgDataDirectoryNamedAfterTheBundle) {
    ScratchDirectory dir;
    const std::string file = "/user-defaults.sqlite3";
    setenv("XDG_DATA_HOME", dir.path().c_str(), 1);
    MainBundle::setIdentifier(std::nullopt);
    EXPECT_EQ(UserDefaults::standardPath(), dir.path() + "/QelHttpDnsSDK" + file);
    MainBundle::setIdentifier("..");
    EXPECT_EQ(UserDefaults::standardPath(), dir.path() + "/QelHttpDnsSDK" + file);
    MainBundle::setIdentifier("a/b");
    EXPECT_EQ(UserDefaults::standardPath(), dir.path() + "/a_b" + file);

    setenv("HOME", dir.file("home").c_str(), 1);
    setenv("XDG_DATA_HOME", "relative", 1);  // XDG asks to ignore a relative path
    EXPECT_EQ(UserDefaults::standardPath(), dir.path() + "/home/.local/share/a_b" + file);
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(UserDefaults::standardPath(), dir.path() + "/home/.local/share/a_b" + file);

    setenv("XDG_DATA_HOME", dir.path().c_str(), 1);
    MainBundle::setIdentifier("com.example.app");
    const std::string expected = dir.path() + "/com.example.app" + file;
    UserDefaults::standard().setString("app", "v");
    EXPECT_TRUE(std::filesystem::is_regular_file(expected));
    EXPECT_EQ(AppConnection(expected).query("SELECT value FROM user_defaults"), "v");
    // Once open, the store stays where it is.
    EXPECT_FALSE(UserDefaults::setStandardPath(dir.file("elsewhere")));
    MainBundle::setIdentifier("other");
    EXPECT_EQ(UserDefaults::standardPath(), expected);
}

TEST(UserDefaultsStandard, PathChosenBeforeFirstUseWins) {
    ScratchDirectory dir;
    setenv("XDG_DATA_HOME", dir.file("xdg").c_str(), 1);
    ASSERT_TRUE(UserDefaults::setStandardPath(dir.file("chosen/store.db")));
    UserDefaults::standard().setData("k", Data{1});
    EXPECT_TRUE(std::filesystem::is_regular_file(dir.file("chosen/store.db")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("xdg")));
}
