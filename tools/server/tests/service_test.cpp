// The service's checks, answers and access lines over HTTP in-process, with requests built,
// signed and encoded by the SDK's own code; names outside the zone go to a real dnsmasq; and the
// SDK's public manager against it, failing over to another node when the one in use stops.
#include <gtest/gtest.h>
#include <unistd.h>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "ServerTestSupport.h"
#include "Signature.h"
#include "Upstream.h"
#include "support/CallRecorder.h"
#include "support/FakeReachability.h"

using namespace qel::server;
using namespace qel::server::test;
using namespace std::chrono_literals;

TEST(Service, EachRequestHasItsStatusBodyAndAccessLine) {
    // Several lines of one name add up, a repeated address is kept once, and the answer carries
    // the smallest TTL.
    LocalService local(
        "$TTL 300\nwww.example.test. 60 IN A 192.0.2.10\nWWW.Example.Test 30 A 192.0.2.11 # comment\n"
        "www.example.test AAAA 2001:DB8::10\nwww.example.test 60 in a 192.0.2.10 ; comment\n");
    local.service.setWindow(120s);
    const int64_t now = Service::systemMilliseconds(), minute = 60 * 1000;
    const std::string www = R"("ip_list":["192.0.2.10","192.0.2.11"],"ttl":30)";
    const SignedRequest good = sdkResolve("www.example.test", 1, now);
    // A request that asks one thing with the signature of another.
    const auto signedAs = [](SignedRequest asked, const SignedRequest& signer) {
        asked.authorization = signer.authorization;
        return asked;
    };
    const struct {
        const char* what;
        SignedRequest request;
        int status;
        std::string body;  // the whole body, or for a refusal a part of its message
    } cases[] = {
        {"login", sdkLogin(now), 200,
         R"({"auth_id":"acct-7","best_service_node":")" + local.url() + R"(","service_node_list":[")" + local.url() + "\"]}"},
        {"smallest TTL", good, 200, R"({"host":"www.example.test",)" + www + "}"},
        // Whatever bytes a name holds, the answer stays JSON: escaped, and not UTF-8 replaced.
        {"odd bytes", sdkResolve("odd\"name\xff", 1), 200, "{\"host\":\"odd\\\"name\xEF\xBF\xBD\",\"ip_list\":[],\"ttl\":0}"},
        {"other host", signedAs(sdkResolve("nowhere.test", 1, now), good), 403, "signature mismatch"},
        {"other type", signedAs(sdkResolve("www.example.test", 2, now), good), 403, "signature mismatch"},
        {"other time", signedAs(sdkResolve("www.example.test", 1, now + 1), good), 403, "signature mismatch"},
        {"other app", signedAs(sdkResolve("www.example.test", 1, now, "x"), good), 403, "signature mismatch"},
        {"wrong secret", sdkResolve("www.example.test", 1, now, kAppId, kAuthId, "guess"), 403, "signature mismatch"},
        {"unsigned", {good.target, ""}, 403, "missing Authorization header 'MD5 <signature>'"},
        {"unknown account", sdkLogin(now, kAppId, "acct-8"), 403, "unknown account"},
        {"3 min early", sdkLogin(now - 3 * minute), 403, "accepted window: -180 s from the server's clock, at most 120 s"},
        {"3 min late", sdkResolve("www.example.test", 1, now + 3 * minute), 403, "timestamp outside the accepted window"},
        {"escaped slash", {"/acct-7%2fservice?timestamp=1&app_id=a", "MD5 x"}, 404, "no such endpoint"},
        // Signed with the secret left out: the digest of the text up to the NUL it carries.
        {"NUL in app_id",
         {"/acct-7/service?timestamp=" + std::to_string(now) + "&app_id=x%00", "MD5 " + md5Hex("x")},
         400,
         "control"},
        {"newline in a signed host", sdkResolve("forged\nline 200", 1, now), 400, "control characters"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto answer = local.get(c.request);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_NE(answer.body.find(c.body), std::string::npos) << answer.body;
    }
    // The access log names the refusal and is not forged a line by it, nor does it hold the secret.
    const std::string log = local.log.read();
    EXPECT_NE(log.find(R"(acct-7 GET /acct-7/resolve 400 )"), std::string::npos) << log;
    EXPECT_TRUE(log.find("\nline 200") == std::string::npos && log.find(kSecret) == std::string::npos) << log;
}

TEST(Service, AsksDnsmasqOnlyForNamesOutsideTheZone) {
    const std::string dnsmasq = "/usr/sbin/dnsmasq";
    if (access(dnsmasq.c_str(), X_OK) != 0) GTEST_SKIP() << "no dnsmasq (Debian package dnsmasq-base; scripts/setup.sh)";
    std::unique_ptr<ChildProcess> dns;
    std::unique_ptr<Upstream> upstream;
    const auto up = [&] { return upstream->resolve("up.example.test", AddressType::V4).kind == Upstream::Result::Answer; };
    // The port may be taken between the choice and dnsmasq's bind: then it exits, and another
    // port is tried.
    for (int attempt = 0; attempt < 5 && (!dns || dns->wait(0ms)); ++attempt) {
        const int port = freePort(SOCK_DGRAM);
        dns = std::make_unique<ChildProcess>(
            dnsmasq,
            std::vector<std::string>{"--keep-in-foreground", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
                                     "--bind-interfaces", "--listen-address=127.0.0.1", "--log-facility=-",
                                     "--port=" + std::to_string(port), "--local-ttl=321", "--local=/test/",
                                     "--host-record=up.example.test,192.0.2.7", "--host-record=zoned.example.test,192.0.2.99"});
        upstream = std::make_unique<Upstream>(Endpoint{"127.0.0.1", port}, 300);
        eventually([&] { return up() || dns->wait(0ms); });
    }
    ASSERT_TRUE(up()) << "dnsmasq did not start: " << dns->errors();
    LocalService local("zoned.example.test 60 A 198.51.100.5\n");
    local.service.setUpstream(std::make_unique<Upstream>(upstream->server(), 2000));
    EXPECT_EQ(local.get(sdkResolve("Up.Example.Test.", 1)).body,
              R"({"host":"Up.Example.Test.","ip_list":["192.0.2.7"],"ttl":321})");
    // The zone holds the name: its answer stands, even for a type it has no address of.
    EXPECT_EQ(local.get(sdkResolve("zoned.example.test", 2)).body, R"({"host":"zoned.example.test","ip_list":[],"ttl":0})");
}

TEST(Service, TheSdkLogsInResolvesFromTheZoneAndFailsOverWhenTheNodeStops) {
    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    TempFile defaults;
    // Characters the transport escapes and ones it leaves: the service must sign the same.
    qel::platform::MainBundle::setIdentifier(std::string("com.example.app+beta (1)"));
    qel::platform::UserDefaults::setStandardPath(defaults.directory.file("defaults.sqlite3"));
    const char zone[] =
        "www.example.test 60 A 192.0.2.10\nwww.example.test 60 A 192.0.2.11\n"
        "www.example.test 60 AAAA 2001:db8::10\napi.example.test 60 A 192.0.2.20\n";
    LocalService first(zone), second(zone);
    // The SDK leaves a node that fails only for the list's fourth entry, and only when the
    // second entry repeats the node in use.
    first.service.setNodes({first.url(), first.url(), first.url(), second.url()});
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(first.url());
    dns.registerAuthId(std::string(kAuthId), std::string(kSecret));
    ASSERT_TRUE(eventually([&] { return dns.initStatus() == 4; })) << dns.initStatus() << first.log.read();

    // The addresses, or nothing on an error.
    const auto ask = [&](const std::string& domain, int64_t type) {
        qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<std::vector<std::string>>> recorder;
        dns.getIPByDomain(domain, type, recorder.callback());
        std::string text;
        if (!recorder.waitFor(1)) return text;
        for (const auto& ip : std::get<1>(recorder.calls()[0].arguments).value_or(std::vector<std::string>{})) text += ip + " ";
        return text;
    };
    EXPECT_EQ(ask("www.example.test", 1), "192.0.2.10 192.0.2.11 ");
    EXPECT_EQ(ask("www.example.test", 2), "2001:db8::10 ");
    first.listener.stop();
    EXPECT_EQ(ask("api.example.test", 1), "192.0.2.20 ");
}
