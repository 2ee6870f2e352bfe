// Names outside the zone, resolved through a real DNS server: dnsmasq on a high loopback
// port, answering fixed records with a TTL the test chooses.
#include <gtest/gtest.h>

#include "ServerTestSupport.h"
#include "Upstream.h"

using namespace qel::server;
using namespace qel::server::test;

namespace {

constexpr int kTtl = 321;

class UpstreamTest : public testing::Test {
protected:
    void SetUp() override {
        if (dnsmasqPath().empty()) {
            GTEST_SKIP() << "dnsmasq is not installed (Debian package dnsmasq-base; "
                            "scripts/setup.sh installs it)";
        }
        ASSERT_TRUE(dns.running()) << "dnsmasq did not start: " << dns.errors();
    }

    Dnsmasq dns{{"up.example.test,192.0.2.7,2001:db8::7", "two.example.test,192.0.2.8",
                 "two.example.test,192.0.2.9", "zoned.example.test,192.0.2.99"},
                kTtl};
};

}  // namespace

TEST_F(UpstreamTest, AnswersCarryTheAddressesAndTheTtlOfTheDnsAnswer) {
    Upstream upstream({"127.0.0.1", dns.port()}, 2000);
    const auto v4 = upstream.resolve("up.example.test", AddressType::V4);
    ASSERT_EQ(v4.kind, Upstream::Result::Answer) << v4.error;
    EXPECT_EQ(v4.addresses.addresses, std::vector<std::string>{"192.0.2.7"});
    EXPECT_EQ(v4.addresses.ttl, kTtl);

    const auto v6 = upstream.resolve("up.example.test", AddressType::V6);
    ASSERT_EQ(v6.kind, Upstream::Result::Answer) << v6.error;
    EXPECT_EQ(v6.addresses.addresses, std::vector<std::string>{"2001:db8::7"});

    auto two = upstream.resolve("two.example.test", AddressType::V4).addresses.addresses;
    std::sort(two.begin(), two.end());
    EXPECT_EQ(two, (std::vector<std::string>{"192.0.2.8", "192.0.2.9"}));

    // No such name, and a name without records of the type asked.
    EXPECT_EQ(upstream.resolve("none.example.test", AddressType::V4).kind, Upstream::Result::NoAddress);
    EXPECT_EQ(upstream.resolve("two.example.test", AddressType::V6).kind, Upstream::Result::NoAddress);
}

TEST_F(UpstreamTest, TheServiceAsksUpstreamOnlyForNamesOutsideTheZone) {
    LocalService local("zoned.example.test 60 A 198.51.100.5\n");
    local.service().setUpstream(std::make_unique<Upstream>(Endpoint{"127.0.0.1", dns.port()}, 2000));
    const auto ask = [&](const std::string& host, int type) {
        return local.get(sdkResolve(kAuthId, kSecret, host, type, nowMilliseconds())).body;
    };
    EXPECT_EQ(ask("up.example.test", 1), R"({"host":"up.example.test","ip_list":["192.0.2.7"],"ttl":321})");
    EXPECT_EQ(ask("Up.Example.Test", 2), R"({"host":"Up.Example.Test","ip_list":["2001:db8::7"],"ttl":321})");
    EXPECT_EQ(ask("none.example.test", 1), R"({"host":"none.example.test","ip_list":[],"ttl":0})");
    // The zone holds the name: its answer stands, even for a type it has no address of.
    EXPECT_EQ(ask("zoned.example.test", 1), R"({"host":"zoned.example.test","ip_list":["198.51.100.5"],"ttl":60})");
    EXPECT_EQ(ask("zoned.example.test", 2), R"({"host":"zoned.example.test","ip_list":[],"ttl":0})");
    EXPECT_NE(local.log().find("host=up.example.test type=1 source=upstream addresses=1 ttl=321"),
              std::string::npos);
}

TEST(UpstreamDown, AnUnansweredLookupIsAFailureNamingTheServer) {
    // Nothing listens on this UDP port: the query is refused or times out.
    const int port = freePort(SOCK_DGRAM);
    LocalService local;
    local.service().setUpstream(std::make_unique<Upstream>(Endpoint{"127.0.0.1", port}, 300));
    const auto answer = local.get(sdkResolve(kAuthId, kSecret, "up.example.test", 1, nowMilliseconds()));
    EXPECT_EQ(answer.status, 502);
    EXPECT_EQ(answer.field("status"), "502");
    EXPECT_EQ(answer.field("message").rfind("upstream DNS server 127.0.0.1:" + std::to_string(port) + " failed: ", 0),
              0u) << answer.body;
}
