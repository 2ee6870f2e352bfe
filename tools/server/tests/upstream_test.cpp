// Names outside the zone, resolved through a real DNS server: dnsmasq on a high loopback
// port, answering fixed records with a TTL the test chooses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>

#include "ServerTestSupport.h"
#include "Upstream.h"

using namespace qel::server;
using namespace qel::server::test;

TEST(Upstream, TheServiceAsksTheDnsServerOnlyForNamesOutsideTheZone) {
    const std::string dnsmasq = "/usr/sbin/dnsmasq";
    if (access(dnsmasq.c_str(), X_OK) != 0) GTEST_SKIP() << "no dnsmasq (Debian package dnsmasq-base; scripts/setup.sh)";
    std::unique_ptr<ChildProcess> dns;
    std::unique_ptr<Upstream> upstream;
    const auto up = [&] { return upstream->resolve("up.example.test", AddressType::V4).kind == Upstream::Result::Answer; };
    // The port may be taken between the choice and dnsmasq's bind: then it exits, and another
    // port is tried.
    for (int attempt = 0; attempt < 5 && (!dns || dns->wait(std::chrono::milliseconds(0))); ++attempt) {
        const int port = freePort(SOCK_DGRAM);
        // Names it holds no record of are answered "no such name" (--local), not refused.
        dns = std::make_unique<ChildProcess>(
            dnsmasq, std::vector<std::string>{"--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
                                              "--bind-interfaces", "--listen-address=127.0.0.1", "--log-facility=-",
                                              "--port=" + std::to_string(port), "--local-ttl=321", "--local=/test/",
                                              "--host-record=up.example.test,192.0.2.7,2001:db8::7",
                                              "--host-record=two.example.test,192.0.2.8",
                                              "--host-record=two.example.test,192.0.2.9",
                                              "--host-record=zoned.example.test,192.0.2.99"});
        upstream = std::make_unique<Upstream>(Endpoint{"127.0.0.1", port}, 300);
        eventually([&] { return up() || dns->wait(std::chrono::milliseconds(0)); });
    }
    ASSERT_TRUE(up()) << "dnsmasq did not start: " << dns->errors();
    LocalService local("zoned.example.test 60 A 198.51.100.5\n");
    local.service.setUpstream(std::make_unique<Upstream>(upstream->server(), 2000));
    const struct {
        std::string host;
        int type;
        std::set<std::string> addresses;
        int ttl;
    } cases[] = {
        {"up.example.test", 1, {"192.0.2.7"}, 321},
        {"Up.Example.Test.", 2, {"2001:db8::7"}, 321},
        {"two.example.test", 1, {"192.0.2.8", "192.0.2.9"}, 321},
        {"two.example.test", 2, {}, 0},
        {"none.example.test", 1, {}, 0},
        // The zone holds the name: its answer stands, even for a type it has no address of.
        {"zoned.example.test", 1, {"198.51.100.5"}, 60},
        {"zoned.example.test", 2, {}, 0},
    };
    for (const auto& c : cases) {
        const auto answer = nlohmann::json::parse(local.get(sdkResolve(c.host, c.type)).body, nullptr, false);
        EXPECT_EQ(answer.value("host", ""), c.host);
        EXPECT_EQ(answer.value("ip_list", std::set<std::string>{}), c.addresses) << c.host << " " << c.type;
        EXPECT_EQ(answer.value("ttl", -1), c.ttl);
    }
    EXPECT_NE(local.log.read().find("host=up.example.test type=1 source=upstream addresses=1 ttl=321"), std::string::npos);
}

TEST(Upstream, AnUnansweredLookupIsAFailureNamingTheServer) {
    // Nothing listens on this UDP port: the query is refused or times out.
    const int port = freePort(SOCK_DGRAM);
    LocalService local;
    local.service.setUpstream(std::make_unique<Upstream>(Endpoint{"127.0.0.1", port}, 300));
    const auto answer = local.get(sdkResolve("up.example.test", 1));
    EXPECT_EQ(answer.status, 502);
    EXPECT_NE(answer.body.find(R"({"message":"upstream DNS server 127.0.0.1:)" + std::to_string(port) + " failed: "),
              std::string::npos) << answer.body;
}
