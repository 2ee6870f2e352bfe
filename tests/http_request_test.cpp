// QelDNSRequest against real servers on loopback, through the shared session.
#include <gtest/gtest.h>
#include <strings.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawHttpServer.h"

using nlohmann::json;
using qel::test::CapturingConsole;
using qel::test::LoopbackHttpServer;
using qel::test::RawHttpServer;
using qel::test::RefusingPort;

namespace {

using Finishes = qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<json>>;

struct Outcome {
    std::optional<QelDNSError> error;
    std::optional<json> result;
};

Outcome outcomeOf(const Finishes::Call& call) {
    return {std::get<0>(call.arguments), std::get<1>(call.arguments)};
}

// Waits for the one finish of a request; checks it is the only one and ran on the platform
// thread with exactly one of error and result.
Outcome single(const Finishes& finishes) {
    EXPECT_TRUE(finishes.waitFor(1));
    const auto calls = finishes.calls();
    EXPECT_EQ(calls.size(), 1u);
    if (calls.empty()) return {};
    EXPECT_TRUE(calls[0].onPlatformThread);
    const Outcome outcome = outcomeOf(calls[0]);
    EXPECT_NE(outcome.error.has_value(), outcome.result.has_value());
    return outcome;
}

Outcome get(const std::string& url, const json& headers = json::object()) {
    Finishes finishes;
    QelDNSRequest::get(url, headers, finishes.callback());
    return single(finishes);
}

void expectError(const Outcome& outcome, int64_t code, const std::string& message) {
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code(), code);
    EXPECT_EQ(outcome.error->localizedDescription(), message);
    EXPECT_FALSE(outcome.result);
}

// The request head a raw server received, and the header lines in it after the request line.
std::vector<std::string> headerLines(const std::string& raw) {
    std::vector<std::string> lines;
    const std::string head = raw.substr(0, raw.find("\r\n\r\n"));
    size_t at = head.find("\r\n");
    while (at != std::string::npos) {
        const size_t next = head.find("\r\n", at + 2);
        lines.push_back(head.substr(at + 2, next == std::string::npos ? next : next - at - 2));
        at = next;
    }
    return lines;
}

class QelDNSRequestTest : public ::testing::Test {
protected:
    void TearDown() override { QelHttpDnsManager::shared().setTimeout(0.0); }

    CapturingConsole console;
    LoopbackHttpServer server;
};

}  // namespace

TEST_F(QelDNSRequestTest, MapsEachKindOfAnswerToAResultOrAnError) {
    server.respond("/server-error", 500, R"({"status":500,"message":"down"})");
    server.respond("/empty", 200, "");
    server.respond("/abc", 200, "abc");
    server.respond("/scalar", 200, "123");
    server.respond("/array", 200, R"([1,{"a":2}])");
    server.respond("/bad-utf8", 200, "[\"\xff\"]");

    Outcome outcome = get(server.url("/server-error"));
    ASSERT_TRUE(outcome.result);
    EXPECT_EQ(*outcome.result, json::parse(R"({"status":500,"message":"down"})"));

    outcome = get(server.url("/array"));
    ASSERT_TRUE(outcome.result);
    EXPECT_EQ(*outcome.result, json::parse(R"([1,{"a":2}])"));

    expectError(get(server.url("/empty")), -10000, "request error");
    expectError(get(server.url("/no-route")), -10000, "request error");  // a 404, no body
    for (const char* path : {"/abc", "/scalar", "/bad-utf8"}) {
        SCOPED_TRACE(path);
        expectError(get(server.url(path)), -10001, "json convert error");
    }

    RefusingPort refusing;
    expectError(get(refusing.url("/")), -30000, "request error");

    // The connection is cut after the head of a 200: a transport error with status 200.
    RawHttpServer cutAfterHead([](RawHttpServer&, int fd, const std::string&) {
        RawHttpServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                    "Content-Length: 50\r\n\r\n{\"a\"");
    });
    expectError(get(cutAfterHead.url("/")), 200, "request error");

    // Not an HTTP URL at all: the transport refuses it, still through the finish block.
    expectError(get("ftp://127.0.0.1/"), -30000, "request error");
}

TEST_F(QelDNSRequestTest, HostileAnswersEndInErrorsWithoutHarm) {
    const std::string deepest = std::string(512, '[') + std::string(512, ']');
    const std::string tooDeep = "[" + deepest + "]";
    server.respond("/deepest", 200, deepest);
    server.respond("/too-deep", 200, tooDeep);
    server.respond("/very-deep", 200, std::string(200000, '['));
    server.respond("/deep-in-string", 200, "[\"" + std::string(2000, '[') + "\"]");
    server.respond("/huge", 200, "[" + std::string(2 << 20, ' ') + "]");

    EXPECT_TRUE(get(server.url("/deepest")).result);
    EXPECT_TRUE(get(server.url("/deep-in-string")).result);
    expectError(get(server.url("/too-deep")), -10001, "json convert error");
    expectError(get(server.url("/very-deep")), -10001, "json convert error");
    // Over the body bound: cut off as a transport failure of a 200.
    expectError(get(server.url("/huge")), 200, "request error");
}

TEST_F(QelDNSRequestTest, LogsTheExchangeOnTheConsoleWhateverTheLogSwitch) {
    server.respond("/ok", 200, R"({"ok":true,"n":[1]})");
    server.respond("/abc", 200, "abc");
    server.respond("/empty", 200, "");

    ASSERT_TRUE(get(server.url("/ok?x=a b"), {{"b", "2"}, {"a", 1}}).result);
    EXPECT_EQ(console.lines(), (std::vector<std::string>{
                                   "request url: " + server.url("/ok?x=a b"),
                                   "request headers {\n  \"a\": 1,\n  \"b\": \"2\"\n}",
                                   "response url {\n  \"n\": [\n    1\n  ],\n  \"ok\": true\n}",
                               }));

    console.clear();
    Finishes finishes;
    QelDNSRequest::post(server.url("/ok"), json::object(), {{"k", "v"}, {"list", {1, 2}}},
                        finishes.callback());
    ASSERT_TRUE(single(finishes).result);
    const std::string body = "{\n  \"k\": \"v\",\n  \"list\": [\n    1,\n    2\n  ]\n}";
    EXPECT_EQ(console.lines(), (std::vector<std::string>{
                                   "request url: " + server.url("/ok"),
                                   "request headers {}",
                                   "request paramters " + body,
                                   "response url {\n  \"n\": [\n    1\n  ],\n  \"ok\": true\n}",
                               }));
    const auto requests = server.requests();
    EXPECT_EQ(requests.back().method, "POST");
    EXPECT_EQ(requests.back().body, body);

    // Nothing parsed, nothing to print; the error still comes.
    console.clear();
    expectError(get(server.url("/abc")), -10001, "json convert error");
    EXPECT_EQ(console.lines().back(), "response url (null)");
    // No body: no response line at all.
    console.clear();
    expectError(get(server.url("/empty")), -10000, "request error");
    EXPECT_EQ(console.lines().size(), 2u);
}

TEST_F(QelDNSRequestTest, SendsContentTypeFirstThenTheCallersHeadersAsText) {
    RawHttpServer raw([](RawHttpServer&, int fd, const std::string&) {
        RawHttpServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}");
    });
    const json headers = {{"X-Str", "s"},    {"X-Num", 7},      {"X-Float", 5.5},
                          {"X-Neg", -12},    {"X-Bool", true},  {"X-Null", nullptr},
                          {"X-List", {1, "a"}}, {"X-Third", 1.0 / 3}};
    ASSERT_TRUE(get(raw.url("/h"), headers).result);
    std::vector<std::string> custom;
    for (const auto& line : headerLines(raw.requests().at(0))) {
        if (line.rfind("Content-Type", 0) == 0 || line.rfind("X-", 0) == 0) custom.push_back(line);
    }
    EXPECT_EQ(custom, (std::vector<std::string>{
                          "Content-Type: application/json;charset=UTF-8",
                          "X-Bool: 1",
                          "X-Float: 5.5",
                          "X-List: [1,\"a\"]",
                          "X-Neg: -12",
                          "X-Null: <null>",
                          "X-Num: 7",
                          "X-Str: s",
                          "X-Third: 0.3333333333333333",
                      }));
    // A GET carries no body.
    const std::string request = raw.requests().at(0);
    EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), "");

    // The caller's Content-Type, in any case, replaces the default; headers or a body that
    // are not objects count as empty objects.
    Finishes finishes;
    QelDNSRequest::post(raw.url("/p"), {{"content-type", "text/plain"}}, json::array({1, 2}),
                        finishes.callback());
    ASSERT_TRUE(single(finishes).result);
    std::vector<std::string> contentTypes;
    for (const auto& line : headerLines(raw.requests().at(1))) {
        if (line.size() > 13 && strncasecmp(line.c_str(), "content-type:", 13) == 0) {
            contentTypes.push_back(line);
        }
    }
    EXPECT_EQ(contentTypes, (std::vector<std::string>{"content-type: text/plain"}));
    EXPECT_EQ(raw.requests().at(1).substr(raw.requests().at(1).find("\r\n\r\n") + 4), "{}");

    console.clear();
    ASSERT_TRUE(get(raw.url("/n"), json::array({1})).result);
    EXPECT_EQ(console.lines().at(1), "request headers {}");
}

TEST_F(QelDNSRequestTest, PercentEncodesTheWholeUrlOnce) {
    // Read off the request line as sent; an HTTP library would decode (or reject) the target.
    RawHttpServer raw([](RawHttpServer&, int fd, const std::string&) {
        RawHttpServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}");
    });
    const std::string given = raw.url("/p a/\xc3\xa9?q=%41&k=v~!$'()*+,;=:@/?#frag");
    ASSERT_TRUE(get(given).result);
    ASSERT_TRUE(get(raw.url("/\"<>\\^`{|}[]")).result);
    const auto requests = raw.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].substr(0, requests[0].find("\r\n")),
              "GET /p%20a/%C3%A9?q=%2541&k=v~!$'()*+,;=:@/?%23frag HTTP/1.1");
    EXPECT_EQ(requests[1].substr(0, requests[1].find("\r\n")),
              "GET /%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D HTTP/1.1");
    EXPECT_EQ(console.lines().at(0), "request url: " + given);
}

TEST_F(QelDNSRequestTest, AnAbsentOrEmptyUrlSendsLogsAndCallsNothing) {
    server.respond("/sentinel", 200, "{}");
    Finishes ignored;
    QelDNSRequest::get(std::nullopt, {{"a", 1}}, ignored.callback());
    QelDNSRequest::get(std::string(), json::object(), ignored.callback());
    QelDNSRequest::post(std::nullopt, json::object(), {{"b", 2}}, ignored.callback());
    QelDNSRequest::baseRequest(1, std::string(), json::object(), json::object(), ignored.callback());
    EXPECT_TRUE(console.lines().empty());

    // A request made afterwards is answered after anything the ones above could have started.
    ASSERT_TRUE(get(server.url("/sentinel")).result);
    EXPECT_EQ(ignored.count(), 0u);
    EXPECT_EQ(server.requests().size(), 1u);
    ASSERT_FALSE(console.lines().empty());
    EXPECT_EQ(console.lines().front(), "request url: " + server.url("/sentinel"));
}

TEST_F(QelDNSRequestTest, TakesItsTimeoutFromTheManagerAtEachRequest) {
    server.hold("/held", R"({"late":true})");
    Finishes defaultTimeout, shortTimeout, negativeTimeout;

    QelHttpDnsManager::shared().setTimeout(0.0);  // 20 s
    QelDNSRequest::get(server.url("/held"), json::object(), defaultTimeout.callback());
    QelHttpDnsManager::shared().setTimeout(0.3);
    QelDNSRequest::get(server.url("/held"), json::object(), shortTimeout.callback());
    QelHttpDnsManager::shared().setTimeout(-1.0);
    QelDNSRequest::get(server.url("/held"), json::object(), negativeTimeout.callback());

    // The short ones end at their timeouts while the server still holds its answer...
    expectError(single(shortTimeout), -30000, "request error");
    expectError(single(negativeTimeout), -30000, "request error");
    EXPECT_EQ(defaultTimeout.count(), 0u);
    // ...and the request made with 0.0 still waits for it.
    server.releaseHeld();
    const Outcome late = single(defaultTimeout);
    ASSERT_TRUE(late.result);
    EXPECT_EQ(*late.result, json::parse(R"({"late":true})"));

    // A server that goes silent in the middle of a 200's body: the timeout ends it as code 200.
    RawHttpServer silentInBody([](RawHttpServer& self, int fd, const std::string&) {
        RawHttpServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 40\r\n\r\n{\"a\":");
        self.holdUntilReleased();
    });
    QelHttpDnsManager::shared().setTimeout(0.2);
    expectError(get(silentInBody.url("/")), 200, "request error");
}

TEST_F(QelDNSRequestTest, RequestsFromManyThreadsEachGetTheirOwnAnswer) {
    server.route("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.set_content(json({{"id", request.get_param_value("id")}}).dump(), "application/json");
    });
    constexpr int kThreads = 4, kPerThread = 20;
    std::vector<Finishes> finishes(kThreads * kPerThread);
    std::atomic<bool> sending{true};
    // The timeout is changed by the application while requests read it.
    std::thread settings([&] {
        for (int i = 0; sending; ++i) QelHttpDnsManager::shared().setTimeout(i % 2 ? 10.0 : 0.0);
    });
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const int id = t * kPerThread + i;
                const std::string url = server.url("/echo?id=" + std::to_string(id));
                if (i % 2) {
                    QelDNSRequest::get(url, {{"X-Id", id}}, finishes[id].callback());
                } else {
                    QelDNSRequest::post(url, {{"X-Id", id}}, {{"id", id}}, finishes[id].callback());
                }
            }
        });
    }
    for (auto& sender : senders) sender.join();
    sending = false;
    settings.join();
    for (int id = 0; id < kThreads * kPerThread; ++id) {
        SCOPED_TRACE(id);
        const Outcome outcome = single(finishes[id]);
        ASSERT_TRUE(outcome.result);
        EXPECT_EQ(*outcome.result, json({{"id", std::to_string(id)}}));
    }
    size_t urlLines = 0;
    for (const auto& line : console.lines()) urlLines += line.rfind("request url: ", 0) == 0;
    EXPECT_EQ(urlLines, static_cast<size_t>(kThreads * kPerThread));
}
