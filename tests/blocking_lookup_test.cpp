// The blocking lookup against a signature-checking resolution service on loopback: the
// manager's answers and refusals, its silence before the first login reply, the deadline.
// The C program in c_api/ covers late answers that fill the cache and the platform thread.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"
#include "QelHttpDnsSDK/Extras/qel_httpdns.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"

using qel::test::ResolutionService;
using Strings = std::vector<std::string>;
using Lookup = QelDNSBlockingLookup;

namespace {


int64_t codeOf(const Lookup::Result& result) { return result.error ? result.error->code() : 99999; }

class BlockingLookup : public testing::Test {
protected:
    BlockingLookup() {
        qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        service.setAddresses("a.test", {"192.0.2.1", "192.0.2.2"});
    }

    QelHttpDnsManager& dns() { return QelHttpDnsManager::shared(); }

    void login() { ASSERT_TRUE(qel::test::registered(service)); }

    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;
    ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
};

TEST_F(BlockingLookup, AnswersWithTheServicesAddressesAndTheManagersRefusals) {
    login();
    const Lookup::Result answer = Lookup::resolve("a.test", 1, 10.0);
    ASSERT_TRUE(answer.ok()) << answer.error->localizedDescription();
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));

    const Lookup::Result malformed = Lookup::resolve("not a domain", 1, 10.0);
    EXPECT_EQ(codeOf(malformed), 1);
    EXPECT_EQ(malformed.error->localizedDescription(), "域名格式错误");
    EXPECT_TRUE(malformed.ips.empty());
    // No address for the name: the resolver's own failure, not a timeout.
    EXPECT_EQ(codeOf(Lookup::resolve("unknown.test", 1, 10.0)), -1);
}

TEST_F(BlockingLookup, TheCInterfaceHandsOutOnlyAddressesOfTheFamilyAskedFor) {
    login();
    service.setAddresses("b.test", {"192.0.2.5", "not-an-ip", "2001:db8::5", "192.0.2.6,6.6.6.6",
                                    std::string("192.0.2.7\0", 10), "::ffff:192.0.2.8"});
    service.setAddresses("c.test", {"<script>", "192.0.2.9\nc.test 6.6.6.6"});
    const double nan = std::nan("");
    const struct { const char* domain; int type; double timeout; int64_t code; Strings ips; } cases[] = {
        {"b.test", QEL_HTTPDNS_IPV4, 10.0, 0, {"192.0.2.5"}},
        {"b.test", QEL_HTTPDNS_IPV6, 10.0, 0, {"2001:db8::5", "::ffff:192.0.2.8"}},
        {"c.test", QEL_HTTPDNS_IPV4, 10.0, -20003, {}},  // nothing left: as an empty answer
        {"b.test", 3, 10.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", 0, 10.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", QEL_HTTPDNS_IPV4, -1.0, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
        {"b.test", QEL_HTTPDNS_IPV4, nan, QEL_HTTPDNS_E_INVALID_ARGUMENT, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.domain) + " type " + std::to_string(c.type) + " timeout " +
                     std::to_string(c.timeout));
        std::unique_ptr<qel_httpdns_result, void (*)(qel_httpdns_result*)> result(
            qel_httpdns_resolve(c.domain, c.type, c.timeout), qel_httpdns_result_free);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->error ? result->error->code : 0, c.code);
        EXPECT_EQ(Strings(result->ips, result->ips + result->ip_count), c.ips);
    }
}

TEST_F(BlockingLookup, BeforeTheFirstLoginReplyItWaitsForItWithinTheDeadline) {
    // Never registered: the manager drops the lookup, so only the deadline ends it.
    const Lookup::Result silent = Lookup::resolve("a.test", 1, 0.2);
    EXPECT_EQ(codeOf(silent), Lookup::kTimedOutCode);
    EXPECT_EQ(silent.error->localizedDescription(), "timed out");
    EXPECT_EQ(silent.error->domain(), "com.qel.httpdnssdk");

    // Degraded hosts are refused even then, at once.
    dns().setDegradeHosts(Strings{"legacy.test"});
    EXPECT_EQ(codeOf(Lookup::resolve("legacy.test", 1, 0.0)), 2);

    // Asked while the login is on its way, answered once its reply is in.
    auto waiting = std::async(std::launch::async, [] { return Lookup::resolve("a.test", 1, 20.0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    login();
    const Lookup::Result answer = waiting.get();
    ASSERT_TRUE(answer.ok()) << answer.error->localizedDescription();
    EXPECT_EQ(answer.ips, (Strings{"192.0.2.1", "192.0.2.2"}));
}

}  // namespace
