// The shared HTTP session against real servers on loopback.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Platform/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/EventLoop.h"
#include "support/CallRecorder.h"
#include "support/LoopbackHttpServer.h"
#include "support/RawHttpServer.h"

using qel::platform::CurlHttpSession;
using qel::platform::EventLoop;
using qel::platform::HttpMethod;
using qel::platform::HttpRequest;
using qel::platform::HttpResponse;
using qel::test::CallRecorder;
using qel::test::LoopbackHttpServer;
using qel::test::RawHttpServer;

namespace {

using Responses = CallRecorder<HttpResponse>;

HttpRequest get(const std::string& url, double timeout = 10.0) {
    HttpRequest request;
    request.url = url;
    request.timeoutSeconds = timeout;
    return request;
}

HttpRequest post(const std::string& url, const std::string& body) {
    HttpRequest request = get(url);
    request.method = HttpMethod::Post;
    request.body = body;
    return request;
}

const HttpResponse& responseOf(const Responses::Call& call) { return std::get<0>(call.arguments); }

// Sends one request on the shared session and waits for its single completion.
HttpResponse exchange(HttpRequest request) {
    Responses responses;
    CurlHttpSession::shared().send(std::move(request), responses.callback());
    EXPECT_TRUE(responses.waitFor(1));
    const auto calls = responses.calls();
    EXPECT_EQ(calls.size(), 1u);
    if (calls.empty()) return {};
    EXPECT_TRUE(calls[0].onPlatformThread);
    return responseOf(calls[0]);
}

const char kRawOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n{}";

}  // namespace

TEST(CurlHttpSession, ReusesOneKeptAliveConnectionForSequentialRequests) {
    LoopbackHttpServer server;
    server.respond("/a", 200, R"({"n":1})");
    for (int i = 0; i < 5; ++i) {
        const HttpResponse response = exchange(get(server.url("/a")));
        EXPECT_FALSE(response.error) << *response.error;
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_EQ(response.body, R"({"n":1})");
    }
    std::set<int> connections;
    for (const auto& request : server.requests()) connections.insert(request.remotePort);
    EXPECT_EQ(server.requests().size(), 5u);
    EXPECT_EQ(connections.size(), 1u);
}

TEST(CurlHttpSession, RunsRequestsConcurrentlyAndAnswersEachSenderFromManyThreads) {
    LoopbackHttpServer server;
    // Several requests are in flight at once: the server holds them all before answering any.
    server.hold("/held", R"({"held":true})");
    Responses held;
    for (int i = 0; i < 4; ++i) CurlHttpSession::shared().send(get(server.url("/held")), held.callback());
    ASSERT_TRUE(server.waitUntilHeld(4));
    EXPECT_EQ(held.count(), 0u);
    server.releaseHeld();
    ASSERT_TRUE(held.waitFor(4));

    server.route("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.set_content(request.get_param_value("id"), "text/plain");
    });
    constexpr int kThreads = 4, kPerThread = 25;
    std::vector<Responses> perRequest(kThreads * kPerThread);
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const int id = t * kPerThread + i;
                CurlHttpSession::shared().send(get(server.url("/echo?id=" + std::to_string(id))),
                                               perRequest[id].callback());
            }
        });
    }
    for (auto& sender : senders) sender.join();
    for (int id = 0; id < kThreads * kPerThread; ++id) {
        ASSERT_TRUE(perRequest[id].waitFor(1)) << id;
        const auto calls = perRequest[id].calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(calls[0].onPlatformThread);
        EXPECT_EQ(responseOf(calls[0]).body, std::to_string(id));
    }
    // Kept-alive connections are shared by all those requests.
    std::set<int> connections;
    for (const auto& request : server.requests()) connections.insert(request.remotePort);
    EXPECT_LE(connections.size(), static_cast<size_t>(CurlHttpSession::kMaxConnectionsPerHost));
}

TEST(CurlHttpSession, KeepsWorkingAsConnectionsCloseAndDescriptorsAreReused) {
    // Every answer closes its connection, so each request opens a socket that tends to get
    // the descriptor number of the one just closed; timed-out and refused attempts between
    // them close sockets in other states (waiting to read, connecting).
    RawHttpServer closing(
        [](RawHttpServer&, int fd, const std::string&) { RawHttpServer::writeAll(fd, kRawOk); });
    RawHttpServer silent([](RawHttpServer& self, int, const std::string&) { self.holdUntilReleased(); });
    qel::test::RefusingPort refusing;
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        HttpResponse response = exchange(get(closing.url("/"), 5.0));
        ASSERT_FALSE(response.error) << *response.error;
        EXPECT_EQ(response.body, "{}");
        EXPECT_TRUE(exchange(get(i % 2 ? silent.url("/") : refusing.url("/"), 0.05)).error);
    }
    EXPECT_EQ(closing.requests().size(), 10u);
}

TEST(CurlHttpSession, FollowsRedirectsAsABrowserDoes) {
    LoopbackHttpServer server;
    server.respond("/final", 200, R"({"at":"final"})");
    server.route("/echo", [](const httplib::Request& request, httplib::Response& response) {
        response.set_content(request.method + " " + request.body, "text/plain");
    });
    auto redirect = [&](const std::string& from, int status, const std::string& to) {
        server.route(from, [status, to](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            response.set_header("Location", to);
        });
    };
    redirect("/moved", 302, "/final");
    redirect("/see-other", 303, "/echo");
    redirect("/temporary", 307, "/echo");
    redirect("/loop", 302, "/loop");
    redirect("/to-file", 302, "file:///etc/hostname");

    HttpResponse response = exchange(get(server.url("/moved")));
    EXPECT_FALSE(response.error);
    EXPECT_EQ(response.statusCode, 200);
    EXPECT_EQ(response.body, R"({"at":"final"})");

    EXPECT_EQ(exchange(post(server.url("/see-other"), "{}")).body, "GET ");
    EXPECT_EQ(exchange(post(server.url("/temporary"), R"({"k":1})")).body, R"(POST {"k":1})");

    response = exchange(get(server.url("/loop")));
    EXPECT_TRUE(response.error);
    EXPECT_EQ(response.statusCode, 302);

    response = exchange(get(server.url("/to-file")));
    EXPECT_TRUE(response.error);
    EXPECT_EQ(response.body, "");
}

TEST(CurlHttpSession, EndsAnswersLargerThanTheBoundAsTransportErrors) {
    constexpr size_t kBound = CurlHttpSession::kMaxResponseBodyBytes;
    LoopbackHttpServer server;
    server.route("/exact", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(kBound, 'x'), "application/octet-stream");
    });
    server.route("/declared-over", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(std::string(2 * kBound, 'x'), "application/octet-stream");
    });
    // Chunked, so no length is announced and only the bytes themselves can be counted; and
    // compressible, so the decoded size is what must count.
    server.route("/streamed-over", [&](const httplib::Request&, httplib::Response& response) {
        response.set_chunked_content_provider("text/plain", [&](size_t, httplib::DataSink& sink) {
            const std::string half(kBound / 2, 'y');
            sink.write(half.data(), half.size());
            sink.write(half.data(), half.size());
            sink.write("z", 1);
            sink.done();
            return true;
        });
    });

    HttpResponse response = exchange(get(server.url("/exact")));
    EXPECT_FALSE(response.error);
    EXPECT_EQ(response.body.size(), kBound);

    for (const char* path : {"/declared-over", "/streamed-over"}) {
        SCOPED_TRACE(path);
        response = exchange(get(server.url(path)));
        ASSERT_TRUE(response.error);
        EXPECT_NE(response.error->find("larger than"), std::string::npos) << *response.error;
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_LE(response.body.size(), kBound);
    }
}

TEST(CurlHttpSession, TimeoutBoundsTheWholeExchangeAndNonsenseValuesFailFast) {
    // Headers and part of the body arrive, then the server goes silent.
    RawHttpServer silentAfterHeaders([](RawHttpServer& self, int fd, const std::string&) {
        RawHttpServer::writeAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"partial\"");
        self.holdUntilReleased();
    });
    HttpResponse response = exchange(get(silentAfterHeaders.url("/"), 0.2));
    ASSERT_TRUE(response.error);
    EXPECT_EQ(response.statusCode, 200);
    EXPECT_EQ(response.body, "{\"partial\"");

    LoopbackHttpServer server;
    server.hold("/held");
    for (double timeout : {0.0, -1.0, std::nan(""), 1e-9, -std::numeric_limits<double>::infinity()}) {
        SCOPED_TRACE(timeout);
        response = exchange(get(server.url("/held"), timeout));
        EXPECT_TRUE(response.error);
        EXPECT_EQ(response.statusCode, 0);
    }
}

TEST(CurlHttpSession, FetchesOnlyHttpAndHttpsUrls) {
    LoopbackHttpServer server;
    server.respond("/x", 200, "{}");
    const std::string schemeless = server.url("/x").substr(std::string("http://").size());
    for (const std::string& url :
         {std::string("file:///etc/hostname"), std::string("ftp://127.0.0.1/"), schemeless,
          std::string(""), std::string("http://")}) {
        SCOPED_TRACE(url);
        const HttpResponse response = exchange(get(url));
        EXPECT_TRUE(response.error);
        EXPECT_EQ(response.statusCode, 0);
        EXPECT_EQ(response.body, "");
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(exchange(get("HTTP://" + schemeless)).error);
}

TEST(CurlHttpSession, SendsHeadersInOrderWithoutInjectedLinesOrAnExpectWait) {
    RawHttpServer server(
        [](RawHttpServer&, int fd, const std::string&) { RawHttpServer::writeAll(fd, kRawOk); });
    HttpRequest request = post(server.url("/h"), std::string(64 * 1024, 'b'));
    request.headers = {{"X-B", "2"},
                       {"X-A", "1"},
                       {"X-Empty", ""},
                       {"X-Bad", "a\r\nX-Injected: 1"},
                       {"Bad Name", "v"},
                       {"X-Colon:", "v"},
                       {"X-Last", "z"}};
    const HttpResponse response = exchange(std::move(request));
    ASSERT_FALSE(response.error) << *response.error;

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const std::string& raw = requests[0];
    const size_t headEnd = raw.find("\r\n\r\n");
    const std::string head = raw.substr(0, headEnd + 2);
    const size_t b = head.find("\r\nX-B: 2\r\n"), a = head.find("\r\nX-A: 1\r\n"),
                 empty = head.find("\r\nX-Empty:\r\n"), last = head.find("\r\nX-Last: z\r\n");
    ASSERT_NE(b, std::string::npos) << head;
    ASSERT_NE(a, std::string::npos) << head;
    ASSERT_NE(empty, std::string::npos) << head;
    ASSERT_NE(last, std::string::npos) << head;
    EXPECT_LT(b, a);
    EXPECT_LT(a, empty);
    EXPECT_LT(empty, last);
    for (const char* absent : {"X-Injected", "X-Bad", "Bad Name", "X-Colon", "Expect"}) {
        EXPECT_EQ(head.find(absent), std::string::npos) << absent << " in\n" << head;
    }
    EXPECT_EQ(raw.substr(headEnd + 4), std::string(64 * 1024, 'b'));
}

TEST(CurlHttpSession, DestroyingASessionEndsItsPendingRequests) {
    LoopbackHttpServer server;
    server.hold("/held");
    Responses responses;
    {
        EventLoop loop;
        {
            CurlHttpSession session(loop);
            session.send(get(server.url("/held")), responses.callback());
            ASSERT_TRUE(server.waitUntilHeld(1));
        }
        // The completion ran before the destructor returned.
        const auto calls = responses.calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_TRUE(responseOf(calls[0]).error);
        EXPECT_EQ(responseOf(calls[0]).statusCode, 0);
    }
    EXPECT_EQ(responses.count(), 1u);
}
