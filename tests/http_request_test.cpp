// The HTTP transport against a real server on loopback: QelDNSRequest on the shared session,
// and the session itself.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/QelDNSApplication.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "support/CallRecorder.h"
#include "support/ChildProcess.h"
#include "support/CapturingConsole.h"
#include "support/DescriptorShortage.h"
#include "support/Eventually.h"
#include "support/LoopbackHttpServer.h"
#include "support/ScratchDirectory.h"

using nlohmann::json;
using Server = qel::test::LoopbackHttpServer;
using Finishes = qel::test::CallRecorder<std::optional<QelDNSError>, std::optional<json>>;
using qel::platform::CurlHttpSession;
using qel::platform::HttpResponse;
using Responses = qel::test::CallRecorder<HttpResponse>;

namespace {

const char kNotJson[] = "-10001 json convert error";
constexpr size_t kBound = CurlHttpSession::kMaxResponseBodyBytes;

// Waits for the one finish of a request, which must run on the platform thread with exactly
// one of error and result; describes it as "<code> <message>" or the result's JSON.
std::string outcome(const Finishes& finishes) {
    EXPECT_TRUE(finishes.waitFor(1));
    const auto calls = finishes.calls();
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_TRUE(calls.at(0).onPlatformThread);
    const auto& [error, result] = calls.at(0).arguments;
    EXPECT_NE(error.has_value(), result.has_value());
    if (result) return result->dump();
    return error ? std::to_string(error->code()) + " " + error->localizedDescription() : "nothing";
}

std::string get(const std::string& url, const json& headers = json::object()) {
    Finishes finishes;
    QelDNSRequest::get(url, headers, finishes.callback());
    return outcome(finishes);
}

qel::platform::HttpRequest plainGet(const std::string& url, double timeout = 10.0) {
    return {qel::platform::HttpMethod::Get, url, {}, "", timeout};
}

// Sends one request on the shared session and waits for its single completion.
HttpResponse fetch(const std::string& url, double timeout = 10.0) {
    Responses responses;
    CurlHttpSession::shared().send(plainGet(url, timeout), responses.callback());
    EXPECT_TRUE(responses.waitFor(1));
    EXPECT_TRUE(responses.calls().at(0).onPlatformThread);
    return std::get<0>(responses.calls().at(0).arguments);
}

class QelDNSRequestTest : public testing::Test {
protected:
    void TearDown() override { QelHttpDnsManager::shared().setTimeout(0.0); }

    qel::test::CapturingConsole console;
    Server server;
};

std::string nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

}  // namespace

auto openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// One row per kind of answer, well-formed or not: each request ends once, within its timeout,
// with a result or an error that carries the status its transfer reached (the lookup then
// leaves a node that gave no 200, and retries otherwise). Nothing the requests opened stays
// open once the service has gone.
TEST_F(QelDNSRequestTest, EachKindOfAnswerEndsTheRequestOnceWithAResultOrAnError) {
    qel::test::ScratchDirectory scratch;
    std::ofstream(scratch.file("answer.json")) << "[1]";
    const struct {
        Server::Reply reply;
        std::string expected;
        size_t requests = 1;
        double timeout = 2.0;
    } rows[] = {
        {Server::http(500, R"({"status":500,"message":"down"})"), R"({"message":"down","status":500})"},
        {Server::http(200, ""), "-10000 request error"},
        {Server::http(200, "123"), kNotJson},
        {Server::http(200, nested(512)), nested(512)},
        {Server::http(200, nested(513)), kNotJson},
        // Depth counts again once a string has ended.
        {Server::http(200, "[\"[\"," + nested(512) + "]"), kNotJson},
        // Over the size bound (counted after decoding), with a length or without one.
        {Server::http(200, "[" + std::string(kBound - 2, ' ') + "]"), "[]"},
        {Server::http(200, "[" + std::string(kBound - 1, ' ') + "]"), "200 request error"},
        {{Server::Reply::Write, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + std::string(kBound + 1, ' ')},
         "200 request error",
         1,
         5.0},
        // A compressed answer is read as the text it stands for.
        {Server::http(200,
                      std::string("\x1f\x8b\x08\0\0\0\0\0\x02\xff\x8b\x56\x4a\xaf\x52\x8a\x05\0\xa6\x6c\x75\x21\x06\0\0\0", 26),
                      "Content-Encoding: gzip\r\n"),
         R"(["gz"])"},
        {{Server::Reply::Write, "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\n{\"a\""}, "200 request error"},
        {Server::http(302, "", "Location: /again\r\n", true), "-30000 request error", 1 + CurlHttpSession::kMaxRedirects},
        // Followed, the redirect would read a good answer from the file.
        {Server::http(302, "", "Location: file://" + scratch.file("answer.json") + "\r\n", true), "-30000 request error"},
    };
    QelHttpDnsManager::shared().setTimeout(2.0);  // the manager, its thread and its session start
    server.serve({Server::http(200, "[0]", "", true)});
    EXPECT_EQ(get(server.url("/")), "[0]");
    ASSERT_TRUE(qel::test::eventually([&] { return server.openConnections() == 0; }));
    const auto descriptors = openDescriptors();
    for (const auto& row : rows) {
        server.serve({row.reply});
        QelHttpDnsManager::shared().setTimeout(row.timeout);
        const size_t before = server.requests().size();
        EXPECT_EQ(get(server.url("/")), row.expected) << row.reply.bytes.substr(0, 40);
        EXPECT_EQ(server.requests().size() - before, row.requests);
    }
    // An answer that looks reusable on a connection the server then closes: the next request
    // does not fail on the stale connection.
    server.serve({{Server::Reply::Write, Server::http(200, "[2]").bytes}, Server::http(200, "[2]", "", true)});
    EXPECT_EQ(get(server.url("/")), "[2]");
    ASSERT_TRUE(qel::test::eventually([&] { return server.openConnections() == 0; }));
    EXPECT_EQ(get(server.url("/")), "[2]");
    server.stop();
    EXPECT_EQ(get(server.url("/")), "-30000 request error");
    EXPECT_TRUE(qel::test::eventually([&] { return openDescriptors() == descriptors; }));
}

TEST_F(QelDNSRequestTest, SendsContentTypeFirstThenTheCallersHeadersAsSafeText) {
    server.respond("/h", 200, "{}");
    get(server.url("/h"), {{"X-Str", "s"},
                           {"X-Null", nullptr},
                           {"X-List", {1, "a"}},
                           {"X-Bad", "a\r\nX-Injected: 1"},
                           {"X-Colon:", "v"},
                           {"Bad Name", "v"}});
    EXPECT_EQ(server.requests().back().headerLines({"Content-Type", "X-", "Bad"}),
              (std::vector<std::string>{"Content-Type: application/json;charset=UTF-8", "X-List: [1,\"a\"]", "X-Null: <null>",
                                        "X-Str: s"}));
    // The caller's Content-Type, in any case, replaces the default where it stands. A large
    // body goes at once, without waiting for a "100 Continue".
    const json body = {{"pad", std::string(2 << 20, 'b')}};
    Finishes finishes;
    QelDNSRequest::post(server.url("/h"), {{"A", "1"}, {"content-type", "text/plain"}}, body, finishes.callback());
    EXPECT_EQ(outcome(finishes), "{}");
    const Server::Request request = server.requests().back();
    EXPECT_EQ(request.headerLines({"Content-Type", "A:", "Expect"}),
              (std::vector<std::string>{"content-type: text/plain", "A: 1"}));
    EXPECT_EQ(request.body(), body.dump(2));
}

// The URL goes as the percent-encoding leaves it, read off the request line. Dot segments
// stay: an AuthId of ".." must not turn "/../service" into "/service". Letters and digits
// stay, up to the last of each range. Without a URL nothing is sent, logged or called.
TEST_F(QelDNSRequestTest, SendsTheUrlAsThePercentEncodingLeavesItAndNothingWithoutOne) {
    Finishes ignored;
    QelDNSRequest::get(std::nullopt, {{"a", 1}}, ignored.callback());
    QelDNSRequest::post(std::string(), json::object(), {{"b", 2}}, ignored.callback());
    // Answered after anything the ones above could have started.
    server.serve({Server::http(200, "{}")});
    const std::string url = server.url("/azAZ09 a/./x/../\xc3\xa9?q=%41&k=v~!$'()*+,;=:@/?\"<>\\^`{|}[]#frag");
    EXPECT_EQ(get(url), "{}");
    EXPECT_EQ(server.requests().at(0).target(),
              "/azAZ09%20a/./x/../%C3%A9?q=%2541&k=v~!$'()*+,;=:@/?%22%3C%3E%5C%5E%60%7B%7C%7D%5B%5D"
              "%23frag");
    EXPECT_EQ(ignored.count(), 0u);
    EXPECT_EQ(server.requests().size(), 1u);
    // Every exchange is logged whatever the log switch says; one line stands for them all.
    EXPECT_EQ(console.lines().at(0), "request url: " + url);
    // An IPv6 literal host keeps its brackets (nothing listens on ::1 here: refused, not unusable).
    EXPECT_EQ(get("http://[::1]:1/[x]"), "-30000 request error");
    EXPECT_NE(console.lines().back().find("Couldn't connect"), std::string::npos) << console.lines().back();
}

TEST_F(QelDNSRequestTest, TakesItsTimeoutFromTheManagerAtEachRequest) {
    server.serve({{Server::Reply::Stall, ""}});
    Finishes finishes[3];  // made with 0.0 (20 s), 0.3 and -1 (the shortest bound)
    for (int i = 0; i < 3; ++i) {
        QelHttpDnsManager::shared().setTimeout(std::vector<double>{0.0, 0.3, -1.0}[i]);
        QelDNSRequest::get(server.url("/"), json::object(), finishes[i].callback());
    }
    // The short ones end at their timeouts, which also shows that requests do not wait for one
    // another, while the one made with 0.0 still waits.
    for (int i = 1; i < 3; ++i) EXPECT_EQ(outcome(finishes[i]), "-30000 request error");
    EXPECT_EQ(finishes[0].count(), 0u);
}

// The platform thread outlives its epoll descriptor closed under it (the number now another
// file): the next answer still arrives, and the log says what happened.
TEST(CurlHttpSession, AnswersAfterItsLoopLosesItsEpollDescriptor) {
    const auto epollDescriptors = [] {
        std::set<int> found;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (std::filesystem::read_symlink(entry.path(), error) == "anon_inode:[eventpoll]") {
                found.insert(std::stoi(entry.path().filename()));
            }
        }
        return found;
    };
    qel::test::CapturingConsole console;
    Server server;
    server.route("/", [](const Server::Request&) { return Server::http(200, "{}"); });
    const std::set<int> before = epollDescriptors();
    qel::platform::EventLoop loop;
    CurlHttpSession session(loop);
    std::set<int> mine = epollDescriptors();
    for (int fd : before) mine.erase(fd);
    ASSERT_EQ(mine.size(), 1u);
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(devNull, *mine.begin());
    close(devNull);
    for (int i = 0; i < 2; ++i) {
        Responses responses;
        session.send(plainGet(server.url("/")), responses.callback());
        ASSERT_TRUE(responses.waitFor(1));
        EXPECT_EQ(std::get<0>(responses.calls().at(0).arguments).statusCode, 200);
    }
    const auto lines = console.lines();
    EXPECT_EQ(lines.at(0).rfind("platform event loop: the epoll descriptor is lost (error 22); watching ", 0), 0u) << lines.at(0);
}

// A real proxy on loopback between the transport and the server: the environment's proxy is
// honoured as libcurl reads it, no_proxy and the application's own setting included.
TEST_F(QelDNSRequestTest, GoesThroughTheProxyTheEnvironmentOrTheApplicationNames) {
    const std::string tinyproxy = "/usr/bin/tinyproxy";
    if (access(tinyproxy.c_str(), X_OK) != 0) GTEST_SKIP() << "no tinyproxy (Debian package tinyproxy-bin; scripts/setup.sh)";
    const std::string proxy = "http://127.0.0.1:" + std::to_string(qel::test::freePort(SOCK_STREAM));
    const qel::test::TempFile config("Port " + proxy.substr(proxy.rfind(':') + 1) + "\nListen 127.0.0.1\nAllow 127.0.0.1\n");
    qel::test::ChildProcess running(tinyproxy, {"-d", "-c", config.path()});
    ASSERT_TRUE(qel::test::eventually([&] { return fetch(proxy + "/").statusCode != 0; })) << running.errors();
    server.route("/", [](const Server::Request&) { return Server::http(200, "{}"); });
    const struct {
        const char *what, *environment, *noProxy;
        std::optional<std::string> setting;
        const char* outcome;  // "via proxy", "direct" or the error
    } cases[] = {
        {"the environment's", proxy.c_str(), "", std::nullopt, "via proxy"},
        {"no_proxy names the service", proxy.c_str(), "localhost,127.0.0.1", std::nullopt, "direct"},
        {"the application says none", proxy.c_str(), "", "", "direct"},
        {"the application's own", "", "", proxy, "via proxy"},
        {"the application's own, down", "", "", "http://127.0.0.1:1", "-30000 request error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        setenv("http_proxy", c.environment, 1);
        setenv("no_proxy", c.noProxy, 1);
        QelDNSApplication::setProxy(c.setting);
        const size_t before = server.requests().size();
        const std::string result = get(server.url("/"));
        if (result == "{}" && server.requests().size() == before + 1) {
            const bool via = server.requests().back().header("Via").find("tinyproxy") != std::string::npos;
            EXPECT_EQ(via ? "via proxy" : "direct", std::string(c.outcome));
        } else {
            EXPECT_EQ(result, c.outcome);
        }
    }
    unsetenv("http_proxy");
    unsetenv("no_proxy");
    QelDNSApplication::setProxy(std::nullopt);
}

// A request the server never answers still ends: with its session, before the session's
// destructor returns, and at once on a nonsense timeout.
TEST(CurlHttpSession, AStalledRequestEndsWithItsSessionOrOnANonsenseTimeout) {
    Server server;
    server.serve({{Server::Reply::Stall, ""}});
    Responses responses;
    {
        qel::platform::EventLoop loop;
        CurlHttpSession session(loop);
        session.send(plainGet(server.url("/")), responses.callback());
        ASSERT_TRUE(qel::test::eventually([&] { return server.requests().size() == 1; }));
    }
    ASSERT_EQ(responses.count(), 1u);
    EXPECT_TRUE(std::get<0>(responses.calls()[0].arguments).error);
    for (double timeout : {0.0, std::nan(""), -std::numeric_limits<double>::infinity()}) {
        EXPECT_TRUE(fetch(server.url("/"), timeout).error) << timeout;
    }
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
            Server server;
            server.respond("/ok", 200, "{}");
            qel::test::DescriptorShortage shortage(1);  // the loop needs two
            std::string early;
            for (int i = 0; i < 2; ++i) {
                CurlHttpSession::shared().send(plainGet(server.url("/ok")), [&early](HttpResponse r) {
                    early += r.error && r.statusCode == 0 ? "failed " : "other ";
                });
            }
            // The failed starts gave their descriptor back.
            const bool leaked = !shortage.isLowestFree(shortage.freeSlots()[0]);
            shortage.restore();
            const HttpResponse later = fetch(server.url("/ok"));
            std::fprintf(stderr, "[%s] %s, %zu log line, then %s\n", early.c_str(), leaked ? "leak" : "no leak",
                         console.lines().size(), later.body.c_str());
            std::exit(0);
        },
        testing::ExitedWithCode(0), "\\[failed failed \\] no leak, 1 log line, then \\{\\}");
}
