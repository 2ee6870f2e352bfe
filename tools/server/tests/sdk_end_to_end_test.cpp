// The SDK itself against the service: the public manager logs in, resolves from the zone, and
// fails over to another node when the one in use stops.
#include <gtest/gtest.h>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "ServerTestSupport.h"
#include "support/CallRecorder.h"
#include "support/FakeReachability.h"

using namespace qel::server::test;

TEST(SdkEndToEnd, LogsInResolvesFromTheZoneAndFailsOverWhenTheNodeStops) {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    TempFile defaults;
    // Characters the transport escapes and ones it leaves: the service must sign the same.
    qel::platform::MainBundle::setIdentifier(std::string("com.example.app+beta (1)"));
    qel::platform::UserDefaults::setStandardPath(defaults.directory.file("defaults.sqlite3"));
    const char zone[] = "www.example.test 60 A 192.0.2.10\nwww.example.test 60 A 192.0.2.11\n"
                        "www.example.test 60 AAAA 2001:db8::10\napi.example.test 60 A 192.0.2.20\n";
    LocalService first(zone), second(zone);
    // The SDK leaves a node that fails only for the list's fourth entry, and only when the
    // second entry repeats the node in use.
    first.service.setNodes({first.url(), first.url(), first.url(), second.url()});
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(first.url());
    dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
    ASSERT_TRUE(eventually([&] { return dns.initStatus() != 0; }));
    ASSERT_EQ(dns.initStatus(), 4) << first.log.read();

    // The error's code and text, or the addresses.
    const auto ask = [&](const std::string& domain, int64_t type) -> std::string {
        qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<std::vector<std::string>>> recorder;
        dns.getIPByDomain(domain, type, recorder.callback());
        if (!recorder.waitFor(1)) return "no answer";
        const auto [error, ips] = recorder.calls()[0].arguments;
        std::string text = error ? std::to_string(error->code()) + " " + error->localizedDescription() : "";
        for (const auto& ip : ips.value_or(std::vector<std::string>{})) text += ip + " ";
        return text;
    };
    EXPECT_EQ(ask("www.example.test", 1), "192.0.2.10 192.0.2.11 ");
    EXPECT_EQ(ask("www.example.test", 2), "2001:db8::10 ");
    // No addresses: the SDK reads the empty list as "empty data", retries, and gives up.
    EXPECT_EQ(ask("nowhere.example.test", 1), "-1 request error");
    first.listener.stop();
    EXPECT_EQ(ask("api.example.test", 1), "192.0.2.20 ");
}
