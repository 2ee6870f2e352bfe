// examples/curl against the real reference service and a loopback web server. The web server's
// name exists only in the service's zone, so only the address the example pins from the SDK's
// answer can reach it.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "ServerTestSupport.h"
#include "support/LoopbackHttpServer.h"
#include "support/ScratchDirectory.h"

using namespace qel::server::test;

namespace {

constexpr char kName[] = "app.qel-demo.test";

TEST(CurlExample, ConnectsToTheServicesAddressAndKeepsTheNameInTheHostHeader) {
    // Every transfer must stay on loopback, even where the environment names a proxy.
    for (const char* name :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        unsetenv(name);
    }
    qel::test::ScratchDirectory scratch;
    TempFile accounts{std::string(kAuthId) + " " + kSecret + "\n"},
        zone{std::string(kName) + " 60 A 127.0.0.1\n"};
    qel::test::LoopbackHttpServer web;
    web.route("/hello", [](const qel::test::LoopbackHttpServer::Request& request) {
        return qel::test::LoopbackHttpServer::http(200, "hello from " + request.header("Host"), "",
                                                   false, "text/plain");
    });
    const std::string port = std::to_string(freePort(SOCK_STREAM));
    ChildProcess service(QEL_SERVER_BINARY, {"--accounts", accounts.path(), "--zone", zone.path(),
                                             "--listen", "127.0.0.1:" + port});
    ASSERT_TRUE(eventually([&] {
        return httplib::Client("127.0.0.1", std::stoi(port)).Get("/") != nullptr;
    })) << service.errors();

    const std::string hostAndPort = std::string(kName) + ":" + std::to_string(web.port());
    ChildProcess example(CURL_FETCH_BINARY,
                         {"--store", scratch.file("store.sqlite3"), "http://127.0.0.1:" + port,
                          kAuthId, kSecret, "http://" + hostAndPort + "/hello"});
    ASSERT_EQ(example.wait(std::chrono::seconds(90)).value_or(-1), 0) << example.errors();
    EXPECT_EQ(example.output(), "hello from " + hostAndPort);
    EXPECT_NE(example.errors().find("pinned " + hostAndPort + ":127.0.0.1"), std::string::npos)
        << example.errors();
    EXPECT_EQ(web.requests().size(), 1u);
}

}  // namespace
