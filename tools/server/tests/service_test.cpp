// The service's checks and answers, driven over HTTP in-process with requests signed by the
// SDK's own signers and encoded the way its transport encodes them.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <dirent.h>

#include <regex>
#include <set>
#include <sstream>

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
v4only.example.test     120 A     192.0.2.20
)";

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) all.push_back(line);
    return all;
}

}  // namespace

TEST(Signature, RequestsSignedByTheSdkAreAcceptedWhateverTheApplicationIdentifier) {
    LocalService local(kZone, 2);
    // Characters the transport leaves as they are ("+", "&", "="), ones it escapes, and an
    // absent identifier, which the SDK sends and signs as "(null)".
    const std::vector<std::optional<std::string>> appIds = {
        std::string(kAppId), std::string("com.example app+beta&x=1"), std::string("100%-прил"),
        std::nullopt};
    for (const auto& appId : appIds) {
        SCOPED_TRACE(appId.value_or("(absent)"));
        const auto login = local.get(sdkLogin(kAuthId, kSecret, nowMilliseconds(), appId));
        EXPECT_EQ(login.status, 200) << login.body;
        EXPECT_EQ(login.field("auth_id"), kAuthId);
        EXPECT_EQ(login.field("best_service_node"), local.url(0));
        EXPECT_EQ(login.field("service_node_list"), "[\"" + local.url(0) + "\",\"" + local.url(1) + "\"]");

        const auto resolve =
            local.get(sdkResolve(kAuthId, kSecret, "www.example.test", 1, nowMilliseconds(), appId), 1);
        EXPECT_EQ(resolve.status, 200) << resolve.body;
        EXPECT_EQ(resolve.field("ip_list"), R"(["192.0.2.10","192.0.2.11"])");
    }
}

TEST(Checks, EachRefusalHasItsStatusAndReason) {
    LocalService local(kZone);
    local.service().setWindow(120s);
    const int64_t now = nowMilliseconds(), minute = 60 * 1000;
    const std::string stamp = std::to_string(now);
    const SignedRequest good = sdkResolve(kAuthId, kSecret, "www.example.test", 1, now);
    // A request that asks one thing with the signature of another.
    const auto signedAs = [](SignedRequest asked, const SignedRequest& signer) {
        asked.authorization = signer.authorization;
        return asked;
    };
    SignedRequest slashed = sdkLogin(kAuthId, kSecret, now);
    slashed.target.replace(slashed.target.find("/service"), 1, "%2f");
    const struct {
        const char* what;
        SignedRequest request;
        int status;
        const char* message;
    } cases[] = {
        {"as signed", good, 200, ""},
        {"other host", signedAs(sdkResolve(kAuthId, kSecret, "v4only.example.test", 1, now), good), 403, "signature mismatch"},
        {"other type", signedAs(sdkResolve(kAuthId, kSecret, "www.example.test", 2, now), good), 403, "signature mismatch"},
        {"other time", signedAs(sdkResolve(kAuthId, kSecret, "www.example.test", 1, now + 1), good), 403, "signature mismatch"},
        {"other app", signedAs(sdkResolve(kAuthId, kSecret, "www.example.test", 1, now, std::string("x")), good), 403,
         "signature mismatch"},
        {"login, other time", signedAs(sdkLogin(kAuthId, kSecret, now + 1), sdkLogin(kAuthId, kSecret, now)), 403,
         "signature mismatch"},
        {"login, other app", signedAs(sdkLogin(kAuthId, kSecret, now, std::string("x")), sdkLogin(kAuthId, kSecret, now)),
         403, "signature mismatch"},
        {"wrong secret", sdkResolve(kAuthId, "guess", "www.example.test", 1, now), 403, "signature mismatch"},
        {"unsigned", {good.target, ""}, 403, "missing Authorization header 'MD5 <signature>'"},
        {"unknown account", sdkLogin("acct-8", kSecret, now), 403, "unknown account"},
        {"unknown account, resolve", sdkResolve("acct-8", kSecret, "www.example.test", 1, now), 403, "unknown account"},
        {"AuthId in other case", sdkLogin("ACCT-7", kSecret, now), 403, "unknown account"},
        {"3 min early", sdkLogin(kAuthId, kSecret, now - 3 * minute), 403, "timestamp outside the accepted window"},
        {"3 min late", sdkResolve(kAuthId, kSecret, "www.example.test", 1, now + 3 * minute), 403,
         "timestamp outside the accepted window"},
        {"1 min early", sdkLogin(kAuthId, kSecret, now - minute), 200, ""},
        {"1 min late", sdkResolve(kAuthId, kSecret, "www.example.test", 1, now + minute), 200, ""},
        // The SDK signs and sends a type other than 1 or 2 as it is given.
        {"type 3", sdkResolve(kAuthId, kSecret, "www.example.test", 3, now), 400, "type must be 1 (IPv4) or 2 (IPv6)"},
        {"no host", {"/acct-7/resolve?timestamp=1&type=1&app_id=a", "MD5 x"}, 400,
         "timestamp, host, type and app_id are required"},
        {"other path", {"/acct-7/other", ""}, 404, "no such endpoint"},
        {"escaped slash", slashed, 404, "no such endpoint"},
        {"escaped slash in the AuthId", {"/acct%2F7/service?timestamp=1&app_id=a", ""}, 404, "no such endpoint"},
        // Signed with the secret left out: the digest of the text up to the NUL it carries.
        {"NUL in app_id", {"/acct-7/service?timestamp=" + stamp + "&app_id=x%00", "MD5 " + md5Hex("x")}, 400,
         "control characters"},
        {"NUL in host", {"/acct-7/resolve?timestamp=" + stamp + "&host=%00&type=1&app_id=a", "MD5 " + md5Hex("a-")},
         400, "control characters"},
        {"newline in a signed host", sdkResolve(kAuthId, kSecret, "a\nb", 1, now), 400, "control characters"},
        {"DEL in a signed app_id", sdkLogin(kAuthId, kSecret, now, std::string("a\x7f")), 400, "control characters"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto answer = local.get(c.request);
        EXPECT_EQ(answer.status, c.status) << answer.body;
        if (c.status == 200) continue;
        EXPECT_EQ(answer.field("status"), std::to_string(c.status));
        EXPECT_NE(answer.field("message").find(c.message), std::string::npos) << answer.body;
    }
    httplib::Client client("127.0.0.1", local.port());
    const auto post = client.Post(sdkLogin(kAuthId, kSecret, now).target.c_str());
    ASSERT_TRUE(post);
    EXPECT_EQ(post->status, 405);
}

TEST(ZoneAnswers, AddressesOfTheTypeAskedWithTheSmallestTtl) {
    LocalService local(kZone);
    struct Case {
        std::string host;
        int type;
        std::string body;
    };
    const std::vector<Case> cases = {
        {"www.example.test", 1, R"({"host":"www.example.test","ip_list":["192.0.2.10","192.0.2.11"],"ttl":30})"},
        {"www.example.test", 2, R"({"host":"www.example.test","ip_list":["2001:db8::10"],"ttl":300})"},
        // Matched without regard to case; the host is echoed as asked, as the SDK requires.
        {"Www.EXAMPLE.test", 1, R"({"host":"Www.EXAMPLE.test","ip_list":["192.0.2.10","192.0.2.11"],"ttl":30})"},
        // A name without addresses of the type, and an unknown name: an empty list.
        {"v4only.example.test", 2, R"({"host":"v4only.example.test","ip_list":[],"ttl":0})"},
        {"nowhere.example.test", 1, R"({"host":"nowhere.example.test","ip_list":[],"ttl":0})"},
        // Whatever bytes a name holds, the answer stays JSON: escaped, and not UTF-8 replaced.
        {"odd\"name\xff", 1, "{\"host\":\"odd\\\"name\xEF\xBF\xBD\",\"ip_list\":[],\"ttl\":0}"},
    };
    for (const auto& c : cases) {
        const auto answer = local.get(sdkResolve(kAuthId, kSecret, c.host, c.type, nowMilliseconds()));
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.body, c.body);
    }
}

TEST(ZoneAnswers, AReplacedZoneAnswersOnTheConnectionAlreadyOpen) {
    LocalService local(kZone);
    const auto ask = [&] {
        return local.get(sdkResolve(kAuthId, kSecret, "new.example.test", 1, nowMilliseconds()))
            .field("ip_list");
    };
    EXPECT_EQ(ask(), "[]");
    local.service().setZone(Zone::parse("new.example.test 5 A 198.51.100.1\n", "zone"));
    EXPECT_EQ(ask(), R"(["198.51.100.1"])");
    // Both requests came over one connection: the same client port in both access lines.
    std::set<std::string> remotes;
    const std::regex remote(R"(^\S+ (\S+) acct-7 GET /acct-7/resolve 200 .*)");
    for (const auto& line : lines(local.log())) {
        std::smatch match;
        if (std::regex_match(line, match, remote)) remotes.insert(match[1]);
    }
    EXPECT_EQ(remotes.size(), 1u) << local.log();
    EXPECT_EQ(lines(local.log()).size(), 2u);
}

TEST(AccessLog, OneLinePerRequestAndNeverTheSecret) {
    LocalService local(kZone);
    const int64_t now = nowMilliseconds();
    local.get(sdkLogin(kAuthId, kSecret, now));
    local.get(sdkResolve(kAuthId, kSecret, "www.example.test", 1, now));
    local.get(sdkResolve(kAuthId, kSecret, "forged\nline 200", 1, now));
    local.get(sdkResolve(kAuthId, kSecret, "www.example.test", 1, now - 3600 * 1000));
    local.get(sdkLogin("acct-8", kSecret, now));

    const auto logged = lines(local.log());
    ASSERT_EQ(logged.size(), 5u) << local.log();
    const std::string stamp = R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 127\.0\.0\.1:\d+ )";
    const std::vector<std::string> expected = {
        stamp + R"(acct-7 GET /acct-7/service 200 \d+us app_id=com\.example\.app nodes=1$)",
        stamp + R"(acct-7 GET /acct-7/resolve 200 \d+us host=www\.example\.test type=1 source=zone addresses=2 ttl=30$)",
        stamp + R"(acct-7 GET /acct-7/resolve 400 \d+us "control characters are not allowed in the path or query"$)",
        stamp + R"(acct-7 GET /acct-7/resolve 403 \d+us "timestamp outside the accepted window: -3600 s .*"$)",
        stamp + R"(acct-8 GET /acct-8/service 403 \d+us "unknown account"$)",
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(std::regex_match(logged[i], std::regex(expected[i]))) << logged[i];
        EXPECT_EQ(logged[i].find(kSecret), std::string::npos);
    }
}

TEST(Connections, AcceptedConnectionsSendWithoutDelay) {
    LocalService local(kZone);
    ASSERT_EQ(local.get(sdkLogin(kAuthId, kSecret, nowMilliseconds())).status, 200);
    // The server's end of the kept-alive connection is a descriptor of this process.
    int accepted = 0;
    DIR* fds = opendir("/proc/self/fd");
    while (dirent* entry = readdir(fds)) {
        const int fd = std::atoi(entry->d_name);
        sockaddr_in local_{};
        socklen_t length = sizeof local_;
        int listening = 1, noDelay = 0;
        socklen_t size = sizeof listening;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&local_), &length) != 0 ||
            local_.sin_family != AF_INET || ntohs(local_.sin_port) != local.port() ||
            getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening) {
            continue;
        }
        getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size);
        EXPECT_NE(noDelay, 0);
        ++accepted;
    }
    closedir(fds);
    EXPECT_EQ(accepted, 1);
}

TEST(Connections, StopEndsKeptAliveConnectionsAndRefusesNewOnes) {
    LocalService local(kZone);
    const auto first = local.get(sdkLogin(kAuthId, kSecret, nowMilliseconds()));
    ASSERT_EQ(first.status, 200);
    local.listener().stop();
    const auto after = local.get(sdkLogin(kAuthId, kSecret, nowMilliseconds()));
    EXPECT_EQ(after.status, 0) << after.body;
}
