#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"

using qel::platform::UIApplicationDidEnterBackgroundNotification;
using qel::platform::UIApplicationWillEnterForegroundNotification;
using qel::test::FakeReachabilityFactory;
using Statuses = std::vector<QelDNSNetworkStatus>;
using Lines = std::vector<std::string>;
namespace flags = qel::platform::ReachabilityFlags;

namespace {

constexpr uint32_t kWiFi = flags::Reachable;
constexpr uint32_t kCellular = flags::Reachable | flags::IsWWAN;
const char* const kLifeCycle[] = {UIApplicationDidEnterBackgroundNotification,
                                  UIApplicationWillEnterForegroundNotification};

void post(const char* name) { qel::platform::NotificationCenter::defaultCenter().post(name); }

// A manager on a fake source that starts out on Wi-Fi, with a block recording what it receives
// (fake reports run on the firing thread) and the console captured.
class NetworkManager : public testing::Test {
protected:
    void SetUp() override {
        manager->setNetworkStatusChangedBlock([this](QelDNSNetworkStatus s) { seen.push_back(s); });
    }
    bool report(uint32_t flagSet) {
        fake.setFlags(flagSet);
        return fake.fire();
    }

    FakeReachabilityFactory fake{kWiFi};
    std::shared_ptr<QelDNSNetworkManager> manager = QelDNSNetworkManager::create();
    Statuses seen;
    qel::test::CapturingConsole console;
};

}  // namespace

TEST_F(NetworkManager, WithoutAReachabilityNothingIsAvailableAndTheLifeCycleDoesNothing) {
    fake.failCreation = true;
    auto bare = QelDNSNetworkManager::create();
    EXPECT_FALSE(bare->reachability());
    EXPECT_FALSE(bare->networkAvailable());
    EXPECT_EQ(bare->networkStatus(), QelDNSNetworkStatusNotReachable);
    for (const char* name : kLifeCycle) post(name);
}

TEST_F(NetworkManager, ChangeHandlerLogsWhenEnabledCallsTheBlockOnChangeAndAlwaysStores) {
    const struct {
        bool log;
        uint32_t flags;
        Statuses block;
        const char* line;
    } steps[] = {
        {true, kCellular, {QelDNSNetworkStatusWWAN},
         "Network changed status: 蜂窝网络, lastNetwork status: WIFI"},
        {true, kCellular, {}, "Network changed status: 蜂窝网络, lastNetwork status: 蜂窝网络"},
        {true, 0, {QelDNSNetworkStatusNotReachable},
         "Network changed status: 网络不可用, lastNetwork status: 蜂窝网络"},
        {false, kWiFi, {QelDNSNetworkStatusWiFi}, nullptr},
        {false, kWiFi, {}, nullptr},
    };
    for (const auto& step : steps) {
        step.log ? QelDNSLog::enable() : QelDNSLog::disable();
        console.clear();
        seen.clear();
        ASSERT_TRUE(report(step.flags));
        EXPECT_EQ(seen, step.block) << step.flags;
        EXPECT_EQ(console.lines(), step.line ? Lines{step.line} : Lines{}) << step.flags;
        EXPECT_EQ(manager->lastNetworkStatus(), manager->networkStatus()) << step.flags;
    }
    // A notification without a reachability object reads as not reachable.
    post(kQelDNSReachabilityChangedNotification);
    EXPECT_EQ(seen, (Statuses{QelDNSNetworkStatusNotReachable}));
    // Without a block a change is still stored.
    manager->setNetworkStatusChangedBlock(nullptr);
    ASSERT_TRUE(report(kCellular));
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWWAN);
    // The log lines above show the three known texts.
    EXPECT_EQ(manager->networkStatusDesc(static_cast<QelDNSNetworkStatus>(3)), "Unkonwn");
}

TEST_F(NetworkManager, BackgroundStopsReportsUntilForegroundWhileAnswersComeFromFreshReads) {
    QelDNSLog::enable();
    QelDNSApplication::didEnterBackground();
    EXPECT_FALSE(report(0));
    EXPECT_FALSE(manager->networkAvailable());
    EXPECT_EQ(manager->networkStatus(), QelDNSNetworkStatusNotReachable);
    EXPECT_FALSE(report(kCellular));
    EXPECT_TRUE(manager->networkAvailable());
    EXPECT_EQ(manager->networkStatus(), QelDNSNetworkStatusWWAN);

    QelDNSApplication::willEnterForeground();
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(console.lines(), (Lines{"App did enter background, stopNotifier",
                                      "App did enter foreground, startNotifier"}));
    // The next report compares with the status from before the background.
    ASSERT_TRUE(fake.fire());
    EXPECT_EQ(seen, Statuses{QelDNSNetworkStatusWWAN});
}

TEST_F(NetworkManager, ADestroyedManagerStopsItsNotifierAndLeavesNothingBehind) {
    // A block may drop the last owner of its own manager.
    manager->setNetworkStatusChangedBlock([this](QelDNSNetworkStatus status) {
        seen.push_back(status);
        manager.reset();
    });
    ASSERT_TRUE(report(kCellular));
    EXPECT_FALSE(manager);

    fake.setFlags(0);
    fake.fire(/*evenUnscheduled=*/true);  // a report already under way
    post(kQelDNSReachabilityChangedNotification);
    for (const char* name : kLifeCycle) post(name);
    EXPECT_EQ(seen, Statuses{QelDNSNetworkStatusWWAN});
    EXPECT_FALSE(fake.fire()) << "the notifier stopped with the manager";
}

TEST_F(NetworkManager, ReportsLifeCycleAndReadersOnManyThreadsAtOnce) {
    std::atomic<bool> stop{false};
    std::atomic<int> calls{0};
    std::thread lifeCycle([&] {
        while (!stop) for (const char* name : kLifeCycle) post(name);
    });
    std::thread reader([&] {
        for (int i = 0; !stop; ++i) {
            (void)manager->networkAvailable();
            (void)manager->networkStatus();
            if (i % 100 == 0) manager->setNetworkStatusChangedBlock([&](QelDNSNetworkStatus) { ++calls; });
        }
    });
    for (int i = 0; i < 2000; ++i) report(i % 3 == 0 ? 0 : (i % 3 == 1 ? kWiFi : kCellular));
    stop = true;
    lifeCycle.join();
    reader.join();

    // Quiet again: one more report settles lastNetworkStatus on the platform's answer.
    post(UIApplicationWillEnterForegroundNotification);
    ASSERT_TRUE(report(kCellular));
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWWAN);
}
