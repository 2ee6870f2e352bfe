// How the SDK meets a misbehaving service, through the public manager. Each row is one thing
// the login or the resolve endpoint does wrong, played by a raw loopback server, and the
// answers the application must get: every lookup answered exactly once, nothing left hanging,
// and no descriptor left open once the SDK has settled. Each row runs in its own process.
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/FakeReachability.h"
#include "support/RawHttpServer.h"
#include "support/SdkAccount.h"
#include "support/ScratchDirectory.h"

namespace {

using qel::test::RawHttpServer;
using Reply = RawHttpServer::Reply;
using Ips = std::optional<std::vector<std::string>>;
using qel::test::eventually;
using qel::test::kAuthId;

// Replaced when a row runs by a file that holds a good answer.
constexpr char kAnswerFile[] = "@ANSWER_FILE@";
const std::string kAuthFailed = "鉴权失败，请检查AuthId或AuthSecret是否正确";
const std::vector<std::string> kAddresses{"192.0.2.1"};

std::string answerBody(const std::string& host = "a.test") {
    return R"({"host":")" + host + R"(","ip_list":["192.0.2.1"],"ttl":60})";
}

// A whole HTTP/1.1 answer; without `close` the connection looks reusable to the client.
std::string http(const std::string& status, const std::string& body,
                 const std::string& extraHeaders = "", bool close = true) {
    return "HTTP/1.1 " + status + "\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n" + extraHeaders +
           (close ? "Connection: close\r\n" : "") + "\r\n" + body;
}

std::string head200(size_t contentLength) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
           std::to_string(contentLength) + "\r\n\r\n";
}

// What a resolve row's login gets: `node` as best and only node.
std::string loginAnswer(const std::string& node) {
    return std::string(R"({"auth_id":")") + kAuthId + R"(","best_service_node":")" + node +
           R"(","service_node_list":[")" + node + R"("]})";
}

Reply write(std::string bytes, bool keepOpen = false) {
    return {Reply::Write, std::move(bytes), {}, keepOpen};
}
Reply reset(std::string bytes = {}) { return {Reply::Reset, std::move(bytes), {}, false}; }
Reply stall() { return {Reply::Stall, {}, {}, false}; }
Reply trickle(std::string head, std::string body) {
    return {Reply::Trickle, std::move(head), std::move(body), false};
}

// A good answer, padded with blanks past the 1 MiB a response body may hold, sent without a
// length so that only the client's own count can stop it.
std::string oversizedAnswer() {
    const std::string body =
        answerBody() + std::string(qel::platform::CurlHttpSession::kMaxResponseBodyBytes, ' ');
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n" + body;
}

std::string garbage() {
    std::string bytes;
    for (int i = 0; i < 4096; ++i) bytes.push_back(static_cast<char>((i * 7919 + 13) % 251));
    return http("200 OK", bytes);
}

enum class Exchange { Login, Resolve };  // the endpoint that misbehaves
enum class Before { Nothing, IdleConnectionClosed, ServiceDown, ServiceUp };

struct Lookup {
    Before before;
    std::optional<int64_t> code;  // none: the addresses
    std::string message;
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
const Lookup kAuthFailedLookup{Before::Nothing, 3, kAuthFailed};
const Lookup kUnavailable{Before::Nothing, -1, "service unavailable"};
const Lookup kRequestError{Before::Nothing, -1, "request error"};
const Lookup kAnswered{Before::Nothing, std::nullopt, ""};

const std::vector<Fault> kCatalogue{
    {"ConnectionRefused", Exchange::Login, 2.0, {}, {kAuthFailedLookup}, 0},
    {"ResetBeforeAnyByte", Exchange::Resolve, 2.0, {reset()}, {kUnavailable}, 1},
    // Cut after the 200 status line: not a node failure, so tried again.
    {"ResetInTheMiddleOfTheBody", Exchange::Resolve, 2.0,
     {reset(head200(answerBody().size()) + answerBody().substr(0, 20))},
     {kRequestError}, 3},
    {"StallLongerThanTheTimeout", Exchange::Resolve, 0.3, {stall()}, {kUnavailable}, 1},
    {"BodyTricklingPastTheTimeout", Exchange::Resolve, 0.5,
     {trickle(head200(answerBody().size()), answerBody())}, {kRequestError}, 3},
    {"BodyOverOneMebibyte", Exchange::Resolve, 5.0, {write(oversizedAnswer())}, {kRequestError}, 3},
    {"GarbageBody", Exchange::Resolve, 2.0, {write(garbage())}, {kRequestError}, 3},
    // A 500 is no transport failure: its page is read, and is not JSON.
    {"Html500Page", Exchange::Login, 2.0,
     {write(http("500 Internal Server Error", "<html><body><h1>500</h1></body></html>",
                 "X-Page: html\r\n"))},
     {kAuthFailedLookup}, 1},
    {"RedirectLoop", Exchange::Resolve, 2.0,
     {write(http("302 Found", "", "Location: /again\r\n"))}, {kUnavailable},
     1 + qel::platform::CurlHttpSession::kMaxRedirects},
    // Followed, the redirect would read a good answer from the file.
    {"RedirectToAnotherScheme", Exchange::Resolve, 2.0,
     {write(http("302 Found", "", std::string("Location: file://") + kAnswerFile + "\r\n"))},
     {kUnavailable}, 1},
    // The first answer leaves its connection looking reusable; the server closes it idle.
    {"KeepAliveConnectionClosedBetweenRequests", Exchange::Resolve, 2.0,
     {write(http("200 OK", answerBody(), "", /*close=*/false)),
      write(http("200 OK", answerBody()))},
     {kAnswered, {Before::IdleConnectionClosed, std::nullopt, ""}}, 2},
    // Down, the node fails with nowhere to go; it is kept, so once back it answers again.
    {"ServiceRestartedOnTheSamePort", Exchange::Resolve, 2.0,
     {write(http("200 OK", answerBody(), "", false), /*keepOpen=*/true),
      write(http("200 OK", answerBody()))},
     {kAnswered,
      {Before::ServiceDown, -1, "service unavailable"},
      {Before::ServiceUp, std::nullopt, ""}},
     2},
    {"LoginWithAnEmptyNodeList", Exchange::Login, 2.0,
     {write(http("200 OK", std::string(R"({"auth_id":")") + kAuthId +
                               R"(","best_service_node":"","service_node_list":[]})"))},
     {kAuthFailedLookup}, 1},
    {"ResolveAnswerForAnotherHost", Exchange::Resolve, 2.0,
     {write(http("200 OK", answerBody("b.test")))}, {kRequestError}, 3},
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
        std::ofstream(scratch.file("answer.json")) << answerBody();
    }

    std::vector<Reply> script() const {
        std::vector<Reply> replies = GetParam().script;
        if (GetParam().exchange == Exchange::Resolve) {
            replies.insert(replies.begin(), write(http("200 OK", loginAnswer(raw.url("")))));
        }
        for (Reply& reply : replies) {
            const size_t at = reply.bytes.find(kAnswerFile);
            if (at != std::string::npos) {
                reply.bytes.replace(at, std::string(kAnswerFile).size(),
                                    scratch.file("answer.json"));
            }
        }
        return replies;
    }

    void prepare(Before step) {
        switch (step) {
            case Before::Nothing:
                return;
            case Before::IdleConnectionClosed:
                ASSERT_TRUE(eventually([&] { return raw.openConnections() == 0; }));
                return;
            case Before::ServiceDown:
                raw.stop();
                return;
            case Before::ServiceUp:
                raw.start();
                return;
        }
    }

    qel::test::FakeReachabilityFactory network{qel::platform::ReachabilityFlags::Reachable};
    qel::test::ScratchDirectory scratch;
    qel::test::CapturingConsole console;  // keeps the request lines off standard error
    RawHttpServer raw;
};

TEST_P(FaultCatalogue, EveryLookupIsAnsweredOnceAndNoDescriptorIsLeft) {
    const Fault& fault = GetParam();
    QelHttpDnsManager& dns = QelHttpDnsManager::shared();
    const bool loginFails = fault.exchange == Exchange::Login;
    dns.customServerUrl(raw.url(""));
    if (fault.script.empty()) {
        raw.stop();
    } else {
        raw.serve(script());
    }
    dns.registerAuthId(std::string(kAuthId), std::string(qel::test::kAuthSecret));
    ASSERT_TRUE(eventually([&] { return dns.initStatus() == (loginFails ? 3 : 4); }));
    dns.setTimeout(fault.timeout);  // registration waits as long as it must
    ASSERT_TRUE(eventually([&] { return raw.openConnections() == 0; }));
    const size_t descriptors = openDescriptors();
    const size_t requestsBefore = raw.requestsServed();

    std::vector<qel::test::CallRecorder<std::optional<QelDNSError>, Ips>> recorders;
    for (const Lookup& lookup : fault.lookups) {
        SCOPED_TRACE("lookup " + std::to_string(recorders.size() + 1));
        prepare(lookup.before);
        recorders.emplace_back();
        dns.getIPV4ByDomain("a.test", recorders.back().callback());
        ASSERT_TRUE(recorders.back().waitFor(1));
        const auto calls = recorders.back().calls();
        const auto& [error, ips] = calls[0].arguments;
        if (lookup.code) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->code(), *lookup.code);
            EXPECT_EQ(error->localizedDescription(), lookup.message);
        } else {
            EXPECT_FALSE(error) << error->code() << " " << error->localizedDescription();
            EXPECT_EQ(ips, kAddresses);
        }
    }
    EXPECT_EQ(raw.requestsServed() - requestsBefore, fault.requests);

    raw.stop();  // ends what it still holds, as a server going away would
    EXPECT_TRUE(eventually([&] { return openDescriptors() == descriptors; }));
    EXPECT_EQ(openDescriptors(), descriptors);
    for (const auto& recorder : recorders) EXPECT_EQ(recorder.count(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Service, FaultCatalogue, testing::ValuesIn(kCatalogue),
                         [](const testing::TestParamInfo<Fault>& row) { return row.param.name; });

}  // namespace
