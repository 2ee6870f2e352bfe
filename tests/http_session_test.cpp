// The shared HTTP session against real servers on loopback.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <string>

#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "support/CallRecorder.h"
#include "support/CapturingConsole.h"
#include "support/DescriptorShortage.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawHttpServer.h"

using qel::platform::CurlHttpSession;
using qel::platform::HttpMethod;
using qel::platform::HttpRequest;
using qel::platform::HttpResponse;
using qel::test::LoopbackHttpServer;
using qel::test::RawHttpServer;
using Responses = qel::test::CallRecorder<HttpResponse>;

namespace {

const char kRawOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}";

HttpRequest get(const std::string& url, double timeout = 10.0) {
    return {HttpMethod::Get, url, {}, "", timeout};
}

// Sends one request on the shared session and waits for its single completion.
HttpResponse exchange(HttpRequest request) {
    Responses responses;
    CurlHttpSession::shared().send(std::move(request), responses.callback());
    EXPECT_TRUE(responses.waitFor(1));
    const auto calls = responses.calls();
    if (calls.size() != 1) {
        ADD_FAILURE() << calls.size() << " completions";
        return {};
    }
    EXPECT_TRUE(calls[0].onPlatformThread);
    return std::get<0>(calls[0].arguments);
}

HttpResponse fetch(const std::string& url, double timeout = 10.0) {
    return exchange(get(url, timeout));
}

}  // namespace

TEST(CurlHttpSession, ReusesAKeptAliveConnectionAndRunsRequestsAtOnce) {
    LoopbackHttpServer server;
    server.respond("/a", 200, R"({"n":1})");
    for (int i = 0; i < 5; ++i) {
        const HttpResponse response = fetch(server.url("/a"));
        EXPECT_FALSE(response.error);
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_EQ(response.body, R"({"n":1})");
    }
    std::set<int> connections;
    for (const auto& request : server.requests()) connections.insert(request.remotePort);
    EXPECT_EQ(connections.size(), 1u);

    // The server holds all four requests before it answers any.
    server.hold("/held");
    Responses held;
    for (int i = 0; i < 4; ++i) {
        CurlHttpSession::shared().send(get(server.url("/held")), held.callback());
    }
    EXPECT_TRUE(server.waitUntilHeld(4));
    server.releaseHeld();
    EXPECT_TRUE(held.waitFor(4));
}

TEST(CurlHttpSession, KeepsWorkingAsConnectionsCloseAndDescriptorsAreReused) {
    // Every answer closes its connection, so each request opens a socket that tends to get the
    // descriptor number of the one just closed; timed-out and refused attempts between them
    // close sockets in other states (waiting to read, connecting).
    RawHttpServer closing, silent, refusing(/*listening=*/false);
    for (int i = 0; i < 10; ++i) {
        auto answered = closing.answerNext(kRawOk);
        const HttpResponse response = fetch(closing.url("/"), 5.0);
        EXPECT_FALSE(response.error) << i;
        EXPECT_EQ(response.body, "{}");
        EXPECT_TRUE(fetch((i % 2 ? silent : refusing).url("/"), 0.05).error) << i;
    }
}

TEST(CurlHttpSession, TimeoutBoundsTheWholeExchangeAndNonsenseValuesFailFast) {
    // Headers and part of the body arrive, then the server goes silent.
    RawHttpServer server;
    auto answered =
        server.answerNext("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"partial\"", true);
    const HttpResponse response = fetch(server.url("/"), 0.2);
    EXPECT_TRUE(response.error);
    EXPECT_EQ(response.statusCode, 200);
    EXPECT_EQ(response.body, "{\"partial\"");

    // Never answered: these connections wait in the backlog.
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    for (double timeout : {0.0, -1.0, std::nan(""), 1e-9, -kInfinity}) {
        EXPECT_TRUE(fetch(server.url("/"), timeout).error) << timeout;
    }
}

TEST(CurlHttpSession, DestroyingASessionEndsItsPendingRequests) {
    LoopbackHttpServer server;
    server.hold("/held");
    Responses responses;
    {
        qel::platform::EventLoop loop;
        CurlHttpSession session(loop);
        session.send(get(server.url("/held")), responses.callback());
        ASSERT_TRUE(server.waitUntilHeld(1));
    }
    // The completion ran before the destructor returned.
    ASSERT_EQ(responses.count(), 1u);
    EXPECT_TRUE(std::get<0>(responses.calls()[0].arguments).error);
}

TEST(CurlHttpSession, RequestsFailWithoutThrowingUntilThePlatformThreadCanStart) {
    if (qel::test::DescriptorShortage::sanitizerNeedsDescriptors()) {
        GTEST_SKIP() << "UBSan's vptr check needs descriptors this test takes away";
    }
    // Runs in a fresh process, whose platform thread has not started yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            qel::test::CapturingConsole console;
            LoopbackHttpServer server;
            server.respond("/ok", 200, "{}");
            qel::test::DescriptorShortage shortage(1);  // the loop needs two
            std::string early;
            for (int i = 0; i < 2; ++i) {
                CurlHttpSession::shared().send(get(server.url("/ok")), [&early](HttpResponse r) {
                    early += r.error && r.statusCode == 0 ? "failed " : "other ";
                });
            }
            // The failed starts gave their descriptor back.
            const bool leaked = !shortage.isLowestFree(shortage.freeSlots()[0]);
            shortage.restore();
            const HttpResponse later = fetch(server.url("/ok"));
            std::fprintf(stderr, "[%s] %s, %zu log line, then %s\n", early.c_str(),
                         leaked ? "leak" : "no leak", console.lines().size(), later.body.c_str());
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "\\[failed failed \\] no leak, 1 log line, then \\{\\}");
}
