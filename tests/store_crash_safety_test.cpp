// The persistent store under other processes: processes killed with SIGKILL in the middle of
// lookups and saves, and another process holding the store's write lock. Every process that
// runs the SDK is forked before the forking process starts any thread.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

using qel::test::ResolutionService;
using Ips = std::optional<std::vector<std::string>>;
using Strings = std::vector<std::string>;

namespace {

constexpr char kId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kApp[] = "com.example.app";
constexpr uint32_t kWiFi = qel::platform::ReachabilityFlags::Reachable;

#if defined(__SANITIZE_THREAD__)
constexpr int kKillLoopIterations = 30;  // each process runs about ten times slower
#else
constexpr int kKillLoopIterations = 100;
#endif

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 10000 && !condition(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// Runs `sql` on a connection of the application's own; the first column of the last row,
// "<none>" without a row, "<error>" when it fails.
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

// The SDK of one process, registered against `service` with the store at `path`.
class Sdk {
public:
    Sdk(const std::string& path, ResolutionService& service) {
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(path);
        dns_.enableCacheIP(true);
        dns_.customServerUrl(service.baseUrl());
        dns_.registerAuthId(std::string(kId), std::string(kSecret));
        ready_ = eventually([this] { return dns_.initStatus() == 4; });
    }
    bool ready() const { return ready_; }

    struct Answer {
        bool fromCache = false;  // on the caller's thread, before the lookup returned
        Ips ips;
    };
    // An IPv4 lookup and its answer; no addresses when it is not answered.
    Answer lookUp(const std::string& host) {
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        dns_.getIPV4ByDomain(host, recorder.callback());
        Answer answer;
        if (!recorder.waitFor(1)) return answer;
        const auto call = recorder.calls()[0];
        answer.fromCache = !call.onPlatformThread;
        answer.ips = std::get<1>(call.arguments);
        return answer;
    }

private:
    qel::test::FakeReachabilityFactory network_{kWiFi};
    QelHttpDnsManager& dns_ = QelHttpDnsManager::shared();
    bool ready_ = false;
};

// ---------------------------------------------------------------- killed in the middle

// What a doomed process tells the test, each report once the thing it reports is done.
struct Report {
    // 'V' earlier saves verified, 'S' host saved, 'K' host answered but its save skipped,
    // 'A' application key written, 'F' failure
    char kind;
    int32_t a, b;
};

std::string hostName(int process, int index) {
    return "h" + std::to_string(process) + "-" + std::to_string(index) + ".test";
}
std::string addressOf(int process, int index) {
    return "10." + std::to_string(process) + "." + std::to_string(index) + ".7";
}
constexpr char kFirstHost[] = "first.test";
constexpr char kFirstAddress[] = "10.255.0.1";

void send(int fd, Report report) {
    if (write(fd, &report, sizeof report) != sizeof report) _exit(3);
}

// The application's thread: writes its own key through its own connection, now and then.
void writeApplicationKeys(const std::string& path, int32_t from, int out) {
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return send(out, {'F', -1, 0});
    sqlite3_busy_timeout(db, 5000);
    for (int32_t counter = from;; ++counter) {
        const std::string sql = "INSERT INTO user_defaults VALUES ('app.counter', " +
                                std::to_string(counter) +
                                ") ON CONFLICT (key) DO UPDATE SET value = excluded.value";
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            return send(out, {'F', -2, counter});
        }
        send(out, {'A', counter, 0});
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// Whether the store's lock is in the way of saves, as the store's log lines tell; a save made
// meanwhile may not be stored. Written by the log sink, before the lookup is answered.
std::atomic<bool> savesSkipped{false};

void followLock(const std::string& line) {
    if (line.find("writes are skipped") != std::string::npos) savesSkipped = true;
    if (line.find("writes are stored again") != std::string::npos) savesSkipped = false;
}

// Process `process`: answers every earlier saved host from the store, then looks up new hosts
// (each a save) until it is killed, while the application writes its own key.
[[noreturn]] void runDoomedProcess(const std::string& path, int process,
                                   const std::vector<std::pair<int, int>>& saved,
                                   int32_t counter, int out) {
    QelDNSApplication::setLogSink(followLock);
    ResolutionService service{kId, kSecret, kApp};
    service.setAddresses(kFirstHost, {kFirstAddress});
    for (int i = 0; i < 64; ++i) service.setAddresses(hostName(process, i), {addressOf(process, i)});
    Sdk sdk(path, service);
    if (!sdk.ready()) send(out, {'F', -3, 0});
    std::thread(writeApplicationKeys, path, counter + 1, out).detach();
    // The first lookup of a process keys its entry by another suffix; give it a host of its own.
    if (sdk.lookUp(kFirstHost).ips != Strings{kFirstAddress}) send(out, {'F', -4, 0});
    for (const auto& [p, i] : saved) {
        const auto answer = sdk.lookUp(hostName(p, i));
        if (!answer.fromCache || answer.ips != Strings{addressOf(p, i)}) send(out, {'F', p, i});
    }
    send(out, {'V', static_cast<int32_t>(saved.size()), 0});
    for (int i = 0; i < 64; ++i) {
        if (sdk.lookUp(hostName(process, i)).ips != Strings{addressOf(process, i)}) {
            send(out, {'F', process, i});
        }
        send(out, {savesSkipped ? 'K' : 'S', process, i});
    }
    for (;;) pause();
}

// The cache entries, with the address each must hold, and the application's keys, read with a
// connection of the application's own after a kill.
struct StoreContents {
    bool healthy = false;
    std::vector<std::string> damaged;     // entries that do not decode to their one address
    std::vector<std::string> entries;
    std::string user, blob, counter;
};

StoreContents inspect(const std::string& path) {
    StoreContents contents;
    sqlite3* db = nullptr;
    sqlite3_stmt* rows = nullptr;
    std::string check;
    const auto first = [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) = values[0] ? values[0] : "";
        return 0;
    };
    // The log is left as the kill left it, for the next process to find.
    contents.healthy =
        sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
        sqlite3_db_config(db, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr) == SQLITE_OK &&
        sqlite3_exec(db, "PRAGMA integrity_check", first, &check, nullptr) == SQLITE_OK &&
        check == "ok" &&
        sqlite3_prepare_v2(db, "SELECT key, value FROM user_defaults", -1, &rows, nullptr) == SQLITE_OK;
    const QelDNSCacheManager decoder;
    while (rows && sqlite3_step(rows) == SQLITE_ROW) {
        const std::string key = reinterpret_cast<const char*>(sqlite3_column_text(rows, 0));
        const bool isBlob = sqlite3_column_type(rows, 1) == SQLITE_BLOB;
        const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(rows, 1));
        const qel::platform::Data value(bytes, bytes + sqlite3_column_bytes(rows, 1));
        const std::string text = isBlob ? "" : std::string(value.begin(), value.end());
        if (key == "app.user") contents.user = text;
        if (key == "app.counter") contents.counter = text;
        if (key == "app.blob") contents.blob = std::string(value.begin(), value.end());
        if (key.rfind("app.", 0) == 0) continue;
        contents.entries.push_back(key);
        int p = 0, i = 0;
        const std::string expected = key == std::string(kFirstHost) + "_v6" ? kFirstAddress
                                     : std::sscanf(key.c_str(), "h%d-%d.test_v4", &p, &i) == 2
                                         ? addressOf(p, i) : "?";
        const auto records = decoder.unarchivedObjects(value);
        if (!records || records->size() != 1 || !records->at(0) ||
            records->at(0)->ip() != expected) {
            contents.damaged.push_back(key);
        }
    }
    sqlite3_finalize(rows);
    sqlite3_close(db);
    return contents;
}

// Waits up to 15 s (a guard against a hang) for the next report; false at the end of the pipe.
bool nextReport(int in, Report& report) {
    pollfd ready{in, POLLIN, 0};
    if (poll(&ready, 1, 15000) != 1) return false;
    return read(in, &report, sizeof report) == sizeof report;
}

TEST(KilledProcesses, EveryRestartAnswersFromWhatWasSavedAndTheApplicationsKeysStay) {
    qel::test::ScratchDirectory scratch;
    const std::string path = scratch.file("defaults.sqlite3");
    { qel::platform::SqliteUserDefaults made(path); }
    ASSERT_EQ(appQuery(path, "INSERT INTO user_defaults VALUES ('app.user', 'alice'), "
                             "('app.blob', x'00ff10')"), "<none>");
    std::mt19937 random(12);
    std::vector<std::pair<int, int>> saved;  // hosts whose lookup was answered before a kill
    int32_t counter = 0;
    int verified = 0, skipped = 0;  // processes that answered every earlier save; saves skipped
    for (int process = 0; process < kKillLoopIterations; ++process) {
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipeFds[0]);
            runDoomedProcess(path, process, saved, counter, pipeFds[1]);
        }
        close(pipeFds[1]);
        // Killed after 0 to 4 saves, then 0 to 3 ms later: at start, in a lookup or in a save.
        const int savesBeforeKill = std::uniform_int_distribution<int>(0, 4)(random);
        const auto delay = std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random));
        Report report{};
        std::vector<std::string> failures;
        auto take = [&](const Report& r) {
            if (r.kind == 'S') saved.emplace_back(r.a, r.b);
            if (r.kind == 'A') counter = std::max(counter, r.a);
            if (r.kind == 'V') ++verified;
            if (r.kind == 'K') ++skipped;
            if (r.kind == 'F') failures.push_back(std::to_string(r.a) + "," + std::to_string(r.b));
        };
        for (int saves = 0; saves < savesBeforeKill && nextReport(pipeFds[0], report);) {
            take(report);
            saves += report.kind == 'S' || report.kind == 'K';
        }
        std::this_thread::sleep_for(delay);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        while (nextReport(pipeFds[0], report)) take(report);  // what it did before it died
        close(pipeFds[0]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "process " << process << " ended by itself";
        ASSERT_EQ(failures, Strings{}) << "process " << process;

        const StoreContents store = inspect(path);
        ASSERT_TRUE(store.healthy) << "after process " << process;
        ASSERT_EQ(store.damaged, Strings{}) << "after process " << process;
        for (const auto& [p, i] : saved) {
            ASSERT_NE(std::find(store.entries.begin(), store.entries.end(), hostName(p, i) + "_v4"),
                      store.entries.end()) << hostName(p, i) << " after process " << process;
        }
        ASSERT_EQ(store.user, "alice");
        ASSERT_EQ(store.blob, std::string("\0\xff\x10", 3));
        if (counter > 0) {
            ASSERT_GE(std::stoi(store.counter), counter);
        }
    }
    std::printf("%d processes killed: %d answered every earlier save from the store, %zu saves "
                "acknowledged, %d skipped under the application's lock\n",
                kKillLoopIterations, verified, saved.size(), skipped);
    // Half the processes at least lived long enough to answer every earlier save from the store.
    EXPECT_GE(verified, kKillLoopIterations / 2);
    EXPECT_GE(saved.size(), static_cast<size_t>(kKillLoopIterations));
    EXPECT_LT(skipped, static_cast<int>(saved.size())) << "the application's writes rarely hold up a save";
}

// ---------------------------------------------------------------- another process's lock

// Another process with its own connection to the store, which takes a lock with `begin` when
// told and keeps it until told to let go, or for 5 s at most. Forked when made.
class LockHolder {
public:
    LockHolder(const std::string& path, const std::string& begin) {
        int commands[2], acks[2];
        if (pipe(commands) != 0 || pipe(acks) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(commands[1]);
            close(acks[0]);
            _exit(hold(path, begin, commands[0], acks[1]));
        }
        close(commands[0]);
        close(acks[1]);
        commands_ = commands[1];
        acks_ = acks[0];
    }
    ~LockHolder() {
        if (pid_ > 0) release();
    }

    /// Whether the other process holds the lock now.
    bool lock() {
        char ack = 0;
        return write(commands_, "L", 1) == 1 && read(acks_, &ack, 1) == 1 && ack == 'L';
    }
    /// True when the other process still held the lock when asked to let go.
    bool release() {
        if (write(commands_, "R", 1) != 1) {}  // it may have gone already
        close(commands_);
        close(acks_);
        int status = 0;
        const bool ended = waitpid(pid_, &status, 0) == pid_;
        pid_ = -1;
        return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    static int hold(const std::string& path, const std::string& begin, int commands, int acks) {
        char command = 0;
        sqlite3* db = nullptr;
        if (read(commands, &command, 1) != 1 || sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
            sqlite3_exec(db, begin.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            return 1;
        }
        if (write(acks, "L", 1) != 1) return 1;
        pollfd told{commands, POLLIN, 0};
        const bool letGo = poll(&told, 1, 5000) == 1;
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return letGo ? 0 : 2;
    }

    pid_t pid_ = -1;
    int commands_ = -1, acks_ = -1;
};

size_t linesAbout(const qel::test::CapturingConsole& console, const std::string& path) {
    size_t count = 0;
    for (const auto& line : console.lines()) count += line.find(path) != std::string::npos;
    return count;
}

bool stored(const std::string& path, const std::string& host) {
    return appQuery(path, "SELECT count(*) FROM user_defaults WHERE key LIKE '" + host + "_v_'") == "1";
}

TEST(LockedStore, LookupsAreAnsweredWhileAnotherProcessHoldsTheWriteLockAndSavesResumeAfter) {
    qel::test::ScratchDirectory scratch;
    const std::string path = scratch.file("defaults.sqlite3");
    { qel::platform::SqliteUserDefaults made(path); }
    LockHolder holder(path, "BEGIN EXCLUSIVE");
    qel::test::CapturingConsole console;
    ResolutionService service{kId, kSecret, kApp};
    const Strings hosts{"a.test", "b.test", "c.test", "d.test", "e.test", "f.test"};
    for (const auto& host : hosts) service.setAddresses(host, {"192.0.2.1"});
    Sdk sdk(path, service);
    ASSERT_TRUE(sdk.ready());
    ASSERT_EQ(sdk.lookUp("a.test").ips, Strings{"192.0.2.1"});
    ASSERT_TRUE(stored(path, "a.test"));

    ASSERT_TRUE(holder.lock());
    for (const char* host : {"b.test", "c.test", "d.test", "e.test"}) {
        EXPECT_EQ(sdk.lookUp(host).ips, Strings{"192.0.2.1"}) << host;
    }
    EXPECT_EQ(linesAbout(console, path), 1u) << "one line for the skipped saves";
    EXPECT_TRUE(holder.release()) << "the answers waited for the lock to go";
    EXPECT_FALSE(stored(path, "b.test"));

    EXPECT_EQ(sdk.lookUp("f.test").ips, Strings{"192.0.2.1"});
    EXPECT_TRUE(stored(path, "f.test")) << "saves resume once the lock is gone";
    EXPECT_EQ(linesAbout(console, path), 2u) << "and say so once";
}

// A database in rollback-journal mode under an exclusive lock cannot even be read: the store
// opens once the lock is gone, and the application's keys are kept.
TEST(LockedStore, StoreLockedAtStartIsOpenedOnceTheLockIsGone) {
    qel::test::ScratchDirectory scratch;
    const std::string path = scratch.file("defaults.sqlite3");
    ASSERT_EQ(appQuery(path, "CREATE TABLE user_defaults (key TEXT PRIMARY KEY NOT NULL, value) "
                             "WITHOUT ROWID; INSERT INTO user_defaults VALUES ('app.user', 'alice')"),
              "<none>");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);  // the store is used only when closed to others
    LockHolder holder(path, "BEGIN EXCLUSIVE");
    ASSERT_TRUE(holder.lock());
    qel::test::CapturingConsole console;
    ResolutionService service{kId, kSecret, kApp};
    for (const char* host : {"a.test", "b.test", "c.test"}) service.setAddresses(host, {"192.0.2.1"});
    Sdk sdk(path, service);
    ASSERT_TRUE(sdk.ready());
    EXPECT_EQ(sdk.lookUp("a.test").ips, Strings{"192.0.2.1"});
    EXPECT_EQ(sdk.lookUp("b.test").ips, Strings{"192.0.2.1"});
    EXPECT_EQ(linesAbout(console, path), 1u);
    EXPECT_TRUE(holder.release()) << "the answers waited for the lock to go";

    EXPECT_EQ(sdk.lookUp("c.test").ips, Strings{"192.0.2.1"});
    EXPECT_TRUE(stored(path, "c.test"));
    EXPECT_EQ(appQuery(path, "SELECT value FROM user_defaults WHERE key = 'app.user'"), "alice");
}

}  // namespace
