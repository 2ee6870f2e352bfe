// How the SDK meets a misbehaving service, through the public manager. Each row is one thing
// the login or the resolve endpoint does wrong, played by a loopback server's script, and the
// answers the application must get: every lookup answered exactly once, nothing left hanging,
// and no descriptor left open once the SDK has settled. Each row runs in its own process.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/LoopbackHttpServer.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"

namespace {

using Server = qel::test::LoopbackHttpServer;
using Reply = Server::Reply;
using qel::platform::CurlHttpSession;
using qel::test::eventually;

const std::string kAnswer = R"({"host":"a.test","ip_list":["192.0.2.1"],"ttl":60})";
// A good answer in a file: what a followed redirect to it would read.
const qel::test::ScratchDirectory kFiles;
const std::string kAnswerFile = [] {
    std::ofstream(kFiles.file("answer.json")) << kAnswer;
    return kFiles.file("answer.json");
}();

Reply http(int status, const std::string& body, const std::string& extraHeaders = "") {
    return Server::http(status, body, extraHeaders, /*close=*/true);
}
// The head of a good answer, without its body.
const std::string kHead = [] {
    const std::string whole = Server::http(200, kAnswer).bytes;
    return whole.substr(0, whole.size() - kAnswer.size());
}();

struct Fault {
    const char* name;
    double timeout;  // the lookups' request timeout, seconds
    std::vector<Reply> script;  // of the resolve endpoint, after a good login
    // Each lookup's outcome ("<code> <message>", or the address), and between them what
    // happens to the service: "idle" (its connections close), "down" or "up".
    std::vector<std::string> steps;
    size_t requests;  // requests the endpoint reads during the lookups
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

// A resolve failure that leaves the node (-30000: no answer, or no 200 before the transfer
// failed) finds no other node and ends at once as "service unavailable"; any other failure is
// tried three times and ends as "request error".
const std::string kUnavailable = "-1 service unavailable", kRequestError = "-1 request error";

const std::vector<Fault> kCatalogue{
    {"ResetBeforeAnyByte", 2.0, {{Reply::Reset, "", {}, false}}, {kUnavailable}, 1},
    {"BodyTricklingPastTheTimeout", 0.5, {{Reply::Trickle, kHead, kAnswer, false}}, {kRequestError}, 3},
    // Padded past the 1 MiB a body may hold, without a length: only the client's count stops it.
    {"BodyOverOneMebibyte", 5.0,
     {{Reply::Write, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + kAnswer + std::string(CurlHttpSession::kMaxResponseBodyBytes, ' '),
       {}, false}},
     {kRequestError}, 3},
    {"RedirectLoop", 2.0, {http(302, "", "Location: /again\r\n")}, {kUnavailable}, 1 + CurlHttpSession::kMaxRedirects},
    {"RedirectToAnotherScheme", 2.0, {http(302, "", "Location: file://" + kAnswerFile + "\r\n")}, {kUnavailable}, 1},
    // The first answer looks reusable, but the server closes its connection once written.
    {"KeepAliveConnectionClosedBetweenRequests", 2.0,
     {{Reply::Write, Server::http(200, kAnswer).bytes, {}, false}, http(200, kAnswer)},
     {"192.0.2.1", "idle", "192.0.2.1"}, 2},
    // Down, the node fails with nowhere to go; it is kept, so once back it answers again.
    {"ServiceRestartedOnTheSamePort", 2.0, {Server::http(200, kAnswer), http(200, kAnswer)},
     {"192.0.2.1", "down", kUnavailable, "up", "192.0.2.1"}, 2},
    {"ResolveAnswerForAnotherHost", 2.0, {http(200, R"({"host":"b.test","ip_list":["192.0.2.1"]})")}, {kRequestError}, 3},
};

auto openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class FaultCatalogue : public testing::TestWithParam<Fault> {
protected:
    FaultCatalogue() {
        qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        // A login that makes this server the only node comes first.
        const std::string node = server.url("");
        std::vector<Reply> script{http(200, R"({"auth_id":")" + std::string(qel::test::kAuthId) +
                                                R"(","best_service_node":")" + node +
                                                R"(","service_node_list":[")" + node + R"("]})")};
        script.insert(script.end(), GetParam().script.begin(), GetParam().script.end());
        server.serve(script);
    }

    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;  // keeps the request lines off standard error
    Server server;
};

TEST_P(FaultCatalogue, EveryLookupIsAnsweredOnceAndNoDescriptorIsLeft) {
    const Fault& fault = GetParam();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(server.url(""));
    dns.registerAuthId(std::string(qel::test::kAuthId), std::string(qel::test::kAuthSecret));
    ASSERT_TRUE(eventually([&] { return dns.initStatus() == 4; }));
    dns.setTimeout(fault.timeout);  // registration waits as long as it must
    ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
    const auto descriptors = openDescriptors();
    const size_t requestsBefore = server.requests().size();

    std::vector<qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<std::vector<std::string>>>> lookups;
    for (const std::string& step : fault.steps) {
        if (step == "idle") {
            ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
            continue;
        }
        if (step == "down" || step == "up") {
            step == "down" ? server.stop() : server.start();
            continue;
        }
        SCOPED_TRACE("lookup " + std::to_string(lookups.size() + 1));
        lookups.emplace_back();
        dns.getIPV4ByDomain("a.test", lookups.back().callback());
        ASSERT_TRUE(lookups.back().waitFor(1));
        const auto [error, ips] = lookups.back().calls().at(0).arguments;
        EXPECT_EQ(error ? std::to_string(error->code()) + " " + error->localizedDescription()
                        : (ips && ips->size() == 1 ? ips->front() : "other addresses"),
                  step);
    }
    EXPECT_EQ(server.requests().size() - requestsBefore, fault.requests);

    server.stop();  // ends what it still holds, as a server going away would
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptors; }));
    EXPECT_EQ(openDescriptors(), descriptors);
    for (const auto& lookup : lookups) EXPECT_EQ(lookup.count(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Service, FaultCatalogue, testing::ValuesIn(kCatalogue),
                         [](const testing::TestParamInfo<Fault>& row) { return row.param.name; });

}  // namespace
