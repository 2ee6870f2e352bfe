// examples/curl against the real reference service and a loopback web server. The web server's
// name exists only in the service's zone, so only the address the example pins from the SDK's
// answer can reach it.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ServerTestSupport.h"
#include "support/LoopbackHttpServer.h"
#include "support/ScratchDirectory.h"

using namespace qel::server::test;

namespace {

constexpr char kName[] = "app.qel-demo.test";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class CurlExample : public testing::Test {
protected:
    void SetUp() override {
        // Every transfer must stay on loopback, even where the environment names a proxy.
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            unsetenv(name);
        }
        web.route("/hello", [](const qel::test::LoopbackHttpServer::Request& request) {
            return qel::test::LoopbackHttpServer::http(200, "hello from " + request.header("Host"), "", false,
                                                      "text/plain");
        });
        const int port = freePort(SOCK_STREAM);
        serviceUrl = "http://127.0.0.1:" + std::to_string(port);
        server = std::make_unique<ChildProcess>(
            QEL_SERVER_BINARY, std::vector<std::string>{"--accounts", accounts.path(), "--zone", zone.path(),
                                                        "--listen", "127.0.0.1:" + std::to_string(port)});
        ASSERT_TRUE(eventually([&] { return httplib::Client("127.0.0.1", port).Get("/") != nullptr; }))
            << server->errors();
    }

    // Runs the example to its end; its exit status, and its output in `out` and `err`.
    int fetch(const std::vector<std::string>& options, const std::string& url) {
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"--store", scratch.file("store.sqlite3"), serviceUrl, kAuthId, kSecret, url});
        ChildProcess example(CURL_FETCH_BINARY, arguments);
        const std::optional<int> status = example.wait(std::chrono::seconds(90));
        out = example.output();
        err = example.errors();
        return status.value_or(-1);
    }

    qel::test::ScratchDirectory scratch;
    TempFile accounts{std::string(kAuthId) + " " + kSecret + "\n"};
    TempFile zone{std::string(kName) + " 60 A 127.0.0.1\n"};
    qel::test::LoopbackHttpServer web;
    std::unique_ptr<ChildProcess> server;
    std::string serviceUrl, out, err;
};

TEST_F(CurlExample, ConnectsToTheServicesAddressAndKeepsTheNameInTheHostHeader) {
    const std::string hostAndPort = std::string(kName) + ":" + std::to_string(web.port());
    ASSERT_EQ(fetch({}, "http://" + hostAndPort + "/hello"), 0) << err;
    EXPECT_EQ(out, "hello from " + hostAndPort);
    EXPECT_TRUE(contains(err, "pinned " + hostAndPort + ":127.0.0.1")) << err;
    ASSERT_EQ(web.requests().size(), 1u);
    EXPECT_EQ(web.requests()[0].target(), "/hello");
    EXPECT_TRUE(contains(server->output(), std::string("/resolve 200 ")) &&
                contains(server->output(), std::string("host=") + kName))
        << server->output();
}

}  // namespace
