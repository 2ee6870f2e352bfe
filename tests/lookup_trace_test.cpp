// Per-lookup traces as an application meets them: an observer installed through the public
// API, lookups against a signature-checking resolution service on loopback.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"
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
using Source = QelDNSLookupTrace::Source;
using Traces = qel::test::CallRecorder<QelDNSLookupTrace>;

namespace {

constexpr char kId[] = "acct-7";
constexpr char kSecret[] = "s3cr3t";
constexpr char kApp[] = "com.example.app";
constexpr char kDeadNode[] = "http://127.0.0.1:1";  // nothing listens: connection refused
constexpr uint32_t kWiFi = qel::platform::ReachabilityFlags::Reachable;

// Registers and waits for the login reply to set `status` (and, on success, the node).
bool loggedIn(QelHttpDnsManager& dns, ResolutionService& service, const std::string& secret,
              int64_t status = 4) {
    dns.customServerUrl(service.baseUrl());
    dns.registerAuthId(std::string(kId), secret);
    for (int i = 0; i < 2000; ++i) {
        if (dns.initStatus() == status &&
            (status != 4 || QelHttpDnsCenterManager::shared().resolveUrl() == service.bestNode())) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

class LookupTrace : public testing::Test {
protected:
    LookupTrace() {
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        QelDNSTraceObserver::install(traces.callback());
    }
    ~LookupTrace() override { QelDNSTraceObserver::remove(); }

    QelHttpDnsManager& dns() { return QelHttpDnsManager::shared(); }
    void login(const std::string& secret = kSecret, int64_t status = 4) {
        ASSERT_TRUE(loggedIn(dns(), service, secret, status));
    }

    // Looks up, waits for the answer, and returns the one trace it made; checks that the
    // trace was delivered before the callback ran.
    QelDNSLookupTrace traced(const std::optional<std::string>& domain, int64_t type = 1) {
        const size_t before = traces.count();
        size_t tracesAtCallback = 0;
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> answer;
        auto callback = answer.callback();
        dns().getIPByDomain(domain, type, [&, callback](std::optional<QelDNSError> e, Ips ips) {
            tracesAtCallback = traces.count();
            callback(std::move(e), std::move(ips));
        });
        EXPECT_TRUE(answer.waitFor(1));
        EXPECT_EQ(tracesAtCallback, before + 1);
        EXPECT_EQ(traces.count(), before + 1);
        return std::get<0>(traces.calls().back().arguments);
    }
    bool lastTraceOnPlatformThread() const { return traces.calls().back().onPlatformThread; }

    qel::test::FakeReachabilityFactory network{kWiFi};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;
    ResolutionService service{kId, kSecret, kApp};
    Traces traces;
};

TEST_F(LookupTrace, ServiceAnswerThenMemoryHitUnderTheKeyTheLookupUsed) {
    service.setAddresses("a.test", {"192.0.2.1"});
    dns().enableCacheIP(true);
    login();
    const QelDNSLookupTrace first = traced("a.test");
    EXPECT_EQ(first.source, Source::Service);
    EXPECT_EQ(first.cacheKey, "a.test_v6");  // the suffix of the previous lookup's type
    EXPECT_EQ(first.attempts, 1);
    EXPECT_EQ(first.nodes, Strings{service.baseUrl()});
    EXPECT_TRUE(lastTraceOnPlatformThread());

    EXPECT_EQ(traced("a.test").cacheKey, "a.test_v4");
    const QelDNSLookupTrace hit = traced("a.test");
    EXPECT_EQ(hit.source, Source::Memory);
    EXPECT_EQ(hit.cacheKey, "a.test_v4");
    EXPECT_FALSE(lastTraceOnPlatformThread());

    dns().enableCacheIP(false);
    EXPECT_EQ(traced("a.test").cacheKey, "");
}

// The first process fills the store; the second answers from it and says so.
TEST(LookupTraceRestart, SecondProcessReportsTheStoreAsTheSource) {
    qel::test::ScratchDirectory scratch;
    const std::string store = scratch.file("defaults.sqlite3");
    auto run = [&](Source expected) {
        qel::test::FakeReachabilityFactory network{kWiFi};
        qel::platform::MainBundle::setIdentifier(kApp);
        qel::platform::UserDefaults::setStandardPath(store);
        ResolutionService service{kId, kSecret, kApp};
        service.setAddresses("a.test", {"192.0.2.5"});
        Traces traces;
        QelDNSTraceObserver::install(traces.callback());
        auto& dns = QelHttpDnsManager::shared();
        dns.enableCacheIP(true);
        if (!loggedIn(dns, service, kSecret, 4)) return false;
        dns.getIPV4ByDomain("a.test", nullptr);  // an empty callback is traced all the same
        if (!traces.waitFor(1)) return false;
        const QelDNSLookupTrace trace = std::get<0>(traces.calls()[0].arguments);
        return trace.source == expected && trace.cacheKey == "a.test_v6" &&
               trace.attempts == (expected == Source::Service ? 1 : 0);
    };
    const pid_t child = fork();  // before any thread exists in this process
    ASSERT_GE(child, 0);
    if (child == 0) _exit(run(Source::Service) ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(run(Source::Store));
}

TEST_F(LookupTrace, RefusalsCarryTheirCodeAndTheSilentLookupIsUnanswered) {
    dns().getIPV4ByDomain("a.test", [](std::optional<QelDNSError>, Ips) { ADD_FAILURE(); });
    ASSERT_EQ(traces.count(), 1u);  // delivered before the lookup returned
    const QelDNSLookupTrace silent = std::get<0>(traces.calls()[0].arguments);
    EXPECT_EQ(silent.source, Source::Unanswered);

    login();
    dns().setDegradeHosts(Strings{"legacy.test"});
    const QelDNSLookupTrace degraded = traced("legacy.test", 2);
    EXPECT_EQ(degraded.source, Source::Refused);
    ASSERT_TRUE(degraded.error);
    EXPECT_EQ(degraded.error->code(), 2);
    EXPECT_EQ(traced("-bad.test").error->code(), 1);
    network.setFlags(0);
    EXPECT_EQ(traced("a.test").error->code(), 0);

    // An observer that throws is logged and leaves the answer alone.
    QelDNSTraceObserver::install([](const QelDNSLookupTrace&) { throw std::runtime_error("oops"); });
    int answers = 0;
    dns().getIPV4ByDomain("a.test", [&](std::optional<QelDNSError>, Ips) { ++answers; });
    EXPECT_EQ(answers, 1);
    const Strings lines = console.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "QelHttpDnsSDK: a trace observer threw: oops"), 1);
}

TEST_F(LookupTrace, LookupAfterAFailedLoginReportsTheLoginRetry) {
    login("wrong-secret", 3);
    service.scriptLogins({ResolutionService::status(500)});
    const QelDNSLookupTrace failed = traced("a.test");
    EXPECT_TRUE(failed.loginRetried);
    EXPECT_EQ(failed.source, Source::Refused);
    EXPECT_EQ(failed.error->code(), 3);
    EXPECT_TRUE(lastTraceOnPlatformThread());
}

TEST_F(LookupTrace, RetriesAndANodeSwitchAreCounted) {
    service.setAddresses("a.test", {"192.0.2.1"});
    // One switch steps three times: to the repeat of the dead node, past it, and onto ours.
    service.setNodes(kDeadNode, {kDeadNode, kDeadNode, "http://unused.test", service.baseUrl()});
    login();
    const QelDNSLookupTrace switched = traced("a.test");
    EXPECT_EQ(switched.source, Source::Service);
    EXPECT_EQ(switched.attempts, 2);
    EXPECT_EQ(switched.nodes, (Strings{kDeadNode, service.baseUrl()}));

    // The switch lifted the attempt limit: three failures, then the answer, one node.
    service.scriptResolves({ResolutionService::status(500), ResolutionService::drop(),
                            ResolutionService::status(0)});
    const QelDNSLookupTrace retried = traced("a.test");
    EXPECT_EQ(retried.attempts, 4);
    EXPECT_EQ(retried.nodes, Strings{service.baseUrl()});

    service.scriptResolves({ResolutionService::status(403, "denied")});
    EXPECT_EQ(traced("a.test").error->code(), 403);
}

TEST_F(LookupTrace, NothingIsRecordedWithoutAnObserverAndInFlightLookupsAreDropped) {
    service.setAddresses("a.test", {"192.0.2.1"});
    dns().enableCacheIP(true);
    QelDNSTraceObserver::remove();
    EXPECT_FALSE(QelDNSTraceObserver::isInstalled());
    dns().getIPV4ByDomain("a.test", nullptr);  // silent
    login();
    qel::test::CallRecorder<std::optional<QelDNSError>, Ips> answers;
    for (int i = 0; i < 3; ++i) dns().getIPV4ByDomain("a.test", answers.callback());  // service, hit
    dns().getIPV4ByDomain("-bad.test", answers.callback());
    ASSERT_TRUE(answers.waitFor(4));

    // Installed after the lookup started, or replaced while it is in flight: no trace.
    dns().setTimeout(0.3);
    service.scriptResolves({ResolutionService::stall()});
    dns().enableCacheIP(false);
    QelDNSTraceObserver::install(traces.callback());
    dns().getIPV4ByDomain("a.test", answers.callback());
    Traces replacement;
    QelDNSTraceObserver::install(replacement.callback());
    ASSERT_TRUE(answers.waitFor(5));
    EXPECT_EQ(traces.count(), 0u);
    EXPECT_EQ(replacement.count(), 0u);
}

// Lookups from four threads while a fifth installs and removes observers: every trace that
// arrives is whole.
TEST_F(LookupTrace, ObserverSwappedUnderConcurrentLookups) {
    const Strings hosts{"a.test", "b.test"};
    for (const auto& host : hosts) service.setAddresses(host, {"192.0.2.1"});
    dns().enableCacheIP(true);
    login();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (std::mt19937 random(t); !stop.load();) {
                qel::test::CallRecorder<std::optional<QelDNSError>, Ips> answer;
                dns().getIPByDomain(hosts[random() % 2], 1 + random() % 2, answer.callback());
                answer.waitFor(1);
            }
        });
    }
    for (int round = 0; round < 200; ++round) {
        round % 2 ? QelDNSTraceObserver::remove() : QelDNSTraceObserver::install(traces.callback());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop.store(true);
    for (auto& thread : threads) thread.join();
    EXPECT_GT(traces.count(), 0u);
    for (const auto& call : traces.calls()) {
        const QelDNSLookupTrace& trace = std::get<0>(call.arguments);
        const bool fromService = trace.source == Source::Service;
        EXPECT_EQ(fromService, trace.attempts > 0);
        EXPECT_EQ(fromService, !trace.nodes.empty());
        EXPECT_NE(trace.cacheKey, "");
        EXPECT_EQ(call.onPlatformThread, fromService);
    }
}

}  // namespace
