// The SDK itself against the service: the public manager logs in, resolves from the zone, and
// fails over to the second node when the first one stops.
#include <gtest/gtest.h>

#include <regex>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "ServerTestSupport.h"
#include "support/CallRecorder.h"
#include "support/FakeReachability.h"
#include "support/ScratchDirectory.h"

using namespace qel::server::test;
using Ips = std::optional<std::vector<std::string>>;
using Strings = std::vector<std::string>;

namespace {

const char kZone[] = "www.example.test 60 A 192.0.2.10\n"
                     "www.example.test 60 A 192.0.2.11\n"
                     "www.example.test 60 AAAA 2001:db8::10\n";

struct Answer {
    std::optional<int64_t> code;
    std::string message;
    Ips ips;
};

class SdkEndToEnd : public testing::Test {
protected:
    SdkEndToEnd() {
        // Characters the transport escapes and ones it leaves: the service must sign the same.
        qel::platform::MainBundle::setIdentifier(std::string("com.example.app+beta (1)"));
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
    }

    QelHttpDnsManager& dns() { return QelHttpDnsManager::shared(); }

    void login(LocalService& service) {
        dns().customServerUrl(service.url());
        dns().registerAuthId(std::string(kAuthId), std::string(kSecret));
        ASSERT_TRUE(eventually([&] { return dns().initStatus() != 0; }));
        ASSERT_EQ(dns().initStatus(), 4) << service.log();
    }

    Answer ask(const std::string& domain, int64_t type) {
        qel::test::CallRecorder<std::optional<QelDNSError>, Ips> recorder;
        if (type == 1) dns().getIPV4ByDomain(domain, recorder.callback());
        else dns().getIPV6ByDomain(domain, recorder.callback());
        Answer answer;
        if (!recorder.waitFor(1)) return answer;
        const auto calls = recorder.calls();
        const auto& [error, ips] = calls[0].arguments;
        if (error) {
            answer.code = error->code();
            answer.message = error->localizedDescription();
        }
        answer.ips = ips;
        return answer;
    }

    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
};

size_t count(const std::string& text, const std::string& pattern) {
    const std::regex expression(pattern);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), expression), std::sregex_iterator());
}

}  // namespace

TEST_F(SdkEndToEnd, LogsInAndResolvesFromTheZone) {
    LocalService service(kZone);
    login(service);
    EXPECT_EQ(ask("www.example.test", 1).ips, (Strings{"192.0.2.10", "192.0.2.11"}));
    EXPECT_EQ(ask("www.example.test", 2).ips, Strings{"2001:db8::10"});
    // No addresses: the SDK reads the empty list as "empty data", retries, and gives up.
    const Answer unknown = ask("nowhere.example.test", 1);
    EXPECT_EQ(unknown.code, -1);
    EXPECT_EQ(unknown.message, "request error");

    const std::string log = service.log();
    EXPECT_EQ(count(log, " acct-7 GET /acct-7/service 200 "), 1u) << log;
    EXPECT_EQ(count(log, " acct-7 GET /acct-7/resolve 200 \\d+us host=www.example.test "), 2u) << log;
    EXPECT_EQ(count(log, " 403 "), 0u) << log;
}

TEST_F(SdkEndToEnd, FailsOverToTheNextNodeWhenTheFirstStops) {
    LocalService first(kZone), second(kZone);
    // The SDK leaves a node that fails only for the list's fourth entry, and only when the
    // second entry repeats the node in use.
    first.service().setNodes({first.url(), first.url(), first.url(), second.url()});
    login(first);
    EXPECT_EQ(ask("www.example.test", 2).ips, Strings{"2001:db8::10"});

    first.listener().stop();
    EXPECT_EQ(ask("www.example.test", 1).ips, (Strings{"192.0.2.10", "192.0.2.11"}));
    EXPECT_EQ(count(second.log(), " acct-7 GET /acct-7/resolve 200 \\d+us host=www.example.test type=1 "), 1u)
        << second.log();
}
