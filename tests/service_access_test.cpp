// The login and resolve requests against a loopback server.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "support/CallRecorder.h"
#include "support/FakeClock.h"
#include "support/LoopbackHttpServer.h"

using nlohmann::json;
using qel::test::CallRecorder;
using Server = qel::test::LoopbackHttpServer;
using StringList = std::optional<std::vector<std::string>>;

namespace {

constexpr char kSecret[] = "s3cr3t-Value";
constexpr char kHost[] = "www.example.test";
constexpr double kNow = 1700000000.1239;  // every record's lookup time

std::string describe(const QelDNSError& error) { return std::to_string(error.code()) + " " + error.localizedDescription(); }

// Waits for the one call, made on the platform thread, and hands over its arguments.
template <typename... Args>
std::tuple<std::decay_t<Args>...> only(const CallRecorder<Args...>& recorder) {
    EXPECT_TRUE(recorder.waitFor(1));
    const auto call = recorder.calls().at(0);
    EXPECT_TRUE(call.onPlatformThread);
    return call.arguments;
}

// What the application gets from a login answered with `answer`: the error, or the node and
// the list.
std::string login(Server& server, const json& answer) {
    server.respond("/abc/service", 200, answer.dump());
    CallRecorder<std::optional<QelDNSError>, std::optional<std::string>, StringList> recorder;
    QelDNSAppAuth::authWithUrl(server.url(""), std::string("abc"), std::string(kSecret), recorder.callback());
    const auto [error, node, list] = only(recorder);
    if (error) return describe(*error) + (node || list ? " and a node" : "");
    return "node " + node.value_or("none") + " list " + (list ? json(*list).dump() : "none");
}

// The same for a resolve of kHost: the error, or each record's address, then the TTL they share.
std::string resolve(Server& server, const json& answer, int32_t type = 2) {
    server.respond("/abc/resolve", 200, answer.dump());
    CallRecorder<std::optional<QelDNSError>, QelDNSIPModelListRef> recorder;
    QelDNSGetIPs::getIPsWithUrl(server.url(""), type, std::string("abc"), std::string(kSecret), std::string(kHost),
                                recorder.callback());
    const auto [error, records] = only(recorder);
    if (error) return describe(*error) + (records ? " and records" : "");
    std::string text;
    for (const auto& record : *records) {
        text += record->ip().value_or("(none)") + " ";
        EXPECT_EQ(record->domain(), kHost);
        EXPECT_EQ(record->type(), type);
        EXPECT_EQ(record->ttl(), records->front()->ttl());
        EXPECT_DOUBLE_EQ(record->lookupTime(), kNow);
    }
    return text + "ttl " + std::to_string(records->front()->ttl());
}

// One row per answer: what the application gets from it.
TEST(ServiceAccess, TheApplicationGetsWhatTheAnswerMeans) {
    Server server;
    const qel::test::FakeClock clock{kNow};
    const json ip = {"192.0.2.1"};
    const struct {
        bool isLogin;
        json body;
        std::string outcome;
    } rows[] = {
        // Any "status" fails the request, whatever else the answer holds.
        {true, {{"status", 0}, {"message", "z"}, {"auth_id", "abc"}, {"best_service_node", "n"}}, "0 z"},
        // Then the auth id must be ours, exactly.
        {true, {{"auth_id", "ABC"}, {"best_service_node", "n"}}, "-20000 invalid data"},
        // Then the best node, or else the first of the list.
        {true, {{"auth_id", "abc"}, {"best_service_node", ""}, {"service_node_list", {"a", "b"}}}, R"(node a list ["a","b"])"},
        {true, {{"auth_id", "abc"}, {"best_service_node", "best"}}, "node best list none"},
        {true, {{"auth_id", "abc"}, {"service_node_list", json::array()}}, "-20001 empty data"},
        {false, {{"host", "WWW.example.test"}, {"ip_list", ip}}, "-20002 invalid data"},
        {false, {{"host", kHost}, {"ip_list", json::array()}}, "-20003 empty data"},
        // One record per element in order, as it stands: one that is not text becomes its JSON.
        {false,
         {{"host", kHost}, {"ip_list", {"192.0.2.3", "x", 5, nullptr, {{"a", 1}}}}},
         R"(192.0.2.3 x 5 null {"a":1} ttl 0)"},
        {false, {{"host", kHost}, {"ip_list", ip}, {"ttl", "120"}}, "192.0.2.1 ttl 120"},
        {false, {{"host", kHost}, {"ip_list", ip}, {"ttl", " +90s"}}, "192.0.2.1 ttl 90"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.isLogin ? login(server, row.body) : resolve(server, row.body), row.outcome) << row.body;
    }
}

}  // namespace
