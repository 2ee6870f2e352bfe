#include <gtest/gtest.h>

#include <utility>

#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"
#include "support/FakeReachability.h"

using qel::test::FakeReachabilityFactory;
namespace flags = qel::platform::ReachabilityFlags;

// Applications store and compare the raw numbers.
static_assert(QelDNSNetworkStatusNotReachable == 0 && QelDNSNetworkStatusWiFi == 1 &&
              QelDNSNetworkStatusWWAN == 2);

TEST(QelDNSReachability, FlagSetsMapToStatusesInTheOriginalTestOrder) {
    FakeReachabilityFactory fake(0);
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability);
    const std::pair<uint32_t, QelDNSNetworkStatus> cases[] = {
        {0x0, QelDNSNetworkStatusNotReachable},
        {0x2, QelDNSNetworkStatusWiFi},
        {0x40002, QelDNSNetworkStatusWWAN},
        {0x40000, QelDNSNetworkStatusNotReachable},  // cellular but not reachable
        {0x40006, QelDNSNetworkStatusWWAN},          // cellular wins over connection required
        {0x4001E, QelDNSNetworkStatusWWAN},          // ... and over intervention required
        {0x6, QelDNSNetworkStatusNotReachable},      // connection required, nothing brings it up
        {0xE, QelDNSNetworkStatusWiFi},              // comes up on traffic
        {0x26, QelDNSNetworkStatusWiFi},             // comes up on demand
        {0x1E, QelDNSNetworkStatusNotReachable},     // on traffic, but needs the user
        {0x36, QelDNSNetworkStatusNotReachable},     // on demand, but needs the user
        {0x12, QelDNSNetworkStatusWiFi},             // intervention without connection required
        {0x30003, QelDNSNetworkStatusWiFi},          // local, direct and transient are ignored
        {0xFFFBFFFD, QelDNSNetworkStatusNotReachable},  // everything but Reachable
    };
    for (const auto& [flagSet, status] : cases) {
        EXPECT_EQ(reachability->networkStatusForFlags(flagSet), status) << std::hex << flagSet;
    }
}

TEST(QelDNSReachability, StatusAndConnectionRequiredReadTheFlagsAfresh) {
    FakeReachabilityFactory fake(flags::Reachable);
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    EXPECT_FALSE(reachability->connectionRequired());
    fake.setFlags(flags::Reachable | flags::IsWWAN | flags::ConnectionRequired);
    EXPECT_TRUE(reachability->connectionRequired());
    EXPECT_EQ(reachability->currentReachabilityStatus(), QelDNSNetworkStatusWWAN);
}
