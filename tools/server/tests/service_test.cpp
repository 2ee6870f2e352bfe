// The service's checks, answers and access lines over HTTP in-process, with requests built,
// signed and encoded by the SDK's own code.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <regex>

#include "ServerTestSupport.h"
#include "Signature.h"

using namespace qel::server;
using namespace qel::server::test;
using namespace std::chrono_literals;

namespace {

const char kZone[] = R"(
$TTL 300
; several lines of one name add up; the answer carries the smallest TTL
www.example.test.   60  IN  A     192.0.2.10
WWW.Example.Test        30  A     192.0.2.11   # a comment after a record
www.example.test            AAAA  2001:DB8::10
www.example.test        60  in  a     192.0.2.10   ; a repeated address is kept once
v4only.example.test     120 A     192.0.2.20
)";

}  // namespace

TEST(Service, EachRequestHasItsStatusBodyAndAccessLine) {
    LocalService local(kZone, 2);
    local.service.setWindow(120s);
    const int64_t now = Service::systemMilliseconds(), minute = 60 * 1000;
    const std::string stamp = std::to_string(now), www = R"("ip_list":["192.0.2.10","192.0.2.11"],"ttl":30)";
    const SignedRequest good = sdkResolve("www.example.test", 1, now);
    // A request that asks one thing with the signature of another.
    const auto signedAs = [](SignedRequest asked, const SignedRequest& signer) {
        asked.authorization = signer.authorization;
        return asked;
    };
    SignedRequest slashed = sdkLogin(now);
    slashed.target.replace(slashed.target.find("/service"), 1, "%2f");
    const std::string other = "x", app = kAppId;
    const struct {
        const char* what;
        SignedRequest request;
        int status;
        std::string body;    // the whole body, or for a refusal a part of its message
        std::string logged = {};  // what the access line holds after the client's address, if checked
    } cases[] = {
        {"login", sdkLogin(now), 200,
         R"({"auth_id":"acct-7","best_service_node":")" + local.url(0) + R"(","service_node_list":[")" +
             local.url(0) + R"(",")" + local.url(1) + "\"]}",
         R"(acct-7 GET /acct-7/service 200 \d+us app_id=com\.example\.app nodes=2)"},
        // Identifiers with characters the transport keeps ("+&=") and escapes (" "), and none
        // (the SDK signs and sends "(null)").
        {"login, app id with + & =", sdkLogin(now, std::string("com.example app+beta&x=1")), 200, "acct-7",
         R"(acct-7 GET /acct-7/service 200 \d+us app_id=com\.example%20app\+beta&x=1 nodes=2)"},
        {"no app id", sdkResolve("www.example.test", 1, now, std::nullopt), 200, www},
        {"smallest TTL", good, 200, R"({"host":"www.example.test",)" + www + "}",
         R"(acct-7 GET /acct-7/resolve 200 \d+us host=www\.example\.test type=1 source=zone addresses=2 ttl=30)"},
        {"IPv6, canonical", sdkResolve("www.example.test", 2), 200, R"("ip_list":["2001:db8::10"],"ttl":300)"},
        // Matched without regard to case; the host is echoed as asked, as the SDK requires.
        {"other case", sdkResolve("Www.EXAMPLE.test", 1), 200, R"({"host":"Www.EXAMPLE.test",)" + www + "}"},
        {"unknown name", sdkResolve("no where", 1), 200, R"({"host":"no where","ip_list":[],"ttl":0})",
         R"(acct-7 GET /acct-7/resolve 200 \d+us host=no%20where type=1 source=none addresses=0 ttl=0)"},
        // Whatever bytes a name holds, the answer stays JSON: escaped, and not UTF-8 replaced.
        {"odd bytes", sdkResolve("odd\"name\xff", 1), 200, "{\"host\":\"odd\\\"name\xEF\xBF\xBD\",\"ip_list\":[],\"ttl\":0}"},
        {"other host", signedAs(sdkResolve("v4only.example.test", 1, now), good), 403, "signature mismatch"},
        {"other type", signedAs(sdkResolve("www.example.test", 2, now), good), 403, "signature mismatch"},
        {"other time", signedAs(sdkResolve("www.example.test", 1, now + 1), good), 403, "signature mismatch"},
        {"other app", signedAs(sdkResolve("www.example.test", 1, now, other), good), 403, "signature mismatch"},
        {"login, other time", signedAs(sdkLogin(now + 1), sdkLogin(now)), 403, "signature mismatch"},
        {"login, other app", signedAs(sdkLogin(now, other), sdkLogin(now)), 403, "signature mismatch"},
        {"wrong secret", sdkResolve("www.example.test", 1, now, app, kAuthId, "guess"), 403, "signature mismatch"},
        {"unsigned", {good.target, ""}, 403, "missing Authorization header 'MD5 <signature>'"},
        {"unknown account", sdkLogin(now, app, "acct-8"), 403, "unknown account",
         R"(acct-8 GET /acct-8/service 403 \d+us "unknown account")"},
        {"AuthId in other case", sdkResolve("www.example.test", 1, now, app, "ACCT-7"), 403, "unknown account"},
        {"3 min early", sdkLogin(now - 3 * minute), 403, "timestamp outside the accepted window: -180 s from the server's "
         "clock, at most 120 s allowed", R"(acct-7 GET /acct-7/service 403 \d+us "timestamp outside the accepted .*")"},
        {"3 min late", sdkResolve("www.example.test", 1, now + 3 * minute), 403, "timestamp outside the accepted window"},
        {"1 min late", sdkResolve("www.example.test", 1, now + minute), 200, www},
        {"timestamp no number", {"/acct-7/service?timestamp=-&app_id=a%zz%4", "MD5 " + loginSignature("a%zz%4", "-", kSecret)},
         403, "timestamp is not a number of milliseconds"},
        // The SDK signs and sends a type other than 1 or 2 as it is given.
        {"type 3", sdkResolve("www.example.test", 3, now), 400, "type must be 1 (IPv4) or 2 (IPv6)"},
        {"empty host", sdkResolve("", 1, now), 400, "host is empty"},
        {"no host", {"/acct-7/resolve?timestamp=1&type=1&app_id=a", "MD5 x"}, 400, "timestamp, host, type and app_id are"},
        {"login, no app_id", {"/acct-7/service?timestamp=1", "MD5 x"}, 400, "timestamp and app_id are required"},
        {"other path", {"/acct-7/other", ""}, 404, "no such endpoint"},
        {"no AuthId", {"//service", ""}, 404, "no such endpoint", R"(- GET //service 404 \d+us "no such endpoint: .*")"},
        {"escaped slash", slashed, 404, "no such endpoint"},
        // Signed with the secret left out: the digest of the text up to the NUL it carries.
        {"NUL in app_id", {"/acct-7/service?timestamp=" + stamp + "&app_id=x%00", "MD5 " + md5Hex("x")}, 400, "control"},
        {"newline in a signed host", sdkResolve("forged\nline 200", 1, now), 400, "control characters",
         R"(acct-7 GET /acct-7/resolve 400 \d+us "control characters are not allowed in the path or query")"},
        {"DEL in a signed app_id", sdkLogin(now, std::string("a\x7f")), 400, "control characters"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto answer = local.get(c.request);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_NE(answer.body.find(c.body), std::string::npos) << answer.body;
        EXPECT_TRUE(c.status == 200 || answer.body.find("\"status\":" + std::to_string(c.status)) != std::string::npos);
        const std::string log = local.log.read(), line = log.substr(log.rfind('\n', log.size() - 2) + 1);
        const std::string time = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 127\.0\.0\.1:\d+ )";
        EXPECT_TRUE(c.logged.empty() || std::regex_match(line, std::regex(time + c.logged + "\n"))) << line;
    }
    EXPECT_EQ(local.log.read().find(kSecret), std::string::npos);
    EXPECT_EQ(local.get(good, 1).status, 200);
    httplib::Client client("127.0.0.1", local.port());
    const auto post = client.Post(good.target.c_str());
    EXPECT_EQ(post ? post->status : 0, 405);
}

// Without TCP_NODELAY a kept-alive connection waits for the peer's delayed ACK on every answer.
TEST(Service, AcceptedConnectionsSendWithoutDelay) {
    LocalService local;
    httplib::Client client("127.0.0.1", local.port());
    client.set_keep_alive(true);
    ASSERT_EQ(get(client, sdkLogin()).status, 200);
    // The server's end of the kept-alive connection is a descriptor of this process: on the
    // service's port, with a peer.
    int accepted = 0, noDelay = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in self{}, peer{};
        socklen_t length = sizeof self, peerLength = sizeof peer, size = sizeof noDelay;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&self), &length) == 0 && ntohs(self.sin_port) == local.port() &&
            getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
            getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size) == 0) {
            EXPECT_NE(noDelay, 0);
            ++accepted;
        }
    }
    EXPECT_EQ(accepted, 1);
}
