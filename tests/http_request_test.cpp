// QelDNSRequest against real servers on loopback, through the shared session.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawHttpServer.h"

using nlohmann::json;
using qel::test::RawHttpServer;
using Finishes = qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<json>>;

namespace {

const char kRawOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}";
const char kNotJson[] = "-10001 json convert error";
constexpr size_t kBound = qel::platform::CurlHttpSession::kMaxResponseBodyBytes;

// Waits for the one finish of a request, which must run on the platform thread with exactly
// one of error and result; describes it as "<code> <message>" or the result's JSON.
std::string outcome(const Finishes& finishes) {
    EXPECT_TRUE(finishes.waitFor(1));
    const auto calls = finishes.calls();
    if (calls.size() != 1) return std::to_string(calls.size()) + " finishes";
    EXPECT_TRUE(calls[0].onPlatformThread);
    const auto& [error, result] = calls[0].arguments;
    EXPECT_NE(error.has_value(), result.has_value());
    if (result) return result->dump();
    return error ? std::to_string(error->code()) + " " + error->localizedDescription() : "nothing";
}

std::string get(const std::string& url, const json& headers = json::object()) {
    Finishes finishes;
    QelDNSRequest::get(url, headers, finishes.callback());
    return outcome(finishes);
}

class QelDNSRequestTest : public ::testing::Test {
protected:
    void TearDown() override { QelHttpDnsManager::shared().setTimeout(0.0); }

    qel::test::CapturingConsole console;
    qel::test::LoopbackHttpServer server;
};

}  // namespace

TEST_F(QelDNSRequestTest, MapsEachKindOfAnswerToAResultOrAnError) {
    const std::string deepest = std::string(512, '[') + std::string(512, ']');
    const std::string bracketsInString = "[\"" + std::string(2000, '[') + "\"]";
    std::string deepWithValues;  // 513 levels that do not open one right after another
    for (int i = 0; i < 513; ++i) deepWithValues += "[1,";
    deepWithValues += "1" + std::string(513, ']');
    const struct { int status; std::string body, expected; } cases[] = {
        {500, R"({"status":500,"message":"down"})", R"({"message":"down","status":500})"},
        {200, R"([1,{"a":2}])", R"([1,{"a":2}])"},
        {200, "", "-10000 request error"},
        {200, "abc", kNotJson},
        {200, "123", kNotJson},
        {200, deepest, deepest},
        {200, "[" + deepest + "]", kNotJson},
        {200, deepWithValues, kNotJson},
        {200, std::string(200000, '['), kNotJson},
        {200, bracketsInString, bracketsInString},
        // Over the size bound (counted after decoding): a transport failure of a 200.
        {200, "[" + std::string(kBound - 2, ' ') + "]", "[]"},
        {200, "[" + std::string(kBound - 1, ' ') + "]", "200 request error"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        server.respond("/" + std::to_string(i), cases[i].status, cases[i].body);
        EXPECT_EQ(get(server.url("/" + std::to_string(i))), cases[i].expected) << "case " << i;
    }
    RawHttpServer refusing(/*listening=*/false), cutting;
    EXPECT_EQ(get(refusing.url("/")), "-30000 request error");
    // The connection is cut after the head of a 200: a transport error with that status.
    auto answered = cutting.answerNext("HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n{\"a\"");
    EXPECT_EQ(get(cutting.url("/")), "200 request error");
}

TEST_F(QelDNSRequestTest, LogsTheExchangeOnTheConsoleWhateverTheLogSwitch) {
    server.respond("/ok", 200, R"({"ok":true,"n":[1]})");
    server.respond("/abc", 200, "abc");
    server.respond("/empty", 200, "");
    get(server.url("/ok?x=a b"), {{"b", "2"}, {"a", 1}});
    Finishes finishes;
    QelDNSRequest::post(server.url("/ok"), json::object(), {{"k", "v"}, {"list", {1, 2}}},
                        finishes.callback());
    outcome(finishes);
    get(server.url("/abc"));
    get(server.url("/empty"));
    const std::string answer = "response url {\n  \"n\": [\n    1\n  ],\n  \"ok\": true\n}";
    const std::string body = "{\n  \"k\": \"v\",\n  \"list\": [\n    1,\n    2\n  ]\n}";
    EXPECT_EQ(console.lines(),
              (std::vector<std::string>{
                  "request url: " + server.url("/ok?x=a b"),
                  "request headers {\n  \"a\": 1,\n  \"b\": \"2\"\n}", answer,
                  "request url: " + server.url("/ok"), "request headers {}",
                  "request paramters " + body, answer,
                  "request url: " + server.url("/abc"), "request headers {}", "response url (null)",
                  "request url: " + server.url("/empty"), "request headers {}"}));
    EXPECT_EQ(server.requests().at(1).body, body);
}

TEST_F(QelDNSRequestTest, SendsContentTypeFirstThenTheCallersHeadersAsSafeText) {
    RawHttpServer raw;
    auto answered = raw.answerNext(kRawOk);
    get(raw.url("/h"), {{"X-Str", "s"}, {"X-Num", 7}, {"X-Float", 5.5}, {"X-Neg", -12},
                        {"X-Bool", true}, {"X-Null", nullptr}, {"X-List", {1, "a"}},
                        {"X-Third", 1.0 / 3}, {"X-Empty", ""}, {"X-Bad", "a\r\nX-Injected: 1"},
                        {"X-Colon:", "v"}, {"Bad Name", "v"}});
    EXPECT_EQ(RawHttpServer::headerLines(answered.get(), {"Content-Type", "X-", "Bad"}),
              (std::vector<std::string>{"Content-Type: application/json;charset=UTF-8", "X-Bool: 1",
                                        "X-Empty:", "X-Float: 5.5", "X-List: [1,\"a\"]",
                                        "X-Neg: -12", "X-Null: <null>", "X-Num: 7", "X-Str: s",
                                        "X-Third: 0.3333333333333333"}));

    // The caller's Content-Type, in any case, replaces the default where it stands. A large
    // body goes at once, without waiting for a "100 Continue".
    answered = raw.answerNext(kRawOk);
    const json body = {{"pad", std::string(2 << 20, 'b')}};
    Finishes finishes;
    QelDNSRequest::post(raw.url("/p"), {{"A", "1"}, {"content-type", "text/plain"}}, body,
                        finishes.callback());
    EXPECT_EQ(outcome(finishes), "{}");
    const std::string request = answered.get();
    EXPECT_EQ(RawHttpServer::headerLines(request, {"Content-Type", "A:", "Expect"}),
              (std::vector<std::string>{"content-type: text/plain", "A: 1"}));
    EXPECT_EQ(request.substr(request.find("\r\n\r\n") + 4), body.dump(2));
}

TEST_F(QelDNSRequestTest, SendsTheUrlExactlyAsThePercentEncodingLeavesIt) {
    // Read off the request line as sent; an HTTP library would decode (or reject) the target.
    // Dot segments stay: an AuthId of ".." must not turn "/../service" into "/service".
    RawHttpServer raw;
    auto answered = raw.answerNext(kRawOk);
    EXPECT_EQ(get(raw.url("/p a/./x/../\xc3\xa9?q=%41&k=v~!$'()*+,;=:@/?\"<>\\^`{|}[]#frag")),
              "{}");
    const std::string request = answered.get();
    EXPECT_EQ(request.substr(0, request.find("\r\n")),
              "GET /p%20a/./x/../%C3%A9?q=%2541&k=v~!$'()*+,;=:@/?%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D"
              "%23frag HTTP/1.1");
}

TEST_F(QelDNSRequestTest, AnAbsentOrEmptyUrlSendsLogsAndCallsNothing) {
    server.respond("/sentinel", 200, "{}");
    Finishes ignored;
    QelDNSRequest::get(std::nullopt, {{"a", 1}}, ignored.callback());
    QelDNSRequest::post(std::string(), json::object(), {{"b", 2}}, ignored.callback());
    // A request made afterwards is answered after anything the ones above could have started.
    EXPECT_EQ(get(server.url("/sentinel")), "{}");
    EXPECT_EQ(ignored.count(), 0u);
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(console.lines().at(0), "request url: " + server.url("/sentinel"));
}

TEST_F(QelDNSRequestTest, TakesItsTimeoutFromTheManagerAtEachRequest) {
    server.hold("/held", R"({"late":true})");
    Finishes finishes[3];  // made with 0.0 (20 s), 0.3 and -1 (the shortest bound)
    const double timeouts[3] = {0.0, 0.3, -1.0};
    for (int i = 0; i < 3; ++i) {
        QelHttpDnsManager::shared().setTimeout(timeouts[i]);
        QelDNSRequest::get(server.url("/held"), json::object(), finishes[i].callback());
    }
    // The short ones end at their timeouts while the server still holds its answer...
    EXPECT_EQ(outcome(finishes[1]), "-30000 request error");
    EXPECT_EQ(outcome(finishes[2]), "-30000 request error");
    EXPECT_EQ(finishes[0].count(), 0u);
    // ...and the one made with 0.0 still waits for it.
    server.releaseHeld();
    EXPECT_EQ(outcome(finishes[0]), R"({"late":true})");
}

TEST_F(QelDNSRequestTest, RequestsFromManyThreadsEachGetTheirOwnAnswer) {
    server.route("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.set_content(json({{"id", request.get_param_value("id")}}).dump(),
                             "application/json");
    });
    constexpr int kThreads = 4, kPerThread = 20;
    std::vector<Finishes> finishes(kThreads * kPerThread);
    std::atomic<bool> sending{true};
    // The application changes the timeout while requests read it.
    std::thread settings([&] {
        for (int i = 0; sending; ++i) QelHttpDnsManager::shared().setTimeout(i % 2 ? 10.0 : 0.0);
    });
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int id = t * kPerThread; id < (t + 1) * kPerThread; ++id) {
                QelDNSRequest::baseRequest(id % 2, server.url("/echo?id=" + std::to_string(id)),
                                           {{"X-Id", id}}, {{"id", id}}, finishes[id].callback());
            }
        });
    }
    for (auto& sender : senders) sender.join();
    sending = false;
    settings.join();
    for (int id = 0; id < kThreads * kPerThread; ++id) {
        EXPECT_EQ(outcome(finishes[id]), json({{"id", std::to_string(id)}}).dump());
    }
}
