// The real binary as a child process: reload on SIGHUP over a connection that stays open,
// stop on SIGTERM, and the exit status of a busy port or a bad configuration.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>
#include <set>

#include "ServerTestSupport.h"

using namespace qel::server::test;

namespace {

const std::string kAccounts = std::string("# test account\n") + kAuthId + " " + kSecret + "\n";

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Process, SighupReloadsTheZoneWithoutDroppingConnectionsAndKeepsItWhenTheNewOneIsBad) {
    TempFile accounts(kAccounts), zone("a.example.test 60 A 192.0.2.1\n");
    const int port = freePort(SOCK_STREAM);
    ChildProcess server(QEL_SERVER_BINARY, {"--accounts", accounts.path(), "--zone", zone.path(),
                                            "--listen", "127.0.0.1:" + std::to_string(port)});
    httplib::Client client("127.0.0.1", port);
    client.set_keep_alive(true);
    const auto ask = [&] {
        const auto request = sdkResolve(kAuthId, kSecret, "a.example.test", 1, nowMilliseconds());
        const auto answer = client.Get(request.target.c_str(), {{"Authorization", request.authorization}});
        return answer ? answer->body : std::string("no answer");
    };
    ASSERT_TRUE(eventually([&] { return contains(ask(), "192.0.2.1"); })) << server.errors();

    zone.write("a.example.test 60 A 192.0.2.2\n");
    server.signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return contains(ask(), "192.0.2.2"); })) << server.errors();
    EXPECT_TRUE(contains(server.errors(), "zone reloaded: 1 names"));

    zone.write("a.example.test 60 A 192.0.2.3\na.example.test 60 MX mail.example.test\n");
    server.signal(SIGHUP);
    ASSERT_TRUE(eventually([&] { return contains(server.errors(), "zone not reloaded"); }));
    EXPECT_TRUE(contains(server.errors(), "zone not reloaded, the previous one stays: " + zone.path() +
                                              ":2: record type MX is not served (A and AAAA are)"));
    EXPECT_TRUE(contains(ask(), "192.0.2.2"));

    // Every answer came over the one connection the client opened first.
    std::set<std::string> remotes;
    const std::regex line(R"(^\S+ (127\.0\.0\.1:\d+) acct-7 GET /acct-7/resolve 200 .*)");
    std::istringstream output(server.output());
    for (std::string text; std::getline(output, text);) {
        std::smatch match;
        if (std::regex_match(text, match, line)) remotes.insert(match[1]);
    }
    EXPECT_EQ(remotes.size(), 1u) << server.output();

    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_TRUE(contains(server.errors(), "stopped"));
    EXPECT_FALSE(contains(server.output() + server.errors(), kSecret));
}

TEST(Process, ABusyPortIsAClearErrorAndExitStatus3) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string busy = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    TempFile accounts(kAccounts);
    const std::string freeNode = "127.0.0.1:" + std::to_string(freePort(SOCK_STREAM));
    ChildProcess server(QEL_SERVER_BINARY, {"--accounts", accounts.path(), "--listen", freeNode, "--node", busy});
    EXPECT_EQ(server.wait(), 3);
    EXPECT_EQ(server.errors(), "qel-httpdns-server: cannot listen on " + busy + ": Address already in use\n");
    close(fd);
}

TEST(Process, BadConfigurationExitsWith2AndSaysWhy) {
    TempFile accounts(kAccounts), zone("; names\nok.example.test 60 A 192.0.2.1\nbad.example.test 60 A 300.1.1.1\n");
    TempFile badAccounts(std::string(kAuthId) + " " + kSecret + " extra\n");
    struct Case {
        std::vector<std::string> arguments;
        std::string error;
    };
    const std::vector<Case> cases = {
        {{"--accounts", accounts.path(), "--zone", zone.path()},
         zone.path() + ":3: '300.1.1.1' is not an IPv4 address"},
        {{"--accounts", badAccounts.path()}, badAccounts.path() + ":1: expected two fields, AuthId and AuthSecret"},
        {{"--zone", zone.path()}, "--accounts FILE is required (see --help)"},
        {{"--accounts", accounts.path(), "--listen", "127.0.0.1"}, "--listen '127.0.0.1': expected HOST:PORT (see --help)"},
        {{"--accounts", accounts.path(), "--upstream", "dns.example.test"},
         "--upstream expects an IP address, not the name 'dns.example.test' (see --help)"},
    };
    for (const auto& c : cases) {
        ChildProcess server(QEL_SERVER_BINARY, c.arguments);
        EXPECT_EQ(server.wait(), 2);
        EXPECT_EQ(server.errors(), "qel-httpdns-server: " + c.error + "\n");
        EXPECT_FALSE(contains(server.errors(), kSecret));
    }
    ChildProcess help(QEL_SERVER_BINARY, {"--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_TRUE(contains(help.output(), "Usage: qel-httpdns-server --accounts FILE"));
}
