// The SDK as an application meets it: the public manager against a signature-checking
// resolution service on loopback, with the network status under the test's control. Every
// lookup is also traced, and each scenario states where its answer came from. The blocking
// lookup and the C interface's family filter run against the same service at the end; the C
// program in c_api/ covers late answers that fill the cache and the platform thread.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <future>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Extras/QelDNSCacheProfile.h"
#include "QelHttpDnsSDK/Extras/QelDNSNodeHealth.h"
#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
#include "QelHttpDnsSDK/Extras/qel_httpdns.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/FakeClock.h"
#include "support/FakeReachability.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"

using qel::test::eventually;
using qel::test::kAppId;
using qel::test::registered;
using qel::test::ResolutionService;
using Ips = std::optional<std::vector<std::string>>;
using Strings = std::vector<std::string>;
using Source = QelDNSLookupTrace::Source;
using Traces = qel::test::CallRecorder<QelDNSLookupTrace>;
using Answers = qel::test::CallRecorder<std::optional<QelDNSError>, Ips>;
using Lookup = QelDNSBlockingLookup;

namespace {

constexpr char kDeadNode[] = "http://127.0.0.1:1";  // nothing listens: connection refused
constexpr uint32_t kWiFi = qel::platform::ReachabilityFlags::Reachable;

int64_t codeOf(const Lookup::Result& result) { return result.error ? result.error->code() : 99999; }

bool cached(const std::string& key) {
    const auto records = QelDNSCacheManager::shared().getIPsWithDomain(key, true);
    return records && !records->empty();
}

// What one lookup got, where, and the trace it made.
struct Answer {
    bool beforeReturn = false;  // on the caller's thread, before the lookup returned
    bool onPlatformThread = false;
    std::optional<int64_t> code;
    std::string message;
    Ips ips;
    QelDNSLookupTrace trace;
};

class PublicManager : public testing::Test {
protected:
    PublicManager() {
        qel::platform::MainBundle::setIdentifier(kAppId);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        QelDNSTraceObserver::install(traces.callback());
    }
    ~PublicManager() override { QelDNSTraceObserver::remove(); }

    // Made after the fake network is installed, so the SDK watches the fake.
    QelHttpDnsManager& dns() { return QelHttpDnsManager::shared(); }
    void login(const std::string& secret = qel::test::kAuthSecret, int64_t status = 4) {
        ASSERT_TRUE(registered(service, secret, status));
    }

    // Looks up and waits for the one answer; its trace must have come just before it.
    Answer ask(const std::optional<std::string>& domain, int64_t type = 1) {
        Answers recorder;
        const size_t tracesBefore = traces.count();
        size_t tracesAtCallback = 0;
        dns().getIPByDomain(domain, type, [&, callback = recorder.callback()](auto error, Ips ips) {
            tracesAtCallback = traces.count();
            callback(std::move(error), std::move(ips));
        });
        const bool answeredAlready = recorder.count() == 1;
        Answer answer;
        if (!recorder.waitFor(1)) return answer;
        const auto call = recorder.calls()[0];
        const auto& [error, ips] = call.arguments;
        answer.onPlatformThread = call.onPlatformThread;
        answer.beforeReturn = answeredAlready && !answer.onPlatformThread;
        if (error) {
            answer.code = error->code();
            answer.message = error->localizedDescription();
        }
        answer.ips = ips;
        EXPECT_EQ(tracesAtCallback, tracesBefore + 1);
        EXPECT_EQ(traces.count(), tracesBefore + 1);
        if (traces.count() > tracesBefore) {
            answer.trace = std::get<0>(traces.calls().back().arguments);
            EXPECT_EQ(traces.calls().back().onPlatformThread, answer.onPlatformThread);
        }
        return answer;
    }

    size_t linesMatching(const std::string& text) const {
        const Strings lines = console.lines();
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), text));
    }

    qel::test::FakeReachabilityFactory network{kWiFi};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;
    ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, kAppId};
    Traces traces;
};

// ---------------------------------------------------------------- registration state

TEST_F(PublicManager, SilentUntilTheFirstLoginReplyThenReady) {
    int silentCalls = 0;
    auto counting = [&](std::optional<QelDNSError>, Ips) { ++silentCalls; };
    dns().setDegradeHosts(Strings{"legacy.test"});
    EXPECT_EQ(ask("legacy.test").code, 2);  // checked even before registration
    dns().getIPV4ByDomain("a.test", counting);
    ASSERT_EQ(traces.count(), 2u);  // the silent lookup is traced before it returns
    EXPECT_EQ(std::get<0>(traces.calls()[1].arguments).source, Source::Unanswered);
    dns().getIPV4ByDomain("not a domain", counting);
    EXPECT_EQ(dns().initStatus(), 0);

    service.setAddresses("a.test", {"192.0.2.1", "192.0.2.2"});
    login();
    EXPECT_EQ(dns().currentStatusDesc(), "");
    const Answer answer = ask("a.test");
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));
    EXPECT_TRUE(answer.onPlatformThread);
    EXPECT_EQ(answer.trace.source, Source::Service);
    EXPECT_EQ(answer.trace.attempts, 1);
    EXPECT_EQ(answer.trace.nodes, Strings{service.baseUrl()});
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
    EXPECT_EQ(noNetwork.trace.source, Source::Refused);
    EXPECT_EQ(linesMatching("### 网络不可用 ###"), 1u);

    dns().consolePrintLogEnable(false);
    dns().registerAuthId(std::string(qel::test::kAuthId), std::string(""));
    EXPECT_EQ(dns().initStatus(), 2);
    EXPECT_EQ(linesMatching("### AuthId或AuthSecret不能为空！###"), 1u);  // printed regardless
    const Answer empty = ask("a.test", 2);
    EXPECT_EQ(empty.code, 3);
    EXPECT_EQ(empty.message, "AuthId或AuthSecret不能为空");
    EXPECT_EQ(service.logins(), 0u);
    // Logging off means off: the refusal above printed nothing of its own.
    EXPECT_EQ(linesMatching("### AuthId或AuthSecret不能为空 ###"), 0u);
}

TEST_F(PublicManager, FailedLoginIsRetriedByEachLaterLookup) {
    service.setAddresses("a.test", {"192.0.2.9"});
    login("wrong-secret", 3);
    EXPECT_EQ(linesMatching("### 鉴权失败，请检查AuthId或AuthSecret是否正确 ###"), 1u);

    service.scriptLogins({ResolutionService::status(500)});
    const Answer stillFailing = ask("a.test");
    EXPECT_EQ(stillFailing.code, 3);
    EXPECT_EQ(stillFailing.message, "鉴权失败，请检查AuthId或AuthSecret是否正确");
    EXPECT_TRUE(stillFailing.onPlatformThread);
    EXPECT_TRUE(stillFailing.trace.loginRetried);
    EXPECT_EQ(stillFailing.trace.source, Source::Refused);
    EXPECT_TRUE(service.resolvedHosts().empty());

    // A retry logs in with the credentials of the last registration; once it succeeds the
    // lookup is answered.
    login();
    service.scriptLogins({ResolutionService::status(500)});
    dns().registerAuthId(std::string(qel::test::kAuthId), std::string(qel::test::kAuthSecret));
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
    const Answer degraded = ask("a.test", 2);
    EXPECT_EQ(degraded.code, 2);
    EXPECT_EQ(degraded.trace.source, Source::Refused);
    EXPECT_EQ(degraded.trace.cacheKey, "");
    EXPECT_NE(ask("A.test").code, 2);  // exact comparison

    for (const std::optional<std::string>& bad :
         {std::optional<std::string>("192.168.1.1"), std::optional<std::string>(std::nullopt),
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
    EXPECT_EQ(offline.trace.source, Source::Refused);
    EXPECT_EQ(service.resolvedHosts().size(), sent);
}

// One row per lookup in order: the key each lookup used is the suffix of the previous type.
TEST_F(PublicManager, AnswerIsCachedUnderTheKeyOfThePreviousLookupsType) {
    service.setAddresses("a.test", {"192.0.2.1"});
    dns().enableCacheIP(true);
    login();
    const struct {
        Source source;
        const char* key;
    } rows[] = {
        {Source::Service, "a.test_v6"},  // the first lookup of the process: no type before it
        {Source::Service, "a.test_v4"},
        {Source::Memory, "a.test_v4"},
    };
    for (const auto& row : rows) {
        const Answer answer = ask("a.test");
        EXPECT_EQ(answer.trace.source, row.source) << row.key;
        EXPECT_EQ(answer.trace.cacheKey, row.key);
        EXPECT_EQ(answer.beforeReturn, row.source == Source::Memory);
        EXPECT_EQ(answer.ips, Strings{"192.0.2.1"});
    }
    EXPECT_EQ(service.resolvedHosts().size(), 2u);

    dns().cleanAllCache();
    EXPECT_EQ(ask("a.test").trace.source, Source::Service);
    EXPECT_EQ(service.resolvedHosts().size(), 3u);
    // The two shorthands store their own type: each is a hit under "a.test_v4", and the next
    // lookup's key takes the suffix of the type it stored.
    dns().getIPV6ByDomain("a.test", nullptr);
    EXPECT_EQ(ask("a.test").trace.cacheKey, "a.test_v6");
    dns().getIPV4ByDomain("a.test", nullptr);
    EXPECT_EQ(ask("a.test", 2).trace.cacheKey, "a.test_v4");
    // A cached record without its address answers nothing: the service is asked.
    auto noAddress = std::make_shared<QelDNSIPModel>();
    noAddress->setTtl(600);
    noAddress->setLookupTime(qel::platform::Clock::currentTime());
    QelDNSCacheManager::shared().saveIPs(std::make_shared<const QelDNSIPModelList>(1, noAddress), "a.test_v6", false);
    const Answer planted = ask("a.test");
    EXPECT_EQ(planted.trace.source, Source::Service);
    EXPECT_EQ(planted.ips, Strings{"192.0.2.1"});
    dns().enableCacheIP(false);
    EXPECT_EQ(ask("a.test").trace.cacheKey, "");
}

TEST_F(PublicManager, CallbackOrObserverThatThrowsDoesNotStopLaterAnswers) {
    service.setAddresses("a.test", {"192.0.2.1"});
    login();
    dns().getIPV4ByDomain("a.test", [](std::optional<QelDNSError>, Ips) { throw std::runtime_error("application bug"); });
    ASSERT_TRUE(traces.waitFor(1));
    EXPECT_EQ(ask("a.test").ips, Strings{"192.0.2.1"});
    EXPECT_TRUE(eventually([&] { return linesMatching("QelHttpDnsSDK: a lookup callback threw: application bug") == 1; }));

    QelDNSTraceObserver::install([](const QelDNSLookupTrace&) { throw std::runtime_error("oops"); });
    int answers = 0;
    dns().setDegradeHosts(Strings{"a.test"});
    dns().getIPV4ByDomain("a.test", [&](std::optional<QelDNSError>, Ips) { ++answers; });
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(linesMatching("QelHttpDnsSDK: a trace observer threw: oops"), 1u);
}

// ---------------------------------------------------------------- retries and nodes

// One row per scripted run of resolve answers: what the lookup gets, and how many requests.
TEST_F(PublicManager, FailedAttemptsAreRetriedAtOnceUpToThreeAttemptsUntilA403) {
    using R = ResolutionService;
    service.setAddresses("a.test", {"192.0.2.1"});
    login();
    const struct {
        std::vector<R::Behaviour> script;
        std::optional<int64_t> code;
        std::string message;
        int attempts;
    } rows[] = {
        {{R::status(500), R::drop(), R::status(0)}, -1, "request error", 3},
        {{R::status(500), R::drop()}, std::nullopt, "", 3},
        {{R::status(403, "denied")}, 403, "denied", 1},
        // The 403 lifted the attempt limit for good.
        {std::vector<R::Behaviour>(5, R::status(500)), std::nullopt, "", 6},
    };
    for (const auto& row : rows) {
        service.scriptResolves(row.script);
        const size_t before = service.resolvedHosts().size();
        const Answer answer = ask("a.test");
        EXPECT_EQ(answer.code, row.code) << row.attempts;
        EXPECT_EQ(answer.message, row.message);
        if (!row.code) {
            EXPECT_EQ(answer.ips, Strings{"192.0.2.1"});
        }
        EXPECT_EQ(answer.trace.attempts, row.attempts);
        EXPECT_EQ(service.resolvedHosts().size() - before, static_cast<size_t>(row.attempts));
    }
}

TEST_F(PublicManager, UnreachableNodeSwitchesOnlyWhenTheNextNodeRepeatsIt) {
    service.setAddresses("a.test", {"192.0.2.1"});
    // One switch steps three times: to the repeat of the dead node, past it, and onto ours.
    service.setNodes(kDeadNode, {kDeadNode, kDeadNode, "http://unused.test", service.baseUrl()});
    login();
    const Answer switched = ask("a.test");
    EXPECT_EQ(switched.ips, Strings{"192.0.2.1"});
    EXPECT_EQ(switched.trace.attempts, 2);
    EXPECT_EQ(switched.trace.nodes, (Strings{kDeadNode, service.baseUrl()}));
    EXPECT_EQ(service.resolvedHosts().size(), 1u);

    // The switch lifted the attempt limit: three failures, then the answer, on one node.
    service.scriptResolves({ResolutionService::status(500), ResolutionService::drop(), ResolutionService::status(0)});
    const Answer retried = ask("a.test");
    EXPECT_EQ(retried.ips, Strings{"192.0.2.1"});
    EXPECT_EQ(retried.trace.attempts, 4);
    EXPECT_EQ(retried.trace.nodes, Strings{service.baseUrl()});
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
    EXPECT_EQ(refreshed.trace.source, Source::Memory);
    EXPECT_EQ(refreshed.ips, Strings{"192.0.2.77"});
    EXPECT_EQ(service.resolvedHosts().size(), 2u);

    // A refresh that fails leaves no stale entry behind: the next lookup goes to the service.
    service.scriptResolves(std::vector<ResolutionService::Behaviour>(3, ResolutionService::status(500)));
    network.setFlags(cellular);
    network.fire();
    EXPECT_TRUE(eventually([&] { return service.resolvedHosts().size() == 5; }));
    const Answer afterFailedRefresh = ask("a.test");
    EXPECT_EQ(afterFailedRefresh.trace.source, Source::Service);
    EXPECT_EQ(afterFailedRefresh.ips, Strings{"192.0.2.77"});

    // A registration that fails turns the refresh off: the entry is neither cleared nor asked.
    dns().registerAuthId(std::string(qel::test::kAuthId), std::string(""));
    network.setFlags(kWiFi);
    network.fire();
    EXPECT_TRUE(cached("a.test_v4"));
}

// A thread repeating its last lookup skips storing the pending pair only while no other
// lookup has replaced it. One row per lookup on another thread in between, of another name,
// type or both: the repeated lookup still asks for its own name, under the key the other
// thread's type decides.
TEST_F(PublicManager, ALookupOnAnotherThreadIsReplacedByTheNextLookup) {
    service.setAddresses("a.test", {"192.0.2.1"});
    service.setAddresses("b.test", {"192.0.2.2"});
    dns().enableCacheIP(true);
    login();
    const struct {
        const char* otherName;
        int64_t otherType;
        const char* key;
    } rows[] = {{"b.test", 2, "a.test_v6"}, {"b.test", 1, "a.test_v4"}, {"a.test", 2, "a.test_v6"}};
    for (const auto& row : rows) {
        ask("a.test", 1);
        std::thread([&] { ask(row.otherName, row.otherType); }).join();
        dns().cleanAllCache();
        const Answer again = ask("a.test", 1);
        EXPECT_EQ(again.trace.cacheKey, row.key);
        EXPECT_EQ(again.ips, Strings{"192.0.2.1"}) << row.key;
        EXPECT_EQ(service.resolvedHosts().back(), "a.test");
    }
    // The same thread, a name that begins its last one: a key of its own.
    service.setAddresses("a.tes", {"192.0.2.3"});
    ask("a.test", 1);
    EXPECT_EQ(ask("a.tes", 1).trace.cacheKey, "a.tes_v4");
}

TEST_F(PublicManager, NoTraceWithoutAnObserverAndNoneForALookupInFlightWhenItChanged) {
    service.setAddresses("a.test", {"192.0.2.1"});
    QelDNSTraceObserver::remove();
    EXPECT_FALSE(QelDNSTraceObserver::isInstalled());
    login();
    Answers answers;
    dns().getIPV4ByDomain("a.test", answers.callback());
    dns().getIPV4ByDomain("-bad.test", answers.callback());
    ASSERT_TRUE(answers.waitFor(2));

    // Installed after the lookup started, or replaced while it is in flight: no trace.
    dns().setTimeout(0.3);
    service.scriptResolves({ResolutionService::stall()});
    QelDNSTraceObserver::install(traces.callback());
    dns().getIPV4ByDomain("a.test", answers.callback());
    Traces replacement;
    QelDNSTraceObserver::install(replacement.callback());
    ASSERT_TRUE(answers.waitFor(3));
    EXPECT_EQ(traces.count(), 0u);
    EXPECT_EQ(replacement.count(), 0u);
}

// ---------------------------------------------------------------- restart and load

// The first process fills the store and ends; the second answers the same lookup from it,
// on its own thread, and sends no resolve request. Where the answer came from is what the
// trace and the service's log say, not how soon it came.
TEST(PublicManagerRestart, SecondProcessAnswersFromThePersistedCache) {
    qel::test::ScratchDirectory scratch;
    const std::string store = scratch.file("defaults.sqlite3");
    auto run = [&](Source expected) {
        qel::test::FakeReachabilityFactory network{kWiFi};
        qel::platform::MainBundle::setIdentifier(kAppId);
        qel::platform::UserDefaults::setStandardPath(store);
        ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, kAppId};
        service.setAddresses("a.test", {"192.0.2.5", "2001:db8::5"});
        Traces traces;
        QelDNSTraceObserver::install(traces.callback());
        QelHttpDnsManager::shared().enableCacheIP(true);
        if (!registered(service)) return false;
        Answers recorder;
        QelHttpDnsManager::shared().getIPV4ByDomain("a.test", recorder.callback());
        if (!recorder.waitFor(1) || traces.count() != 1) return false;
        const auto trace = std::get<0>(traces.calls()[0].arguments);
        const auto call = recorder.calls()[0];
        const bool fromStore = expected == Source::Store;
        return trace.source == expected && trace.cacheKey == "a.test_v6" && trace.attempts == (fromStore ? 0 : 1) &&
               call.onPlatformThread == !fromStore && service.resolvedHosts().size() == (fromStore ? 0u : 1u) &&
               std::get<1>(call.arguments) == Strings{"192.0.2.5", "2001:db8::5"};
    };
    const pid_t child = fork();  // before any thread exists in this process
    ASSERT_GE(child, 0);
    if (child == 0) std::exit(run(Source::Service) ? 0 : 1);  // the store is written at exit
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(run(Source::Store));
}

// The resilience profile: every lookup ends within its deadline after a bounded number of
// requests, a failed node rests while the next one answers, all nodes down fails at once, each
// lookup keeps its own family and key, and concurrent misses of one name share one request.
TEST_F(PublicManager, TheResilienceProfileEndsEveryLookupFailsOverAndSharesMisses) {
    using S = ResolutionService;
    service.setAddresses("www.test", {"192.0.2.1"});
    service.setAddresses("v6.test", {"2001:db8::1"});
    service.setNodes(kDeadNode, {kDeadNode, service.baseUrl()});
    dns().enableCacheIP(true);
    login();
    QelDNSResilienceOptions options;
    options.deadline = 0.5;
    options.failuresToRest = 1;
    options.nodeRest = 30.0;
    QelDNSResilience::enable(options);
    const auto requests = [&](const std::string& host) {
        const Strings hosts = service.resolvedHosts();
        return std::count(hosts.begin(), hosts.end(), host);
    };
    // The dead node (the login's choice) fails and rests; its neighbour answers, then alone.
    EXPECT_EQ(ask("www.test").ips, Strings{"192.0.2.1"});
    dns().cleanAllCache();
    const Answer again = ask("www.test");
    EXPECT_EQ(again.ips, Strings{"192.0.2.1"});
    EXPECT_EQ(again.trace.attempts, 1);
    // Each lookup its own family, under its own key (the manager's key would be "v6.test_v4").
    const Answer v6 = ask("v6.test", 2);
    EXPECT_EQ(v6.ips, Strings{"2001:db8::1"});
    EXPECT_EQ(v6.trace.cacheKey, "v6.test_v6");
    // The faults of a service, each on every request: every lookup is answered once, within its
    // deadline, after at most maxAttempts requests (a 403 first lifts no limit).
    const std::vector<S::Behaviour> fiveHundreds(6, S::status(500)), cuts(6, S::drop());
    const struct {
        const char* host;
        std::vector<S::Behaviour> faults;
        int64_t code;
        long requests;
    } faults[] = {
        {"a.test", {S::status(403)}, 403, 1},
        {"b.test", fiveHundreds, 500, options.maxAttempts},
        {"c.test", cuts, 200, options.maxAttempts},  // a 200 whose body never comes
        {"d.test", {S::stall()}, QEL_HTTPDNS_E_DEADLINE_PASSED, 1},
    };
    for (const auto& fault : faults) {
        service.scriptResolves(fault.faults);
        EXPECT_EQ(ask(fault.host).code, fault.code) << fault.host;
        EXPECT_EQ(requests(fault.host), fault.requests) << fault.host;
    }
    // Twenty concurrent misses of one name: one request, twenty answers.
    service.setAddresses("one.test", {"192.0.2.9"});
    Answers answers;
    for (int i = 0; i < 20; ++i) dns().getIPV4ByDomain("one.test", answers.callback());
    ASSERT_TRUE(answers.waitFor(20));
    for (const auto& call : answers.calls()) EXPECT_EQ(std::get<1>(call.arguments), Strings{"192.0.2.9"});
    EXPECT_EQ(requests("one.test"), 1);
    // Every node down: each is tried once, then a lookup fails at once on the caller's thread.
    service.setNodes("http://127.0.0.1:2", {"http://127.0.0.1:2", kDeadNode});
    login();
    EXPECT_EQ(ask("e.test").code, QEL_HTTPDNS_E_ALL_NODES_FAILED);
    const Answer fast = ask("f.test");
    EXPECT_TRUE(fast.code == QEL_HTTPDNS_E_ALL_NODES_FAILED && fast.beforeReturn && requests("f.test") == 0);
    QelDNSResilience::disable();
}

// A node rests when most of its recent requests failed (3 at least, 3 in 4 of the last 8),
// not on a lossy network's occasional failure; failures during a rest count for nothing, and
// a failure right after a rest makes it rest again, twice as long.
TEST(NodeHealth, ANodeRestsWhenMostOfItsRecentRequestsFailed) {
    using Clock = QelDNSNodeHealth::Clock;
    const Clock::time_point start = Clock::now();
    const struct {
        const char* outcomes;  // F failed, S answered, in order
        bool rests;
    } rows[] = {{"FF", false}, {"FFF", true}, {"SSSSSFFFFF", false}, {"SSSSSFFFFFF", true}, {"FSFSFSFSFSFSFF", false}};
    for (const auto& row : rows) {
        QelDNSNodeHealth health;
        for (const char* outcome = row.outcomes; *outcome; ++outcome) {
            if (*outcome == 'F') health.failed("n", start, 3, 1.0, 30.0);
            if (*outcome == 'S') health.answered("n");
        }
        EXPECT_EQ(!health.pick({"n"}, start).has_value(), row.rests) << row.outcomes;
    }
    QelDNSNodeHealth health;
    for (int i = 0; i < 5; ++i) health.failed("n", start, 3, 1.0, 30.0);  // two during the rest
    const auto at = [&](double seconds) {
        return start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    EXPECT_EQ(health.pick({"n", "m"}, at(0.5)), "m");
    EXPECT_EQ(health.pick({"n", "m"}, at(1.01)), "n");
    health.failed("n", at(1.01), 3, 1.0, 30.0);
    EXPECT_EQ(health.pick({"n"}, at(2.9)), std::nullopt);
    EXPECT_EQ(health.pick({"n"}, at(3.02)), "n");
}

// With the profile a login that found no network, or failed, is renewed by itself; lookups
// meanwhile are refused at once instead of each sending a login of its own.
TEST_F(PublicManager, TheResilienceProfileRenewsTheLoginByItself) {
    QelDNSResilience::enable();
    network.setFlags(0);
    dns().customServerUrl(service.baseUrl());
    dns().registerAuthId(std::string(qel::test::kAuthId), std::string(qel::test::kAuthSecret));
    ASSERT_EQ(dns().initStatus(), 1);
    network.setFlags(kWiFi);
    network.fire();
    EXPECT_TRUE(eventually([&] { return dns().initStatus() == 4; }));

    service.scriptLogins({ResolutionService::status(500)});
    login(qel::test::kAuthSecret, 3);
    const size_t logins = service.logins();
    for (int i = 0; i < 3; ++i) {
        const Answer refused = ask("a.test");
        EXPECT_TRUE(refused.code == 3 && refused.beforeReturn);
    }
    EXPECT_EQ(service.logins(), logins);
    EXPECT_TRUE(eventually([&] { return dns().initStatus() == 4; }));
    EXPECT_EQ(service.logins(), logins + 1);
    QelDNSResilience::disable();
}

// A pre-fork server: the parent logs in and caches, then forks. The child answers the cached
// name from memory and a new one through a platform thread, session and store connection of
// its own, and the parent goes on answering through its own.
TEST_F(PublicManager, AForkedChildAnswersThroughItsOwnPlatformThreadSessionAndStore) {
    service.setAddresses("before.test", {"192.0.2.1"});
    service.setAddresses("child.test", {"192.0.2.2"});
    service.setAddresses("parent.test", {"192.0.2.3"});
    dns().enableCacheIP(true);
    login();
    // Twice: the first answer is kept under the key of the type pending before it.
    for (int i = 0; i < 2; ++i) ASSERT_EQ(ask("before.test").ips, Strings{"192.0.2.1"});
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {  // the exit status says which step failed
        const auto hit = Lookup::resolve("before.test", 1, 0.0);
        const bool fromMemory = std::get<0>(traces.calls().back().arguments).source == Source::Memory;
        const auto fresh = Lookup::resolve("child.test", 1, 10.0);
        _exit(hit.ips != Strings{"192.0.2.1"} || !fromMemory ? 10 : fresh.ips != Strings{"192.0.2.2"} ? 11 : 0);
    }
    EXPECT_EQ(ask("parent.test").ips, Strings{"192.0.2.3"});
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), 0);
    EXPECT_EQ(ask("child.test").ips, Strings{"192.0.2.2"});
}

// Lookups, cache clears, setting changes and network changes from eight threads while a ninth
// installs and removes trace observers: every lookup is answered exactly once, with the
// addresses of one of the names asked (the resolver keeps one pending domain, last writer
// wins, so a lookup may get another thread's name but never a mixture), and every trace
// that arrives is whole.
TEST_F(PublicManager, EightThreadsOfLookupsSettingsAndNetworkChanges) {
    const Strings hosts{"a.test", "b.test", "c.test", "d.test"};
    std::vector<Strings> zone;
    for (size_t i = 0; i < hosts.size(); ++i) {
        zone.push_back({"192.0.2." + std::to_string(i + 1), "2001:db8::" + std::to_string(i + 1)});
        service.setAddresses(hosts[i], zone.back());
    }
    login();
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<Answers> recorders;  // guarded by mutex
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int action; !stop.load();) {
                if ((action = static_cast<int>(random() % 16)) == 0 && t == 0) {
                    dns().cleanAllCache();
                } else if (action == 0 && t == 1) {
                    dns().enableCacheIP(random() % 2);
                    dns().setDegradeHosts(random() % 2 ? Ips(Strings{"d.test"}) : std::nullopt);
                } else if (action == 0 && t == 2) {
                    network.setFlags(random() % 4 ? kWiFi : 0);
                    network.fire();
                } else {  // one lookup in flight per thread keeps the service's backlog short
                    Answers recorder;
                    dns().getIPByDomain(hosts[random() % hosts.size()], 1 + random() % 2, recorder.callback());
                    recorder.waitFor(1, std::chrono::seconds(20));
                    std::lock_guard<std::mutex> lock(mutex);
                    recorders.push_back(recorder);
                }
            }
        });
    }
    for (int round = 0; round < 400; ++round) {
        round % 2 ? QelDNSTraceObserver::remove() : QelDNSTraceObserver::install(traces.callback());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop.store(true);
    for (auto& thread : threads) thread.join();
    // Any second call of an answered lookup was queued on the platform thread before this
    // answer, so it has been made by the time this one arrives.
    QelDNSTraceObserver::remove();
    network.setFlags(kWiFi);
    dns().enableCacheIP(false);
    Answers last;
    dns().getIPV4ByDomain("a.test", last.callback());
    ASSERT_TRUE(last.waitFor(1));
    for (const auto& recorder : recorders) {
        ASSERT_EQ(recorder.count(), 1u);
        const Ips ips = std::get<1>(recorder.calls()[0].arguments);
        EXPECT_TRUE(!ips || std::find(zone.begin(), zone.end(), *ips) != zone.end()) << ips->front();
    }
    EXPECT_GT(recorders.size(), 0u);
    EXPECT_GT(traces.count(), 0u);
    for (const auto& call : traces.calls()) {
        const QelDNSLookupTrace& trace = std::get<0>(call.arguments);
        const bool fromService = trace.source == Source::Service;
        EXPECT_EQ(fromService, trace.attempts > 0);
        EXPECT_EQ(fromService, !trace.nodes.empty());
        EXPECT_EQ(call.onPlatformThread, fromService);
    }
    EXPECT_EQ(service.badSignatures(), 0u);
}

// ---------------------------------------------------------------- the blocking lookup

TEST_F(PublicManager, BlockingLookupAnswersWithTheServicesAddressesAndTheManagersRefusals) {
    service.setAddresses("a.test", {"192.0.2.1", "192.0.2.2"});
    login();
    const Lookup::Result answer = Lookup::resolve("a.test", 1, 10.0);
    ASSERT_TRUE(answer.ok()) << answer.error->localizedDescription();
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));

    const Lookup::Result malformed = Lookup::resolve("not a domain", 1, 10.0);
    EXPECT_EQ(codeOf(malformed), 1);
    EXPECT_EQ(malformed.error->localizedDescription(), "域名格式错误");
    EXPECT_TRUE(malformed.ips.empty());
    // No address for the name: the resolver's own failure, not a timeout.
    EXPECT_EQ(codeOf(Lookup::resolve("unknown.test", 1, 10.0)), -1);
}

TEST_F(PublicManager, TheCInterfaceHandsOutOnlyAddressesOfTheFamilyAskedFor) {
    login();
    service.setAddresses("b.test", {"192.0.2.5", "not-an-ip", "2001:db8::5", "192.0.2.6,6.6.6.6", std::string("192.0.2.7\0", 10),
                                    "::ffff:192.0.2.8"});
    service.setAddresses("c.test", {"<script>", "192.0.2.9\nc.test 6.6.6.6"});
    const double nan = std::nan("");
    const struct {
        const char* domain;
        int type;
        double timeout;
        int64_t code;
        Strings ips;
    } cases[] = {
        {"b.test", QEL_HTTPDNS_IPV4, 10.0, 0, {"192.0.2.5"}},
        {"b.test", QEL_HTTPDNS_IPV6, 10.0, 0, {"2001:db8::5", "::ffff:192.0.2.8"}},
        {"c.test", QEL_HTTPDNS_IPV4, 10.0, -20003, {}},  // nothing left: as an empty answer
        {"b.test", 3, 10.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", 0, 10.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", QEL_HTTPDNS_IPV4, -1.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", QEL_HTTPDNS_IPV4, nan, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.domain) + " type " + std::to_string(c.type) + " timeout " + std::to_string(c.timeout));
        std::unique_ptr<qel_httpdns_result, void (*)(qel_httpdns_result*)> result(
            qel_httpdns_resolve(c.domain, c.type, c.timeout), qel_httpdns_result_free);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->error ? result->error->code : 0, c.code);
        EXPECT_EQ(Strings(result->ips, result->ips + result->ip_count), c.ips);
    }
}

TEST_F(PublicManager, BlockingLookupBeforeTheFirstLoginReplyWaitsForItWithinTheDeadline) {
    service.setAddresses("a.test", {"192.0.2.1", "192.0.2.2"});
    // Never registered: the manager drops the lookup, so only the deadline ends it.
    const Lookup::Result silent = Lookup::resolve("a.test", 1, 0.2);
    EXPECT_EQ(codeOf(silent), Lookup::kTimedOutCode);
    EXPECT_EQ(silent.error->localizedDescription(), "timed out");
    EXPECT_EQ(silent.error->domain(), "com.qel.httpdnssdk");

    // Degraded hosts are refused even then, at once.
    dns().setDegradeHosts(Strings{"legacy.test"});
    EXPECT_EQ(codeOf(Lookup::resolve("legacy.test", 1, 0.0)), 2);

    // Asked while the login is on its way, answered once its reply is in.
    auto waiting = std::async(std::launch::async, [] { return Lookup::resolve("a.test", 1, 20.0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    login();
    const Lookup::Result answer = waiting.get();
    ASSERT_TRUE(answer.ok()) << answer.error->localizedDescription();
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));
}

}  // namespace

// Stale answers while one request renews them, until too old; answers kept per network.
TEST_F(PublicManager, TheCacheProfileGivesStaleAnswersWhileRenewingAndKeepsAnswersPerNetwork) {
    qel::test::FakeClock clock(qel::platform::Clock::currentTime());
    const double start = clock.now();
    service.setAddresses("a.test", {"192.0.2.1"}, 60);
    dns().enableCacheIP(true);
    QelDNSCacheProfile::enable({0, 0, 30, true});
    network.setNetwork("wlan0 via 10.0.0.1");
    login();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(ask("a.test").trace.source, Source::Service);  // then keyed "_v4"
    struct Step {
        double at;
        const char* network;
        std::vector<ResolutionService::Behaviour> resolves;
        Source source;
        const char* ip;
        size_t resolved;  // requests the service has had once the step settles
        const char* kept;  // and the address the cache then keeps for the network
    } steps[] = {
        {70, "wlan0 via 10.0.0.1", {ResolutionService::status(500)}, Source::Memory, "192.0.2.1", 3, "192.0.2.1"},  // stale, renewal fails
        {70.5, "wlan0 via 10.0.0.1", {}, Source::Memory, "192.0.2.1", 3, "192.0.2.1"},  // paused after the failure
        {72, "wlan0 via 10.0.0.1", {}, Source::Memory, "192.0.2.1", 4, "192.0.2.2"},    // renewed
        {73, "wlan0 via 10.0.0.1", {}, Source::Memory, "192.0.2.2", 4, "192.0.2.2"},
        {74, "eth0 via 10.1.0.1", {}, Source::Service, "192.0.2.2", 5, "192.0.2.2"},  // another network: its own entry
        {75, "wlan0 via 10.0.0.1", {}, Source::Memory, "192.0.2.2", 5, "192.0.2.2"},  // and back
        {200, "wlan0 via 10.0.0.1", {}, Source::Service, "192.0.2.3", 6, "192.0.2.3"},  // too stale: asked again
    };
    int step = 0;
    for (const Step& s : steps) {
        SCOPED_TRACE(step++);
        clock.set(start + s.at);
        network.setNetwork(s.network);
        service.scriptResolves(s.resolves);
        service.setAddresses("a.test", {step < 7 ? "192.0.2.2" : "192.0.2.3"}, 60);
        const Answer answer = ask("a.test");
        EXPECT_EQ(answer.trace.source, s.source);
        EXPECT_EQ(answer.ips, Strings{s.ip});
        // Asked again while a failed renewal may still be under way.
        EXPECT_TRUE(eventually([&] {
            if (service.resolvedHosts().size() != s.resolved) ask("a.test");
            return service.resolvedHosts().size() == s.resolved;
        }));
        EXPECT_TRUE(eventually([&] {
            const auto records = QelDNSCacheManager::shared().getIPsWithDomain("a.test_v4@" + std::string(s.network), true);
            return records && records->at(0)->ip() == s.kept;
        }));
    }
    QelDNSCacheProfile::disable();
}
