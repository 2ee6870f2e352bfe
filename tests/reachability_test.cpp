#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Reachability/QelDNSReachability.h"
#include "support/FakeReachability.h"

using qel::platform::Notification;
using qel::platform::NotificationCenter;
using qel::test::FakeReachabilityFactory;

static_assert(std::is_same_v<std::underlying_type_t<QelDNSNetworkStatus>, int64_t>);
static_assert(QelDNSNetworkStatusNotReachable == 0 && QelDNSNetworkStatusWiFi == 1 &&
              QelDNSNetworkStatusWWAN == 2);

TEST(QelDNSReachability, FlagSetsMapToStatusesInTheOriginalTestOrder) {
    FakeReachabilityFactory fake;
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    ASSERT_TRUE(reachability);
    const std::vector<std::pair<uint32_t, QelDNSNetworkStatus>> cases = {
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
    for (const auto& [flags, status] : cases) {
        EXPECT_EQ(reachability->networkStatusForFlags(flags), status) << std::hex << flags;
    }
}

TEST(QelDNSReachability, ExportedNamesAreTheirOwnText) {
    EXPECT_STREQ(kQelDNSReachabilityChangedNotification, "kQelDNSReachabilityChangedNotification");
    EXPECT_STREQ(kQelDNSInternetConnection, "kQelDNSInternetConnection");
    EXPECT_STREQ(kQelDNSLocalWiFiConnection, "kQelDNSLocalWiFiConnection");
}

TEST(QelDNSReachability, FactoriesPassTheirTargetToThePlatformAndReturnNothingOnFailure) {
    FakeReachabilityFactory fake;
    ASSERT_TRUE(QelDNSReachability::reachabilityWithHostName("api.example.com"));
    EXPECT_EQ(fake.last()->hostName, "api.example.com");

    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(53);
    inet_pton(AF_INET6, "2001:db8::5", &v6.sin6_addr);
    ASSERT_TRUE(QelDNSReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&v6)));
    ASSERT_TRUE(fake.last()->address);
    EXPECT_EQ(std::memcmp(&*fake.last()->address, &v6, sizeof v6), 0);

    // The internet as a whole is the IPv4 address 0.0.0.0, port 0.
    ASSERT_TRUE(QelDNSReachability::reachabilityForInternetConnection());
    ASSERT_TRUE(fake.last()->address);
    const auto& internet = reinterpret_cast<const sockaddr_in&>(*fake.last()->address);
    EXPECT_EQ(internet.sin_family, AF_INET);
    EXPECT_EQ(internet.sin_port, 0);
    EXPECT_EQ(internet.sin_addr.s_addr, INADDR_ANY);

    fake.failCreation(true);
    EXPECT_FALSE(QelDNSReachability::reachabilityWithHostName("api.example.com"));
    EXPECT_FALSE(QelDNSReachability::reachabilityWithAddress(reinterpret_cast<sockaddr*>(&v6)));
    EXPECT_FALSE(QelDNSReachability::reachabilityForInternetConnection());
}

TEST(QelDNSReachability, StatusAndConnectionRequiredReadTheFlagsAfreshAndTreatAFailedReadAsNone) {
    FakeReachabilityFactory fake(0x2);
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    auto target = fake.last();
    EXPECT_EQ(reachability->currentReachabilityStatus(), QelDNSNetworkStatusWiFi);
    EXPECT_FALSE(reachability->connectionRequired());

    target->setFlags(0x40006);
    EXPECT_EQ(reachability->currentReachabilityStatus(), QelDNSNetworkStatusWWAN);
    EXPECT_TRUE(reachability->connectionRequired());

    target->setFlags(0x40006, /*readable=*/false);
    EXPECT_EQ(reachability->currentReachabilityStatus(), QelDNSNetworkStatusNotReachable);
    EXPECT_FALSE(reachability->connectionRequired());
}

TEST(QelDNSReachability, NotifierPostsItselfOnTheReportingThreadUntilStoppedOrGone) {
    FakeReachabilityFactory fake(0x2);
    auto reachability = QelDNSReachability::reachabilityForInternetConnection();
    auto target = fake.last();

    std::vector<std::shared_ptr<QelDNSReachability>> objects;
    std::vector<std::thread::id> threads;
    NotificationCenter::defaultCenter().addObserver(
        kQelDNSReachabilityChangedNotification, [&](const Notification& notification) {
            objects.push_back(std::any_cast<std::shared_ptr<QelDNSReachability>>(notification.object));
            threads.push_back(std::this_thread::get_id());
        });

    EXPECT_FALSE(target->fire()) << "nothing is scheduled before startNotifier";
    ASSERT_TRUE(reachability->startNotifier());
    std::thread reporter([&] { EXPECT_TRUE(target->fire()); });
    const std::thread::id reporterId = reporter.get_id();
    reporter.join();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0], reachability);
    EXPECT_EQ(threads[0], reporterId);

    reachability->stopNotifier();
    EXPECT_FALSE(target->fire());
    ASSERT_TRUE(reachability->startNotifier());
    EXPECT_TRUE(target->fire());
    EXPECT_EQ(objects.size(), 2u);
    objects.clear();

    // Teardown unschedules, and a report already on its way finds nothing to post about.
    reachability.reset();
    EXPECT_FALSE(target->scheduled());
    target->invokeCallback();
    EXPECT_TRUE(objects.empty());
}
