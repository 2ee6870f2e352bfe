// The network manager and its reachability on a fake platform source (reports run on the
// firing thread); the kernel's side is in netlink_reachability_test.
#include <gtest/gtest.h>

#include <vector>

#include "QelHttpDnsSDK/Log/QelDNSLog.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Reachability/QelDNSNetworkManager.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"

using qel::platform::UIApplicationWillEnterForegroundNotification;
using Statuses = std::vector<QelDNSNetworkStatus>;
namespace flags = qel::platform::ReachabilityFlags;

namespace {

constexpr uint32_t kWiFi = flags::Reachable;
constexpr uint32_t kCellular = flags::Reachable | flags::IsWWAN;

}  // namespace

TEST(QelDNSReachability, FlagSetsMapToStatuses) {
    qel::test::FakeReachabilityFactory fake(0);
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability);
    const std::pair<uint32_t, QelDNSNetworkStatus> cases[] = {
        {0x0, QelDNSNetworkStatusNotReachable},  {0x2, QelDNSNetworkStatusWiFi},
        {0x40002, QelDNSNetworkStatusWWAN},      {0x40000, QelDNSNetworkStatusNotReachable},
        {0x4001E, QelDNSNetworkStatusWWAN},       // cellular wins over what a connection needs
        {0x6, QelDNSNetworkStatusNotReachable},   // connection required, nothing brings it up
        {0xE, QelDNSNetworkStatusWiFi},           // comes up on traffic
        {0x26, QelDNSNetworkStatusWiFi},          // comes up on demand
        {0x36, QelDNSNetworkStatusNotReachable},  // on demand, but needs the user
    };
    for (const auto& [flagSet, status] : cases) {
        EXPECT_EQ(reachability->networkStatusForFlags(flagSet), status) << std::hex << flagSet;
    }
    fake.setFlags(kCellular | flags::ConnectionRequired);  // read afresh on each call
    EXPECT_TRUE(reachability->connectionRequired());
    EXPECT_EQ(reachability->currentReachabilityStatus(), QelDNSNetworkStatusWWAN);
}

// Only a change reaches the block; each report logs the new status and the last one. A block
// may drop the last owner of its own manager, whose notifier then stops.
TEST(NetworkManager, EachChangeReachesTheBlockOnceUntilTheManagerIsGone) {
    qel::test::CapturingConsole console;
    QelDNSLog::enable();
    qel::test::FakeReachabilityFactory fake{kWiFi};
    std::shared_ptr<QelDNSNetworkManager> manager = QelDNSNetworkManager::create();
    Statuses seen;
    manager->setNetworkStatusChangedBlock([&](QelDNSNetworkStatus status) { seen.push_back(status); });
    const auto report = [&](uint32_t flagSet) {
        fake.setFlags(flagSet);
        return fake.fire();
    };
    for (uint32_t flagSet : {kCellular, kCellular, 0u, kWiFi}) ASSERT_TRUE(report(flagSet));
    EXPECT_EQ(console.lines().back(), "Network changed status: WIFI, lastNetwork status: 网络不可用");
    manager->setNetworkStatusChangedBlock([&](QelDNSNetworkStatus status) {
        seen.push_back(status);
        manager.reset();
    });
    ASSERT_TRUE(report(kCellular));
    fake.setFlags(0);
    fake.fire(/*evenUnscheduled=*/true);  // a report already under way
    for (const char* name : {kQelDNSReachabilityChangedNotification, UIApplicationWillEnterForegroundNotification}) {
        qel::platform::NotificationCenter::defaultCenter().post(name);
    }
    EXPECT_EQ(seen, (Statuses{QelDNSNetworkStatusWWAN, QelDNSNetworkStatusNotReachable, QelDNSNetworkStatusWiFi,
                              QelDNSNetworkStatusWWAN}));
    EXPECT_FALSE(fake.fire()) << "the notifier stopped with the manager";
    fake.failCreation = true;
    EXPECT_FALSE(QelDNSNetworkManager::create()->networkAvailable());
}
