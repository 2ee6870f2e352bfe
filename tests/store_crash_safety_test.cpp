// The persistent store under other processes: processes killed with SIGKILL in the middle of
// lookups and saves, and another process holding the store's write lock. Every process that
// runs the SDK is forked before the forking process starts any thread.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"
#include "support/SqliteQuery.h"

using qel::test::appQuery;
using qel::test::ResolutionService;
using Ips = std::optional<std::vector<std::string>>;
using Strings = std::vector<std::string>;

namespace {

// The SDK of one process, registered against `service` with the store at `path`.
class Sdk {
public:
    Sdk(const std::string& path, ResolutionService& service) {
        qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
        qel::platform::UserDefaults::setStandardPath(path);
        QelHttpDnsManager::shared().enableCacheIP(true);
        ready_ = qel::test::registered(service);
    }
    bool ready() const { return ready_; }

    struct Answer {
        bool fromCache = false;  // on the caller's thread, before the lookup returned
        Ips ips;
    };
    // An IPv4 lookup and its answer; no addresses when it is not answered.
    Answer lookUp(const std::string& host) {
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        QelHttpDnsManager::shared().getIPV4ByDomain(host, recorder.callback());
        if (!recorder.waitFor(1)) return {};
        const auto call = recorder.calls()[0];
        return {!call.onPlatformThread, std::get<1>(call.arguments)};
    }

private:
    qel::test::FakeReachabilityFactory network_{qel::platform::ReachabilityFlags::Reachable};
    bool ready_ = false;
};

// ---------------------------------------------------------------- killed in the middle

std::string hostName(int process, int index) {
    return "h" + std::to_string(process) + "-" + std::to_string(index) + ".test";
}
std::string addressOf(int process, int index) {
    return "10." + std::to_string(process) + "." + std::to_string(index) + ".7";
}

// What a doomed process tells the test: 'S' host `index` answered (so saved), 'F' a failure.
struct Report {
    char kind;
    int32_t process, index;
};

void send(int fd, Report report) {
    if (write(fd, &report, sizeof report) != sizeof report) _exit(3);
}

// Process `process`: answers every host saved before from the store, then looks up new hosts
// (each a save) until it is killed.
[[noreturn]] void runDoomedProcess(const std::string& path, int process,
                                   const std::vector<std::pair<int, int>>& saved, int out) {
    ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
    service.setAddresses("first.test", {"10.255.0.1"});
    for (int i = 0; i < 64; ++i) service.setAddresses(hostName(process, i), {addressOf(process, i)});
    Sdk sdk(path, service);
    // The first lookup of a process keys its entry by another suffix; give it a host of its own.
    if (!sdk.ready() || sdk.lookUp("first.test").ips != Strings{"10.255.0.1"}) send(out, {'F', -1, 0});
    for (const auto& [p, i] : saved) {
        const auto answer = sdk.lookUp(hostName(p, i));
        if (!answer.fromCache || answer.ips != Strings{addressOf(p, i)}) send(out, {'F', p, i});
    }
    for (int i = 0; i < 64; ++i) {
        const bool answered = sdk.lookUp(hostName(process, i)).ips == Strings{addressOf(process, i)};
        send(out, {answered ? 'S' : 'F', process, i});
    }
    for (;;) pause();
}

// Waits up to 15 s (a guard against a hang) for the next report; false at the end of the pipe.
bool nextReport(int in, Report& report) {
    pollfd ready{in, POLLIN, 0};
    return poll(&ready, 1, 15000) == 1 && read(in, &report, sizeof report) == sizeof report;
}

// What our store adds to SQLite's durability: a save is committed before its lookup is
// answered, the next process answers from it, and the application's own keys are left alone.
TEST(KilledProcesses, EveryRestartAnswersFromWhatWasSavedAndTheApplicationsKeysStay) {
    qel::test::ScratchDirectory scratch;
    const std::string path = scratch.file("defaults.sqlite3");
    { qel::platform::SqliteUserDefaults made(path); }
    ASSERT_EQ(appQuery(path, "INSERT INTO user_defaults VALUES ('app.user', 'alice'), "
                             "('app.blob', x'00ff10')"), "<none>");
    std::vector<std::pair<int, int>> saved;  // hosts whose lookup was answered before a kill
    for (int process = 0; process < 6; ++process) {
        SCOPED_TRACE("process " + std::to_string(process));
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(pipeFds[0]);
            runDoomedProcess(path, process, saved, pipeFds[1]);
        }
        close(pipeFds[1]);
        // Killed after 1 to 3 answers and a little later: between saves or in one.
        Report report{};
        Strings failures;
        auto take = [&](const Report& r) {
            if (r.kind == 'S') saved.emplace_back(r.process, r.index);
            if (r.kind == 'F') failures.push_back(hostName(r.process, r.index));
        };
        for (int answers = 0; answers < 1 + process % 3 && nextReport(pipeFds[0], report);) {
            take(report);
            answers += report.kind == 'S';
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500 * process));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        while (nextReport(pipeFds[0], report)) take(report);  // what it did before it died
        close(pipeFds[0]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself";
        ASSERT_EQ(failures, Strings{});
        ASSERT_EQ(appQuery(path, "PRAGMA integrity_check"), "ok");
        for (const auto& [p, i] : saved) {
            ASSERT_EQ(appQuery(path, "SELECT count(*) FROM user_defaults WHERE key = '" +
                                         hostName(p, i) + "_v4'"), "1") << hostName(p, i);
        }
        ASSERT_EQ(appQuery(path, "SELECT value FROM user_defaults WHERE key = 'app.user'"), "alice");
        ASSERT_EQ(appQuery(path, "SELECT hex(value) FROM user_defaults WHERE key = 'app.blob'"),
                  "00FF10");
    }
    EXPECT_GE(saved.size(), 6u);
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
    ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
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
    ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
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
