// The login and resolve requests against a real loopback server, and the node registry.
#include <gtest/gtest.h>

#include <httplib.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Const/QelDNSConst.h"
#include "QelHttpDnsSDK/Manager/QelDNSAuthManager.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "support/CallRecorder.h"
#include "support/FakeClock.h"
#include "support/LoopbackHttpServer.h"
#include "support/Md5.h"

using nlohmann::json;
using qel::test::CallRecorder;
using qel::test::LoopbackHttpServer;
using qel::test::md5Hex;
using StringList = std::optional<std::vector<std::string>>;

namespace {

constexpr char kSecret[] = "s3cr3t-Value";

std::string header(const LoopbackHttpServer::Request& request, const std::string& name) {
    const auto found = request.headers.find(name);
    return found == request.headers.end() ? "<none>" : found->second;
}

class ServiceAccess : public ::testing::Test {
protected:
    void SetUp() override { qel::platform::MainBundle::setIdentifier("com.example.app"); }

    void answer(const std::string& path, const json& body) { server.respond(path, 200, body.dump()); }

    LoopbackHttpServer server;
    // 1700000000123.9 ms: the wire carries the truncated 1700000000123.
    qel::test::FakeClock clock{1700000000.1239};
};

// ---------------------------------------------------------------- login request

using AuthRecorder = CallRecorder<std::optional<QelDNSError>, std::optional<std::string>, StringList>;

struct AuthResult {
    std::optional<QelDNSError> error;
    std::optional<std::string> node;
    StringList list;
};

AuthResult login(LoopbackHttpServer& server, const json& body) {
    server.respond("/abc/service", 200, body.dump());
    AuthRecorder recorder;
    QelDNSAppAuth::authWithUrl(server.url(""), std::string("abc"), std::string(kSecret),
                               recorder.callback());
    EXPECT_TRUE(recorder.waitFor(1));
    const auto call = recorder.calls().at(0);
    EXPECT_TRUE(call.onPlatformThread);
    auto [error, node, list] = call.arguments;
    return {error, node, list};
}

TEST_F(ServiceAccess, LoginFailsOnAnyStatusWhateverElseTheAnswerHolds) {
    struct Case { json body; int64_t code; std::string message; };
    const std::vector<Case> cases = {
        {{{"status", 0}, {"message", "zero"}, {"auth_id", "abc"}, {"best_service_node", "http://n"}},
         0, "zero"},
        {{{"status", "403"}, {"message", "forbidden"}}, 403, "forbidden"},
        {{{"status", -30000}, {"message", "move on"}}, -30000, "move on"},
        {{{"status", "abc"}}, 0, ""},                       // not numeric: 0, no message
        {{{"status", 1.9e10}, {"message", 42}}, INT32_MAX, "42"},  // saturates; number as text
        {{{"status", nullptr}, {"message", nullptr}}, 0, ""},
    };
    for (const Case& c : cases) {
        const AuthResult result = login(server, c.body);
        ASSERT_TRUE(result.error) << c.body;
        EXPECT_EQ(result.error->code(), c.code) << c.body;
        EXPECT_EQ(result.error->localizedDescription(), c.message) << c.body;
        EXPECT_FALSE(result.node);
        EXPECT_FALSE(result.list);
    }
}

TEST_F(ServiceAccess, LoginChecksTheAuthIdThenPicksTheNode) {
    struct Case { json body; int64_t code; std::optional<std::string> node; StringList list; };
    const std::vector<std::string> two = {"http://a", "http://b"};
    const std::vector<Case> cases = {
        {{{"auth_id", "ABC"}, {"best_service_node", "http://n"}}, -20000, {}, {}},
        {{{"best_service_node", "http://n"}}, -20000, {}, {}},
        {{{"auth_id", 7}, {"best_service_node", "http://n"}}, -20000, {}, {}},
        {json::array({1, 2}), -20000, {}, {}},
        {{{"auth_id", "abc"}, {"best_service_node", ""}, {"service_node_list", two}}, 0, "http://a", two},
        {{{"auth_id", "abc"}, {"best_service_node", "http://best"}}, 0, "http://best", {}},
        {{{"auth_id", "abc"}, {"best_service_node", "http://best"}, {"service_node_list", json::array()}},
         0, "http://best", std::vector<std::string>{}},
        {{{"auth_id", "abc"}, {"service_node_list", {7, "http://b"}}}, 0, "7",
         std::vector<std::string>{"7", "http://b"}},
        {{{"auth_id", "abc"}, {"service_node_list", json::array()}}, -20001, {}, {}},
        {{{"auth_id", "abc"}}, -20001, {}, {}},
        {{{"auth_id", "abc"}, {"best_service_node", 5}, {"service_node_list", "http://a"}}, -20001, {}, {}},
    };
    for (const Case& c : cases) {
        const AuthResult result = login(server, c.body);
        if (c.code != 0) {
            ASSERT_TRUE(result.error) << c.body;
            EXPECT_EQ(result.error->code(), c.code) << c.body;
            EXPECT_EQ(result.error->localizedDescription(),
                      c.code == -20000 ? "invalid data" : "empty data");
            EXPECT_FALSE(result.node);
        } else {
            EXPECT_FALSE(result.error) << c.body;
            EXPECT_EQ(result.node, c.node) << c.body;
            EXPECT_EQ(result.list, c.list) << c.body;
        }
    }
}

// ---------------------------------------------------------------- resolve request

using ResolveRecorder = CallRecorder<std::optional<QelDNSError>, QelDNSIPModelListRef>;

std::pair<std::optional<QelDNSError>, QelDNSIPModelListRef> resolve(LoopbackHttpServer& server,
                                                                    const json& body,
                                                                    int32_t type = 1) {
    server.respond("/abc/resolve", 200, body.dump());
    ResolveRecorder recorder;
    QelDNSGetIPs::getIPsWithUrl(server.url(""), type, std::string("abc"), std::string(kSecret),
                                std::string("www.example.test"), recorder.callback());
    EXPECT_TRUE(recorder.waitFor(1));
    const auto call = recorder.calls().at(0);
    EXPECT_TRUE(call.onPlatformThread);
    const auto& [error, records] = call.arguments;
    EXPECT_NE(error.has_value(), records != nullptr);
    return {error, records};
}

// One row per request (type 0: the login): the target as sent and the text its MD5 signs,
// before the secret. Neither the target, a header nor the body carries the secret.
TEST_F(ServiceAccess, RequestsAreSignedGetsThatNeverCarryTheSecret) {
    const std::string t = "1700000000123", app = "com.example.app";
    const struct { std::optional<std::string> app; int32_t type; std::string target, signedText; } rows[] = {
        {app, 0, "/abc/service?timestamp=" + t + "&app_id=" + app, app + "-" + t + "-"},
        // An absent application identifier is sent and signed as "(null)".
        {std::nullopt, 0, "/abc/service?timestamp=" + t + "&app_id=(null)", "(null)-" + t + "-"},
        // Signed field order differs from the argument order: package, host, time, type.
        {app, 1, "/abc/resolve?timestamp=" + t + "&host=www.example.test&type=1&app_id=" + app,
         app + "-www.example.test-" + t + "-1-"},
        {app, 7, "/abc/resolve?timestamp=" + t + "&host=www.example.test&type=7&app_id=" + app,
         app + "-www.example.test-" + t + "-7-"},
    };
    for (const auto& row : rows) {
        qel::platform::MainBundle::setIdentifier(row.app);
        if (row.type == 0) {
            login(server, {{"auth_id", "abc"}, {"best_service_node", "http://node"}});
        } else {
            resolve(server, {{"host", "www.example.test"}, {"ip_list", {"192.0.2.1"}}}, row.type);
        }
        const auto request = server.requests().back();
        EXPECT_EQ(request.method, "GET");
        EXPECT_EQ(request.target, row.target);
        EXPECT_EQ(header(request, "Authorization"), "MD5 " + md5Hex(row.signedText + kSecret));
        for (const auto& [name, value] : request.headers) {
            EXPECT_EQ(value.find(kSecret), std::string::npos) << name;
        }
        EXPECT_EQ(request.target.find(kSecret), std::string::npos);
        EXPECT_TRUE(request.body.empty());
    }
}

TEST_F(ServiceAccess, SignatureAndUrlCarryTheSameApplicationIdentifierWhileItChanges) {
    answer("/abc/service", {{"auth_id", "abc"}, {"best_service_node", "http://node"}});
    answer("/abc/resolve", {{"host", "h.test"}, {"ip_list", {"192.0.2.1"}}});
    std::atomic<bool> sending{true};
    std::thread changing([&] {
        for (int i = 0; sending; ++i) qel::platform::MainBundle::setIdentifier(i % 2 ? "a" : "b");
    });
    constexpr int kEach = 100;
    AuthRecorder logins;
    ResolveRecorder resolves;
    for (int i = 0; i < kEach; ++i) {
        QelDNSAppAuth::authWithUrl(server.url(""), std::string("abc"), std::string(kSecret),
                                   logins.callback());
        QelDNSGetIPs::getIPsWithUrl(server.url(""), 1, std::string("abc"), std::string(kSecret),
                                    std::string("h.test"), resolves.callback());
    }
    sending = false;
    changing.join();
    ASSERT_TRUE(logins.waitFor(kEach));
    ASSERT_TRUE(resolves.waitFor(kEach));
    int mismatches = 0;
    for (const auto& request : server.requests()) {
        const std::string app = request.target.substr(request.target.find("app_id=") + 7);
        const bool login = request.target.find("/service?") != std::string::npos;
        const std::string text = login ? app + "-1700000000123-" + kSecret
                                       : app + "-h.test-1700000000123-1-" + kSecret;
        mismatches += header(request, "Authorization") != "MD5 " + md5Hex(text);
    }
    EXPECT_EQ(mismatches, 0);
}

TEST_F(ServiceAccess, ResolveFailsOnStatusHostMismatchAndEmptyLists) {
    const json ips = {"192.0.2.1"};
    struct Case { json body; int64_t code; std::string message; };
    const std::vector<Case> cases = {
        {{{"status", 0}, {"message", "m"}, {"host", "www.example.test"}, {"ip_list", ips}}, 0, "m"},
        {{{"status", "403"}, {"message", "forbidden"}}, 403, "forbidden"},
        {{{"host", "WWW.example.test"}, {"ip_list", ips}}, -20002, "invalid data"},
        {{{"ip_list", ips}}, -20002, "invalid data"},
        {{{"host", 1}, {"ip_list", ips}}, -20002, "invalid data"},
        {{{"host", "www.example.test"}, {"ip_list", json::array()}}, -20003, "empty data"},
        {{{"host", "www.example.test"}}, -20003, "empty data"},
        {{{"host", "www.example.test"}, {"ip_list", "192.0.2.1"}}, -20003, "empty data"},
    };
    for (const Case& c : cases) {
        const auto [error, records] = resolve(server, c.body);
        ASSERT_TRUE(error) << c.body;
        EXPECT_EQ(error->code(), c.code) << c.body;
        EXPECT_EQ(error->localizedDescription(), c.message) << c.body;
    }
}

TEST_F(ServiceAccess, ResolveMakesOneRecordPerAddressInOrder) {
    // Every element as it stands: one that is not text becomes its JSON text.
    const json ips = {"192.0.2.3", "not-an-ip", 5, nullptr, {{"a", 1}}, "192.0.2.1"};
    const auto [error, records] = resolve(server, {{"host", "www.example.test"}, {"ip_list", ips}}, 2);
    ASSERT_FALSE(error);
    const std::vector<std::string> expected = {"192.0.2.3", "not-an-ip", "5",
                                               "null",      R"({"a":1})", "192.0.2.1"};
    ASSERT_EQ(records->size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        const QelDNSIPModel& record = *(*records)[i];
        EXPECT_EQ(record.ip(), expected[i]);
        EXPECT_EQ(record.domain(), "www.example.test");
        EXPECT_EQ(record.type(), 2);
        EXPECT_EQ(record.ttl(), 0);  // no "ttl" in the answer
        EXPECT_DOUBLE_EQ(record.lookupTime(), 1700000000.1239);
    }
    for (const auto& [ttl, expectedTtl] : std::vector<std::pair<json, int64_t>>{
             {60, 60}, {"120", 120}, {59.9, 59}, {-5, -5}, {"x", 0}, {json::array(), 0}}) {
        const auto [e, list] = resolve(
            server, {{"host", "www.example.test"}, {"ip_list", {"192.0.2.1"}}, {"ttl", ttl}});
        ASSERT_TRUE(list) << ttl;
        EXPECT_EQ(list->front()->ttl(), expectedTtl) << ttl;
    }
}

// ---------------------------------------------------------------- node registry

using RegistryRecorder = CallRecorder<std::optional<QelDNSError>, std::optional<std::string>>;

class NodeRegistry : public ServiceAccess {
protected:
    void SetUp() override {
        ServiceAccess::SetUp();
        registry.setupWithAuthId(std::string("abc"), std::string(kSecret));
        registry.setCustomServUrl(server.url(""));
    }

    std::tuple<std::optional<QelDNSError>, std::optional<std::string>> loginWith(const json& body) {
        answer("/abc/service", body);
        RegistryRecorder recorder;
        registry.authWithCompletion(recorder.callback());
        EXPECT_TRUE(recorder.waitFor(1));
        return recorder.calls().at(0).arguments;
    }

    QelDNSAuthManager& registry = QelDNSAuthManager::shared();
};

TEST_F(NodeRegistry, RefusesMissingCredentialsAtOnceWithoutSending) {
    struct Case { std::optional<std::string> id, secret; int64_t code; };
    for (const Case& c : std::vector<Case>{{std::nullopt, "s", -30000},
                                           {"", "s", -30000},
                                           {"abc", std::nullopt, -30001},
                                           {"abc", "", -30001}}) {
        registry.setupWithAuthId(c.id, c.secret);
        RegistryRecorder recorder;
        registry.authWithCompletion(recorder.callback());
        ASSERT_EQ(recorder.count(), 1u);  // before authWithCompletion returned
        const auto call = recorder.calls()[0];
        const auto& [error, node] = call.arguments;
        EXPECT_FALSE(call.onPlatformThread);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), c.code);
        EXPECT_EQ(error->localizedDescription(), "parameter invalid");
        EXPECT_FALSE(node);
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(NodeRegistry, LogsInToTheCustomUrlAndWalksTheNodesWithoutWrapping) {
    const auto [error, node] = loginWith(
        {{"auth_id", "abc"}, {"best_service_node", "http://A"}, {"service_node_list", {"http://A", "http://B", "http://C"}}});
    ASSERT_FALSE(error);
    EXPECT_EQ(node, "http://A");
    EXPECT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(registry.getNextHost(), "http://B");
    EXPECT_EQ(registry.getNextHost(), "http://C");
    EXPECT_EQ(registry.getNextHost(), std::nullopt);
    EXPECT_EQ(registry.getNextHost(), std::nullopt);
    EXPECT_EQ(registry.activateHostIndex(), 2);

    // A new list does not reset the index: still exhausted.
    loginWith({{"auth_id", "abc"}, {"service_node_list", {"http://D", "http://E"}}});
    EXPECT_EQ(registry.hostList(), (std::vector<std::string>{"http://D", "http://E"}));
    EXPECT_EQ(registry.getNextHost(), std::nullopt);
    EXPECT_EQ(registry.activateHostIndex(), 2);
}

TEST_F(NodeRegistry, AFailedLoginOrABestNodeAloneLeavesNoListAndAnEmptyOneIsAFault) {
    registry.setHostList(std::vector<std::string>{"http://old"});
    const auto [error, node] = loginWith({{"status", 500}, {"message", "down"}});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 500);
    EXPECT_EQ(registry.hostList(), std::nullopt);

    loginWith({{"auth_id", "abc"}, {"best_service_node", "http://A"}});
    EXPECT_EQ(registry.hostList(), std::nullopt);
    // Without a list every call advances the index and yields nothing.
    EXPECT_EQ(registry.getNextHost(), std::nullopt);
    EXPECT_EQ(registry.activateHostIndex(), 1);

    // An empty list is a fault, not an out-of-bounds read.
    loginWith({{"auth_id", "abc"}, {"best_service_node", "http://A"}, {"service_node_list", json::array()}});
    ASSERT_EQ(registry.hostList(), std::vector<std::string>{});
    EXPECT_THROW(registry.getNextHost(), std::out_of_range);
    EXPECT_EQ(registry.activateHostIndex(), 2);
}

TEST_F(NodeRegistry, WithoutACustomUrlTheLoginGoesToTheDefaultService) {
    // The default service address is a loopback port; stand in for it if it is free.
    httplib::Server standIn;
    std::string target;
    standIn.Get(R"(/.*)", [&](const httplib::Request& request, httplib::Response& response) {
        target = request.target;
        response.set_header("Connection", "close");  // lets stop() return without a linger
        response.set_content(R"({"auth_id":"abc","best_service_node":"http://default-node"})",
                             "application/json");
    });
    const std::string base = QelDNS_SDK_NET_DEFAULT_BASE_URL;
    const int port = std::stoi(base.substr(base.rfind(':') + 1));
    if (!standIn.bind_to_port("127.0.0.1", port)) GTEST_SKIP() << "port " << port << " is in use";
    std::thread serving([&] { standIn.listen_after_bind(); });
    while (!standIn.is_running()) std::this_thread::yield();

    registry.setCustomServUrl(std::string(""));
    RegistryRecorder recorder;
    registry.authWithCompletion(recorder.callback());
    ASSERT_TRUE(recorder.waitFor(1));
    standIn.stop();
    serving.join();
    EXPECT_EQ(std::get<1>(recorder.calls()[0].arguments), "http://default-node");
    EXPECT_EQ(target.rfind("/abc/service?timestamp=", 0), 0u);
    EXPECT_TRUE(server.requests().empty());
}

}  // namespace
