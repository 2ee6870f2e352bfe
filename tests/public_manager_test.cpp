// The SDK as an application meets it: the public manager against a signature-checking
// resolution service on loopback, with the network status under the test's control.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"
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
constexpr char kDeadNode[] = "http://127.0.0.1:1";  // nothing listens: connection refused
constexpr uint32_t kWiFi = qel::platform::ReachabilityFlags::Reachable;

bool cached(const std::string& key) {
    const auto records = QelDNSCacheManager::shared().getIPsWithDomain(key, true);
    return records && !records->empty();
}

bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 2000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// What one lookup got, and where.
struct Answer {
    int calls = 0;
    bool beforeReturn = false;  // on the caller's thread, before the lookup returned
    bool onPlatformThread = false;
    std::optional<int64_t> code;
    std::string message;
    Ips ips;
};

class PublicManager : public testing::Test {
protected:
    PublicManager() {
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
    }

    // Made after the fake network is installed, so the SDK watches the fake.
    QelHttpDnsManager& dns() { return QelHttpDnsManager::shared(); }

    // Registers and waits until the reply has set the status it must set and, on success,
    // the node it hands out.
    void login(const std::string& secret = kSecret, int64_t expectedStatus = 4) {
        dns().customServerUrl(service.baseUrl());
        const size_t before = service.logins();
        dns().registerAuthId(std::string(kId), secret);
        ASSERT_TRUE(eventually([&] {
            return service.logins() > before && dns().initStatus() == expectedStatus &&
                   (expectedStatus != 4 ||
                    QelHttpDnsCenterManager::shared().resolveUrl() == service.bestNode());
        }));
    }

    Answer ask(const std::optional<std::string>& domain, int64_t type = 1) {
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        dns().getIPByDomain(domain, type, recorder.callback());
        const bool answeredAlready = recorder.count() == 1;
        Answer answer;
        if (!recorder.waitFor(1)) return answer;
        const auto calls = recorder.calls();
        const auto& [error, ips] = calls[0].arguments;
        answer.calls = static_cast<int>(calls.size());
        answer.onPlatformThread = calls[0].onPlatformThread;
        answer.beforeReturn = answeredAlready && !answer.onPlatformThread;
        if (error) {
            answer.code = error->code();
            answer.message = error->localizedDescription();
        }
        answer.ips = ips;
        return answer;
    }

    size_t linesMatching(const std::string& text) const {
        size_t count = 0;
        for (const auto& line : console.lines()) count += line == text;
        return count;
    }

    qel::test::FakeReachabilityFactory network{kWiFi};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;
    ResolutionService service{kId, kSecret, kApp};
};

// ---------------------------------------------------------------- registration state

TEST_F(PublicManager, SilentUntilTheFirstLoginReplyThenReady) {
    int silentCalls = 0;
    auto counting = [&](std::optional<QelDNSError>, Ips) { ++silentCalls; };
    dns().setDegradeHosts(Strings{"legacy.test"});
    EXPECT_EQ(ask("legacy.test").code, 2);  // checked even before registration
    dns().getIPV4ByDomain("a.test", counting);
    dns().getIPV4ByDomain("not a domain", counting);
    EXPECT_EQ(dns().initStatus(), 0);

    service.setAddresses("a.test", {"192.0.2.1", "192.0.2.2"});
    login();
    EXPECT_EQ(dns().initStatus(), 4);
    EXPECT_EQ(dns().currentStatusDesc(), "");
    const Answer answer = ask("a.test");
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));
    EXPECT_TRUE(answer.onPlatformThread);
    EXPECT_EQ(silentCalls, 0);
    EXPECT_EQ(service.badSignatures(), 0u);
}

TEST_F(PublicManager, RegistrationWithoutNetworkOrCredentialsRefusesLookupsWithItsMessage) {
    dns().consolePrintLogEnable(true);
    network.setFlags(0);
    dns().registerAuthId(std::string(""), std::nullopt);  // network first: status 1, not 2
    EXPECT_EQ(dns().initStatus(), 1);
    network.setFlags(kWiFi);
    console.clear();
    const Answer noNetwork = ask("a.test");
    EXPECT_EQ(noNetwork.code, 3);
    EXPECT_EQ(noNetwork.message, "网络不可用");
    EXPECT_TRUE(noNetwork.beforeReturn);
    EXPECT_EQ(linesMatching("### 网络不可用 ###"), 1u);

    dns().consolePrintLogEnable(false);
    dns().registerAuthId(std::string(kId), std::string(""));
    EXPECT_EQ(dns().initStatus(), 2);
    EXPECT_EQ(linesMatching("### AuthId或AuthSecret不能为空！###"), 1u);  // printed regardless
    const Answer empty = ask("a.test", 2);
    EXPECT_EQ(empty.code, 3);
    EXPECT_EQ(empty.message, "AuthId或AuthSecret不能为空");
    EXPECT_EQ(service.logins(), 0u);
}

TEST_F(PublicManager, FailedLoginIsRetriedByEachLaterLookup) {
    service.setAddresses("a.test", {"192.0.2.9"});
    login("wrong-secret", 3);
    EXPECT_EQ(dns().initStatus(), 3);
    EXPECT_EQ(linesMatching("### 鉴权失败，请检查AuthId或AuthSecret是否正确 ###"), 1u);

    service.scriptLogins({ResolutionService::status(500)});
    const Answer stillFailing = ask("a.test");
    EXPECT_EQ(stillFailing.code, 3);
    EXPECT_EQ(stillFailing.message, "鉴权失败，请检查AuthId或AuthSecret是否正确");
    EXPECT_TRUE(stillFailing.onPlatformThread);

    // A retry logs in with the credentials of the last registration; once it succeeds the
    // lookup is answered.
    login();
    service.scriptLogins({ResolutionService::status(500)});
    dns().registerAuthId(std::string(kId), std::string(kSecret));
    ASSERT_TRUE(eventually([&] { return dns().initStatus() == 3 && service.logins() == 4; }));
    const Answer recovered = ask("a.test");
    EXPECT_EQ(recovered.ips, Strings{"192.0.2.9"});
    EXPECT_EQ(dns().initStatus(), 4);
    EXPECT_EQ(service.logins(), 5u);
}

// ---------------------------------------------------------------- lookups

TEST_F(PublicManager, RefusalsAnswerOnTheCallersThreadBeforeTheirLogLine) {
    login();
    dns().consolePrintLogEnable(true);
    dns().setDegradeHosts(Strings{"a.test"});
    EXPECT_EQ(ask("a.test").code, 2);
    EXPECT_NE(ask("A.test").code, 2);  // exact comparison

    for (const std::optional<std::string>& bad : {std::optional<std::string>("192.168.1.1"),
                                                  std::optional<std::string>(std::nullopt),
                                                  std::optional<std::string>("-a.test")}) {
        console.clear();
        size_t linesAtCallback = 99;
        dns().getIPV6ByDomain(bad, [&](std::optional<QelDNSError> error, Ips) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->code(), 1);
            EXPECT_EQ(error->localizedDescription(), "域名格式错误");
            linesAtCallback = console.lines().size();
        });
        EXPECT_EQ(linesAtCallback, 0u);
        EXPECT_EQ(console.lines(), Strings{"### 域名格式错误 ###"});
    }

    network.setFlags(0);
    const size_t sent = service.resolvedHosts().size();
    const Answer offline = ask("b.test");
    EXPECT_EQ(offline.code, 0);
    EXPECT_EQ(offline.message, "网络不可用");
    EXPECT_TRUE(offline.beforeReturn);
    EXPECT_EQ(service.resolvedHosts().size(), sent);
}

TEST_F(PublicManager, AnswerIsCachedUnderTheKeyOfThePreviousLookupsType) {
    service.setAddresses("a.test", {"192.0.2.1"});
    dns().enableCacheIP(true);
    login();
    // The first lookup of the process stores under "a.test_v6" (no type before it), the
    // second under "a.test_v4"; only the third finds its key filled.
    EXPECT_FALSE(ask("a.test").beforeReturn);
    EXPECT_FALSE(ask("a.test").beforeReturn);
    const Answer hit = ask("a.test");
    EXPECT_TRUE(hit.beforeReturn);
    EXPECT_EQ(hit.ips, Strings{"192.0.2.1"});
    EXPECT_EQ(service.resolvedHosts().size(), 2u);

    dns().cleanAllCache();
    EXPECT_FALSE(ask("a.test").beforeReturn);
    EXPECT_EQ(service.resolvedHosts().size(), 3u);
}

TEST_F(PublicManager, CallbackThatThrowsOnThePlatformThreadDoesNotStopLaterAnswers) {
    service.setAddresses("a.test", {"192.0.2.1"});
    login();
    dns().getIPV4ByDomain("a.test", [](std::optional<QelDNSError>, Ips) {
        throw std::runtime_error("application bug");
    });
    EXPECT_EQ(ask("a.test").ips, Strings{"192.0.2.1"});
    EXPECT_TRUE(eventually([&] {
        return linesMatching("QelHttpDnsSDK: a lookup callback threw: application bug") == 1;
    }));
}

// ---------------------------------------------------------------- retries and nodes

TEST_F(PublicManager, FailedAttemptsAreRetriedAtOnceUpToThreeAttempts) {
    service.setAddresses("a.test", {"192.0.2.1"});
    login();
    service.scriptResolves({ResolutionService::status(500), ResolutionService::drop(),
                            ResolutionService::status(0)});
    const Answer failed = ask("a.test");
    EXPECT_EQ(failed.code, -1);
    EXPECT_EQ(failed.message, "request error");
    EXPECT_EQ(service.resolvedHosts().size(), 3u);

    service.scriptResolves({ResolutionService::status(500), ResolutionService::drop()});
    EXPECT_EQ(ask("a.test").ips, Strings{"192.0.2.1"});
}

TEST_F(PublicManager, ForbiddenEndsTheLookupAndLiftsTheAttemptLimitForGood) {
    service.setAddresses("a.test", {"192.0.2.1"});
    login();
    service.scriptResolves({ResolutionService::status(403, "denied")});
    const Answer forbidden = ask("a.test");
    EXPECT_EQ(forbidden.code, 403);
    EXPECT_EQ(forbidden.message, "denied");
    EXPECT_EQ(service.resolvedHosts().size(), 1u);

    service.scriptResolves(std::vector<ResolutionService::Behaviour>(5, ResolutionService::status(500)));
    EXPECT_EQ(ask("a.test").ips, Strings{"192.0.2.1"});
    EXPECT_EQ(service.resolvedHosts().size(), 7u);
}

TEST_F(PublicManager, UnreachableNodeSwitchesOnlyWhenTheNextNodeRepeatsIt) {
    service.setAddresses("a.test", {"192.0.2.1"});
    // One switch steps three times: to the repeat of the dead node, past it, and onto ours.
    service.setNodes(kDeadNode, {kDeadNode, kDeadNode, "http://unused.test", service.baseUrl()});
    login();
    const Answer answer = ask("a.test");
    EXPECT_EQ(answer.ips, Strings{"192.0.2.1"});
    EXPECT_EQ(service.resolvedHosts().size(), 1u);
}

TEST_F(PublicManager, UnreachableNodeWithoutARepeatEndsTheLookupAsServiceUnavailable) {
    service.setNodes(kDeadNode, {kDeadNode, service.baseUrl()});
    login();
    const Answer different = ask("a.test");
    EXPECT_EQ(different.code, -1);
    EXPECT_EQ(different.message, "service unavailable");

    // A stalled node times out like a dead one; an empty node list cannot be stepped at all.
    dns().setTimeout(0.2);
    service.setNodes(service.baseUrl(), {});
    login();
    service.scriptResolves({ResolutionService::stall()});
    const Answer empty = ask("a.test");
    EXPECT_EQ(empty.code, -1);
    EXPECT_EQ(empty.message, "service unavailable");
    EXPECT_TRUE(empty.onPlatformThread);
    EXPECT_EQ(service.resolvedHosts().size(), 1u);  // the stalled request, to the new node
}

// ---------------------------------------------------------------- pre-resolution, network

TEST_F(PublicManager, PreResolutionWaitsForTheFirstLoginThenRunsOnEveryCall) {
    for (const char* host : {"a.test", "b.test", "c.test", "x.test"}) {
        service.setAddresses(host, {"192.0.2.1"});
    }
    dns().preGetIPsWithDomains({{std::string("x.test"), 1}});  // caching off: dropped
    dns().enableCacheIP(true);
    dns().preGetIPsWithDomains({{std::string("a.test"), 1}, {std::string("b.test"), 2}});
    EXPECT_FALSE(dns().isPreResolved());
    login();
    // Each entry is stored under the key its lookup chose: the suffix of the type before it.
    EXPECT_TRUE(eventually([] { return cached("a.test_v6") && cached("b.test_v4"); }));
    EXPECT_TRUE(dns().isPreResolved());

    dns().preGetIPsWithDomains({{std::string("c.test"), 1}});
    EXPECT_TRUE(eventually([] { return cached("c.test_v6"); }));
    Strings resolved = service.resolvedHosts();
    std::sort(resolved.begin(), resolved.end());  // a.test and b.test were in flight together
    EXPECT_EQ(resolved, (Strings{"a.test", "b.test", "c.test"}));
}

TEST_F(PublicManager, NetworkChangeRefreshesTheLatestLookup) {
    const uint32_t cellular = kWiFi | qel::platform::ReachabilityFlags::IsWWAN;
    service.setAddresses("a.test", {"192.0.2.1"});
    dns().enableCacheIP(true);
    login();
    network.setFlags(cellular);
    network.fire();  // no lookup yet: nothing to refresh
    ask("a.test");   // stored under "a.test_v6"
    service.setAddresses("a.test", {"192.0.2.77"});
    network.setFlags(kWiFi);
    network.fire();  // refreshes "a.test_v4": its key is taken after the type was stored
    EXPECT_TRUE(eventually([] { return cached("a.test_v4"); }));
    const Answer refreshed = ask("a.test");
    EXPECT_TRUE(refreshed.beforeReturn);
    EXPECT_EQ(refreshed.ips, Strings{"192.0.2.77"});
    EXPECT_EQ(service.resolvedHosts().size(), 2u);
}

// A thread repeating its last lookup skips storing the pending pair only while no other
// lookup has replaced it: here the other thread's type decides the key.
TEST_F(PublicManager, ALookupOnAnotherThreadLeavesItsTypeToTheNextLookup) {
    service.setAddresses("a.test", {"192.0.2.1"});
    service.setAddresses("b.test", {"192.0.2.2"});
    dns().enableCacheIP(true);
    login();
    ask("a.test", 1);
    std::thread([&] { ask("b.test", 2); }).join();
    dns().cleanAllCache();
    ask("a.test", 1);
    EXPECT_TRUE(cached("a.test_v6"));
    EXPECT_FALSE(cached("a.test_v4"));
}

// ---------------------------------------------------------------- restart and load

// The first process fills the store and ends; the second answers the same lookup from it,
// on its own thread, before it sends any resolve request.
TEST(PublicManagerRestart, SecondProcessAnswersFromThePersistedCache) {
    qel::test::ScratchDirectory scratch;
    const std::string store = scratch.file("defaults.sqlite3");
    auto run = [&](bool expectHit) {
        qel::test::FakeReachabilityFactory network{kWiFi};
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(store);
        ResolutionService service{kId, kSecret, kApp};
        service.setAddresses("a.test", {"192.0.2.5", "2001:db8::5"});
        auto& dns = QelHttpDnsManager::shared();
        dns.enableCacheIP(true);
        dns.customServerUrl(service.baseUrl());
        dns.registerAuthId(std::string(kId), std::string(kSecret));
        if (!eventually([&] { return dns.initStatus() == 4; })) return false;
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        dns.getIPV4ByDomain("a.test", recorder.callback());
        const bool hit = recorder.count() == 1;
        if (!recorder.waitFor(1)) return false;
        const auto ips = std::get<1>(recorder.calls()[0].arguments);
        return hit == expectHit && service.resolvedHosts().size() == (expectHit ? 0u : 1u) &&
               ips == Strings{"192.0.2.5", "2001:db8::5"};
    };
    const pid_t child = fork();  // before any thread exists in this process
    ASSERT_GE(child, 0);
    if (child == 0) _exit(run(false) ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(run(true));
}

// Lookups, cache clears, setting changes and network changes from eight threads: every
// lookup is answered exactly once.
TEST_F(PublicManager, EightThreadsOfLookupsSettingsAndNetworkChanges) {
    const Strings hosts{"a.test", "b.test", "c.test", "d.test"};
    for (const auto& host : hosts) service.setAddresses(host, {"192.0.2.1", "2001:db8::1"});
    login();
    std::atomic<bool> stop{false};
    std::atomic<int> issued{0}, answered{0};
    // Every recorder, to count the calls each lookup got once the load is over.
    struct Recorders {
        std::mutex mutex;
        std::vector<qel::test::CallRecorder<std::optional<QelDNSError>, Ips>> all;
        void push(const qel::test::CallRecorder<std::optional<QelDNSError>, Ips>& recorder) {
            std::lock_guard<std::mutex> lock(mutex);
            all.push_back(recorder);
        }
        size_t maxCalls() {
            size_t most = 0;
            for (const auto& recorder : all) most = std::max(most, recorder.count());
            return most;
        }
    } recorders;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            while (!stop.load()) {
                const int action = static_cast<int>(random() % 16);
                if (t == 0 && action == 0) {
                    dns().cleanAllCache();
                } else if (t == 1 && action == 0) {
                    dns().enableCacheIP(random() % 2);
                    dns().setDegradeHosts(random() % 2 ? Ips(Strings{"d.test"}) : std::nullopt);
                } else if (t == 2 && action == 0) {
                    network.setFlags(random() % 4 ? kWiFi : 0);
                    network.fire();
                } else {
                    // One lookup in flight per thread keeps the service's backlog short.
                    qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
                    issued.fetch_add(1);
                    dns().getIPByDomain(hosts[random() % hosts.size()], 1 + random() % 2,
                                        recorder.callback());
                    if (recorder.waitFor(1, std::chrono::seconds(20))) answered.fetch_add(1);
                    recorders.push(recorder);
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    stop.store(true);
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(answered.load(), issued.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // room for a second call
    EXPECT_EQ(recorders.maxCalls(), 1u);
    EXPECT_EQ(service.badSignatures(), 0u);
}

}  // namespace
