// What the store promises beyond SQLite's own durability: a process killed with SIGKILL at any
// moment, while its writer thread may be committing a batch, leaves every answer the store had
// flushed (synchronize) on disk and the file readable. Every process that runs the SDK is
// forked before the forking process starts any thread.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/FakeReachability.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"
#include "support/SqliteQuery.h"

namespace {

using Ips = std::optional<std::vector<std::string>>;

std::string hostName(int process, int index) { return "h" + std::to_string(process) + "-" + std::to_string(index) + ".test"; }

// Looks up new hosts, each a save, and writes the index of each one answered and flushed to
// `out`, until it is killed.
[[noreturn]] void lookUpUntilKilled(const std::string& path, int process, int out) {
    qel::test::ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
    for (int i = 0; i < 64; ++i) service.setAddresses(hostName(process, i), {"192.0.2.1"});
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
    qel::platform::UserDefaults::setStandardPath(path);
    QelHttpDnsManager::shared().enableCacheIP(true);
    if (!qel::test::registered(service)) _exit(2);
    for (int i = 0; i < 64; ++i) {
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        QelHttpDnsManager::shared().getIPV4ByDomain(hostName(process, i), recorder.callback());
        if (!recorder.waitFor(1) || std::get<1>(recorder.calls()[0].arguments) != Ips{{"192.0.2.1"}} ||
            !qel::platform::UserDefaults::standard().synchronize() || write(out, &i, sizeof i) != sizeof i) {
            _exit(3);
        }
    }
    for (;;) pause();
}

// The next answered index, waiting 15 s at most (a guard against a hang); false at the end.
bool nextAnswer(int in, int& index) {
    pollfd ready{in, POLLIN, 0};
    return poll(&ready, 1, 15000) == 1 && read(in, &index, sizeof index) == sizeof index;
}

}  // namespace

TEST(KilledWriter, EveryAnswerFlushedIsOnDiskAndTheStoreStaysReadable) {
    qel::test::ScratchDirectory scratch;
    const std::string path = scratch.file("defaults.sqlite3");
    std::vector<std::string> answered;
    // Four kills in the suite; QEL_CRASH_LOOPS=100 for a longer run.
    const char* loops = std::getenv("QEL_CRASH_LOOPS");
    const int processes = loops ? std::max(1, std::atoi(loops)) : 4;
    for (int process = 0; process < processes; ++process) {
        SCOPED_TRACE("process " + std::to_string(process));
        int pipeFds[2];
        const pid_t child = pipe(pipeFds) == 0 ? fork() : -1;
        ASSERT_GE(child, 0);
        if (child == 0) lookUpUntilKilled(path, process, pipeFds[1]);
        close(pipeFds[1]);
        // Killed after one to four answers, while it saves the next one or right before.
        int status = 0, index = 0;
        for (int heard = 0; heard <= process % 4 && nextAnswer(pipeFds[0], index); ++heard) {
            answered.push_back(hostName(process, index));
        }
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, &status, 0), child);
        while (nextAnswer(pipeFds[0], index)) answered.push_back(hostName(process, index));
        close(pipeFds[0]);
        ASSERT_TRUE(WIFSIGNALED(status)) << "ended by itself with " << WEXITSTATUS(status);
        ASSERT_EQ(qel::test::appQuery(path, "PRAGMA integrity_check"), "ok");
        for (const std::string& host : answered) {
            EXPECT_EQ(qel::test::appQuery(path,
                                          "SELECT count(*) FROM user_defaults WHERE key "
                                          "LIKE '" +
                                              host + "_v_'"),
                      "1")
                << host;
        }
    }
    EXPECT_GE(answered.size(), 10u);
}
