// How the SDK meets a misbehaving service, through the public manager. Each row is one thing
// the login or the resolve endpoint does wrong, played by a loopback server's script, and the
// answers the application must get: every lookup answered exactly once, nothing left hanging,
// and no descriptor left open once the SDK has settled. Each row runs in its own process.
#include <dirent.h>
#include <gtest/gtest.h>

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

// Replaced when a row runs by a file that holds a good answer.
constexpr char kAnswerFile[] = "@ANSWER_FILE@";
const std::string kAnswer = R"({"host":"a.test","ip_list":["192.0.2.1"],"ttl":60})";

Reply http(int status, const std::string& body, const std::string& extraHeaders = "") {
    return Server::http(status, body, extraHeaders, /*close=*/true);
}
// The head of a good answer, without its body.
const std::string kHead = [] {
    const std::string whole = Server::http(200, kAnswer).bytes;
    return whole.substr(0, whole.size() - kAnswer.size());
}();

Reply garbage() {
    std::string bytes;
    for (int i = 0; i < 4096; ++i) bytes.push_back(static_cast<char>((i * 7919 + 13) % 251));
    return http(200, bytes);
}

enum class Exchange { Login, Resolve };  // the endpoint that misbehaves
enum class Before { Nothing, IdleConnectionClosed, ServiceDown, ServiceUp };

struct Lookup {
    Before before;
    std::string outcome;  // "<code> <message>", or the addresses
};

struct Fault {
    const char* name;
    Exchange exchange;
    double timeout;  // the lookups' request timeout, seconds
    std::vector<Reply> script;  // empty: nothing listens; a resolve row's login comes first
    std::vector<Lookup> lookups;
    size_t requests;  // requests the endpoint reads during the lookups
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

// A login fault makes registration fail (status 3); the lookup then logs in again, which
// fails the same way, and gets code 3. A resolve failure that leaves the node (-30000: no
// answer, or no 200 before the transfer failed) finds no other node and ends at once as
// "service unavailable"; any other failure is tried three times and ends as "request error".
const Lookup kAuthFailed{Before::Nothing, "3 鉴权失败，请检查AuthId或AuthSecret是否正确"};
const Lookup kUnavailable{Before::Nothing, "-1 service unavailable"};
const Lookup kRequestError{Before::Nothing, "-1 request error"};
const Lookup kAnswered{Before::Nothing, "192.0.2.1"};

const std::vector<Fault> kCatalogue{
    {"ConnectionRefused", Exchange::Login, 2.0, {}, {kAuthFailed}, 0},
    {"ResetBeforeAnyByte", Exchange::Resolve, 2.0, {{Reply::Reset, "", {}, false}}, {kUnavailable}, 1},
    // Cut after the 200 status line: not a node failure, so tried again.
    {"ResetInTheMiddleOfTheBody", Exchange::Resolve, 2.0,
     {{Reply::Reset, kHead + kAnswer.substr(0, 20), {}, false}}, {kRequestError}, 3},
    {"StallLongerThanTheTimeout", Exchange::Resolve, 0.3, {{Reply::Stall, {}, {}, false}}, {kUnavailable}, 1},
    {"BodyTricklingPastTheTimeout", Exchange::Resolve, 0.5, {{Reply::Trickle, kHead, kAnswer, false}},
     {kRequestError}, 3},
    // Padded past the 1 MiB a body may hold, without a length: only the client's count stops it.
    {"BodyOverOneMebibyte", Exchange::Resolve, 5.0,
     {{Reply::Write, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + kAnswer + std::string(CurlHttpSession::kMaxResponseBodyBytes, ' '),
       {}, false}},
     {kRequestError}, 3},
    {"GarbageBody", Exchange::Resolve, 2.0, {garbage()}, {kRequestError}, 3},
    // A 500 is no transport failure: its page is read, and is not JSON.
    {"Html500Page", Exchange::Login, 2.0, {http(500, "<html><body><h1>500</h1></body></html>")}, {kAuthFailed}, 1},
    {"RedirectLoop", Exchange::Resolve, 2.0, {http(302, "", "Location: /again\r\n")}, {kUnavailable},
     1 + CurlHttpSession::kMaxRedirects},
    // Followed, the redirect would read a good answer from the file.
    {"RedirectToAnotherScheme", Exchange::Resolve, 2.0,
     {http(302, "", std::string("Location: file://") + kAnswerFile + "\r\n")}, {kUnavailable}, 1},
    // The first answer looks reusable, but the server closes its connection once written.
    {"KeepAliveConnectionClosedBetweenRequests", Exchange::Resolve, 2.0,
     {{Reply::Write, Server::http(200, kAnswer).bytes, {}, false}, http(200, kAnswer)},
     {kAnswered, {Before::IdleConnectionClosed, "192.0.2.1"}}, 2},
    // Down, the node fails with nowhere to go; it is kept, so once back it answers again.
    {"ServiceRestartedOnTheSamePort", Exchange::Resolve, 2.0, {Server::http(200, kAnswer), http(200, kAnswer)},
     {kAnswered, {Before::ServiceDown, "-1 service unavailable"}, {Before::ServiceUp, "192.0.2.1"}}, 2},
    {"LoginWithAnEmptyNodeList", Exchange::Login, 2.0,
     {http(200, std::string(R"({"auth_id":")") + qel::test::kAuthId + R"(","best_service_node":"","service_node_list":[]})")},
     {kAuthFailed}, 1},
    {"ResolveAnswerForAnotherHost", Exchange::Resolve, 2.0,
     {http(200, R"({"host":"b.test","ip_list":["192.0.2.1"]})")}, {kRequestError}, 3},
};

size_t openDescriptors() {
    size_t count = 0;
    DIR* directory = ::opendir("/proc/self/fd");
    while (directory && ::readdir(directory)) ++count;
    if (directory) ::closedir(directory);
    return count;
}

class FaultCatalogue : public testing::TestWithParam<Fault> {
protected:
    FaultCatalogue() {
        qel::platform::MainBundle::setIdentifier(qel::test::kAppId);
        qel::platform::UserDefaults::setStandardPath(scratch.file("defaults.sqlite3"));
        std::ofstream(scratch.file("answer.json")) << kAnswer;
    }

    // The row's script, after the login a resolve row needs.
    std::vector<Reply> script() const {
        std::vector<Reply> replies = GetParam().script;
        const std::string node = server.url("");
        if (GetParam().exchange == Exchange::Resolve) {
            replies.insert(replies.begin(), http(200, R"({"auth_id":")" + std::string(qel::test::kAuthId) +
                                                          R"(","best_service_node":")" + node +
                                                          R"(","service_node_list":[")" + node + R"("]})"));
        }
        for (Reply& reply : replies) {
            const size_t at = reply.bytes.find(kAnswerFile);
            if (at != std::string::npos) reply.bytes.replace(at, sizeof kAnswerFile - 1, scratch.file("answer.json"));
        }
        return replies;
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
    if (fault.script.empty()) {
        server.stop();
    } else {
        server.serve(script());
    }
    dns.registerAuthId(std::string(qel::test::kAuthId), std::string(qel::test::kAuthSecret));
    ASSERT_TRUE(eventually([&] { return dns.initStatus() == (fault.exchange == Exchange::Login ? 3 : 4); }));
    dns.setTimeout(fault.timeout);  // registration waits as long as it must
    ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
    const size_t descriptors = openDescriptors(), requestsBefore = server.requests().size();

    std::vector<qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<std::vector<std::string>>>> lookups;
    for (const Lookup& lookup : fault.lookups) {
        SCOPED_TRACE("lookup " + std::to_string(lookups.size() + 1));
        if (lookup.before == Before::IdleConnectionClosed) {
            ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
        }
        if (lookup.before == Before::ServiceDown) server.stop();
        if (lookup.before == Before::ServiceUp) server.start();
        lookups.emplace_back();
        dns.getIPV4ByDomain("a.test", lookups.back().callback());
        ASSERT_TRUE(lookups.back().waitFor(1));
        const auto calls = lookups.back().calls();
        const auto& [error, ips] = calls[0].arguments;
        EXPECT_EQ(error ? std::to_string(error->code()) + " " + error->localizedDescription()
                        : (ips && ips->size() == 1 ? ips->front() : "other addresses"),
                  lookup.outcome);
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
