// libcurl pinning against a loopback web server whose names exist only in the zone of a
// resolution service on loopback: a fetch reaches the web server only through the pin.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Extras/QelDNSCurlPinning.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/LoopbackHttpServer.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"

using Outcome = QelDNSCurlPinning::Outcome;

namespace {

constexpr char kName[] = "app.qel-demo.test";

class CurlPinning : public testing::Test {
protected:
    CurlPinning() {
        qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        // A proxy nobody runs: a transfer through it fails, so only a bypassed proxy succeeds.
        // The SDK reaches its service (127.0.0.1) directly.
        setenv("http_proxy", "http://127.0.0.1:1", 1);
        setenv("no_proxy", "127.0.0.1", 1);
        web.respond("/hello", 200, "hello");
        service.setAddresses(kName, {"127.0.0.1"});
        registered(service);
        curl_easy_setopt(
            curl, CURLOPT_WRITEFUNCTION, +[](char* data, size_t size, size_t count, void* text) {
                static_cast<std::string*>(text)->append(data, size * count);
                return size * count;
            });
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    }
    ~CurlPinning() override {
        unsetenv("http_proxy");
        unsetenv("no_proxy");
    }

    std::string url(const std::string& host) const { return "http://" + host + ":" + std::to_string(web.port()) + "/hello"; }
    // Fetches `address` with the handle as it is; curl's result.
    CURLcode fetch(const std::string& address) {
        body.clear();
        curl_easy_setopt(curl, CURLOPT_URL, address.c_str());
        return curl_easy_perform(curl);
    }

    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;
    qel::test::ResolutionService service{qel::test::kAuthId, qel::test::kAuthSecret, qel::test::kAppId};
    qel::test::LoopbackHttpServer web;
    std::unique_ptr<CURL, void (*)(CURL*)> handle{curl_easy_init(), curl_easy_cleanup};
    CURL* curl = handle.get();
    std::string body;
};

TEST_F(CurlPinning, AReusedHandleDropsItsPreviousPin) {
    // localhost: a name the system resolves without a network, to 127.0.0.1 where the web
    // server is; the service sends it to 127.0.0.2, where nothing listens.
    service.setAddresses("localhost", {"127.0.0.2"});
    QelDNSCurlPinning pinning(curl);
    // Only the pin knows this name, and the fetch bypasses the proxy that would fail it.
    ASSERT_TRUE(pinning.pin(url(kName), 20.0).pinned());
    EXPECT_EQ(fetch(url(kName)), CURLE_OK);
    ASSERT_TRUE(pinning.pin(url("localhost"), 20.0).pinned());
    EXPECT_EQ(fetch(url("localhost")), CURLE_COULDNT_CONNECT);

    // The next URL's host is an address: nothing to pin, and the old pin goes.
    const auto literal = pinning.pin(url("127.0.0.1"), 20.0);
    EXPECT_EQ(literal.outcome, Outcome::AddressLiteral);
    unsetenv("http_proxy");  // no longer bypassed: the system resolver's path, proxy aside
    EXPECT_EQ(fetch(url("localhost")), CURLE_OK);
    EXPECT_EQ(body, "hello");

    // Pinned again, then unanswered by the SDK: left to the system resolver, and it says why.
    ASSERT_TRUE(pinning.pin(url("localhost"), 20.0).pinned());
    const auto unanswered = pinning.pin(url("unknown.qel-demo.test"), 20.0);
    EXPECT_EQ(unanswered.outcome, Outcome::SystemResolver);
    EXPECT_EQ(unanswered.error ? unanswered.error->code() : 0, -1);
    EXPECT_EQ(fetch(url("localhost")), CURLE_OK);
}

// One row per URL: what the pin makes of it. Only addresses of the family asked for are
// pinned: anything else in the answer could add entries of its own.
TEST_F(CurlPinning, ReadsHostAndPortAsCurlDoesAndPinsOnlyAddresses) {
    service.setAddresses("v6.qel-demo.test", {"2001:db8::5", "2001:db8::6"});
    service.setAddresses("junk.qel-demo.test", {"127.0.0.2,6.6.6.6", "::1", "127.0.0.3\n-x:80", "127.0.0.1"});
    service.setAddresses("colon.qel-demo.test", {"127.0.0.2:80"});
    const struct {
        std::string url;
        int64_t type;
        std::string pinned;
    } rows[] = {
        {"https://app.qel-demo.test/path?q=1", 1, "pinned app.qel-demo.test:443:127.0.0.1"},
        {"http://v6.qel-demo.test:81/", 2, "pinned v6.qel-demo.test:81:[2001:db8::5],[2001:db8::6]"},
        {"http://[::1]:8443/", 1, "address host ::1 port 8443"},
        {"http://junk.qel-demo.test/", 1, "pinned junk.qel-demo.test:80:127.0.0.1"},
        {"http://colon.qel-demo.test/", 1, "system resolver error -20003"},
        {"http://exa mple.test:/", 1, "unusable error -50005"},
    };
    QelDNSCurlPinning pinning(curl);
    for (const auto& row : rows) {
        const auto pin = pinning.pin(row.url, 20.0, row.type);
        const char* const outcomes[] = {"pinned", "address", "system resolver", "unusable"};
        EXPECT_EQ(outcomes[static_cast<int>(pin.outcome)] + std::string(" ") +
                      (pin.error      ? "error " + std::to_string(pin.error->code())
                       : pin.pinned() ? pin.entry
                                      : "host " + pin.host + " port " + pin.port),
                  row.pinned)
            << row.url;
    }
    EXPECT_EQ(QelDNSCurlPinning(nullptr).pin(url(kName), 1.0).outcome, Outcome::UnusableUrl);
}

}  // namespace
