#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"

using qel::platform::NotificationCenter;
using qel::platform::UIApplicationDidEnterBackgroundNotification;
using qel::platform::UIApplicationWillEnterForegroundNotification;
using qel::test::CapturingConsole;
using qel::test::FakeReachabilityFactory;

namespace {

constexpr uint32_t kWiFi = 0x2;
constexpr uint32_t kCellular = 0x40002;

void post(const char* name) { NotificationCenter::defaultCenter().post(name); }

// Statuses the change block received, in order. Fake reports run on the firing thread.
struct BlockRecord {
    std::vector<QelDNSNetworkStatus> statuses;
    QelDNSNetworkManager::NetworkStatusChangedBlock block() {
        return [this](QelDNSNetworkStatus status) { statuses.push_back(status); };
    }
    const std::vector<QelDNSNetworkStatus>& seen() const { return statuses; }
};

}  // namespace

TEST(QelDNSNetworkManager, MonitorsFromCreationAndAnswersFromFreshReads) {
    FakeReachabilityFactory fake(kWiFi);
    auto manager = QelDNSNetworkManager::create();
    auto target = fake.last();
    ASSERT_TRUE(target);
    EXPECT_TRUE(target->scheduled());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_TRUE(manager->networkAvailable());

    // No report: availability and status still follow the platform, lastNetworkStatus does not.
    target->setFlags(kCellular);
    EXPECT_EQ(manager->networkStatus(), QelDNSNetworkStatusWWAN);
    target->setFlags(0);
    EXPECT_FALSE(manager->networkAvailable());
    EXPECT_EQ(manager->networkStatus(), QelDNSNetworkStatusNotReachable);
    target->setFlags(kWiFi, /*readable=*/false);
    EXPECT_FALSE(manager->networkAvailable());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWiFi);

    // Without a reachability nothing is available, and the life cycle does nothing.
    fake.failCreation(true);
    auto bare = QelDNSNetworkManager::create();
    EXPECT_FALSE(bare->reachability());
    EXPECT_FALSE(bare->networkAvailable());
    EXPECT_EQ(bare->networkStatus(), QelDNSNetworkStatusNotReachable);
    post(UIApplicationDidEnterBackgroundNotification);
    post(UIApplicationWillEnterForegroundNotification);
}

TEST(QelDNSNetworkManager, ChangeHandlerCallsTheBlockOnlyOnAChangeAndAlwaysStoresTheStatus) {
    FakeReachabilityFactory fake(kWiFi);
    auto manager = QelDNSNetworkManager::create();
    auto target = fake.last();
    CapturingConsole console;
    QelDNSLog::enable();

    // Without a block a change is only stored (and logged).
    target->setFlags(0);
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusNotReachable);
    target->setFlags(kWiFi);
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWiFi);

    BlockRecord record;
    manager->setNetworkStatusChangedBlock(record.block());
    console.clear();
    target->setFlags(kCellular);
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(record.seen(), std::vector<QelDNSNetworkStatus>{QelDNSNetworkStatusWWAN});
    EXPECT_EQ(console.lines(), std::vector<std::string>{
                                   "Network changed status: 蜂窝网络, lastNetwork status: WIFI"});
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWWAN);

    // Same status again: logged, stored, no block.
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(record.seen().size(), 1u);
    EXPECT_EQ(console.lines().back(), "Network changed status: 蜂窝网络, lastNetwork status: 蜂窝网络");

    // With the log off the block still runs and nothing is printed.
    QelDNSLog::disable();
    console.clear();
    target->setFlags(0);
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(record.seen().back(), QelDNSNetworkStatusNotReachable);
    EXPECT_TRUE(console.lines().empty());

    EXPECT_EQ(manager->networkStatusDesc(static_cast<QelDNSNetworkStatus>(3)), "Unkonwn");
    EXPECT_EQ(manager->networkStatusDesc(static_cast<QelDNSNetworkStatus>(-1)), "Unkonwn");

    // A notification without a reachability object reads as not reachable.
    manager->setLastNetworkStatus(QelDNSNetworkStatusWiFi);
    post(kQelDNSReachabilityChangedNotification);
    EXPECT_EQ(record.seen().back(), QelDNSNetworkStatusNotReachable);
    EXPECT_EQ(record.seen().size(), 3u);
}

TEST(QelDNSNetworkManager, BackgroundStopsReportsUntilForegroundWithoutRefreshingTheLastStatus) {
    FakeReachabilityFactory fake(kWiFi);
    auto manager = QelDNSNetworkManager::create();
    auto target = fake.last();
    BlockRecord record;
    manager->setNetworkStatusChangedBlock(record.block());
    CapturingConsole console;
    QelDNSLog::enable();

    post(UIApplicationDidEnterBackgroundNotification);
    EXPECT_FALSE(target->scheduled());
    target->setFlags(kCellular);
    EXPECT_FALSE(target->fire());
    EXPECT_TRUE(manager->networkAvailable()) << "answers still come from fresh reads";

    post(UIApplicationWillEnterForegroundNotification);
    EXPECT_TRUE(target->scheduled());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_TRUE(record.seen().empty());
    EXPECT_EQ(console.lines(), (std::vector<std::string>{"App did enter background, stopNotifier",
                                                         "App did enter foreground, startNotifier"}));

    // The next report compares with the status from before the background.
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(record.seen(), std::vector<QelDNSNetworkStatus>{QelDNSNetworkStatusWWAN});
}

TEST(QelDNSNetworkManager, StartMonitorMakesOneSharedManagerWithOneSetOfObservers) {
    FakeReachabilityFactory fake(kWiFi);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
        callers.emplace_back([] {
            for (int j = 0; j < 10; ++j) QelDNSNetworkManager::startMonitor();
        });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(fake.made(), 1u);
    EXPECT_EQ(&QelDNSNetworkManager::shared(), &QelDNSNetworkManager::shared());

    BlockRecord record;
    QelDNSNetworkManager::shared().setNetworkStatusChangedBlock(record.block());
    fake.last()->setFlags(0);
    ASSERT_TRUE(fake.last()->fire());
    EXPECT_EQ(record.seen().size(), 1u);
}

TEST(QelDNSNetworkManager, ADestroyedManagerStopsItsNotifierAndLeavesNothingBehind) {
    FakeReachabilityFactory fake(kWiFi);
    auto manager = QelDNSNetworkManager::create();
    auto target = fake.last();
    BlockRecord record;
    manager->setNetworkStatusChangedBlock(record.block());
    manager.reset();
    EXPECT_FALSE(target->scheduled());

    target->setFlags(0);
    target->invokeCallback();  // a report already under way
    post(kQelDNSReachabilityChangedNotification);
    post(UIApplicationDidEnterBackgroundNotification);
    post(UIApplicationWillEnterForegroundNotification);
    EXPECT_TRUE(record.seen().empty());
    EXPECT_FALSE(target->scheduled());

    // A block may drop the last owner of its own manager.
    auto second = QelDNSNetworkManager::create();
    auto secondTarget = fake.last();
    second->setNetworkStatusChangedBlock([&second](QelDNSNetworkStatus) { second.reset(); });
    secondTarget->setFlags(kCellular);
    ASSERT_TRUE(secondTarget->fire());
    EXPECT_FALSE(second);
    EXPECT_FALSE(secondTarget->scheduled());
}

TEST(QelDNSNetworkManager, ReportsLifeCycleAndReadersOnManyThreadsAtOnce) {
    FakeReachabilityFactory fake(kWiFi);
    auto manager = QelDNSNetworkManager::create();
    auto target = fake.last();
    std::atomic<int> blockCalls{0};
    std::atomic<bool> stop{false};

    std::thread reporter([&] {
        for (int i = 0; i < 2000; ++i) {
            target->setFlags(i % 3 == 0 ? 0 : (i % 3 == 1 ? kWiFi : kCellular));
            target->fire();
        }
    });
    std::thread lifeCycle([&] {
        while (!stop) {
            post(UIApplicationDidEnterBackgroundNotification);
            post(UIApplicationWillEnterForegroundNotification);
        }
    });
    std::thread reader([&] {
        int i = 0;
        while (!stop) {
            (void)manager->networkAvailable();
            (void)manager->networkStatus();
            if (++i % 100 == 0) {
                manager->setNetworkStatusChangedBlock([&](QelDNSNetworkStatus) { ++blockCalls; });
            }
        }
    });
    reporter.join();
    stop = true;
    lifeCycle.join();
    reader.join();

    // Quiet again: one more report settles lastNetworkStatus on the platform's answer.
    post(UIApplicationWillEnterForegroundNotification);
    target->setFlags(kCellular);
    ASSERT_TRUE(target->fire());
    EXPECT_EQ(manager->lastNetworkStatus(), QelDNSNetworkStatusWWAN);
}
