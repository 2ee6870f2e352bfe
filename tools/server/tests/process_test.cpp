// The real binary as a child process: reload on SIGHUP over a connection that stays open,
// stop on SIGTERM, and the exit status of a busy port or a bad configuration.
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <set>

#include "ServerTestSupport.h"

using namespace qel::server::test;

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

const std::string kAccounts = std::string("# test account\n") + kAuthId + " " + kSecret + "\n";

}  // namespace

TEST(Process, SighupReloadsTheZoneWithoutDroppingConnectionsAndKeepsItWhenTheNewOneIsBad) {
    TempFile accounts(kAccounts), zone("a.example.test 60 A 192.0.2.1\n");
    const int port = freePort(SOCK_STREAM);
    ChildProcess server(QEL_SERVER_BINARY, {"--accounts", accounts.path(), "--zone", zone.path(), "--listen",
                                            "127.0.0.1:" + std::to_string(port)});
    httplib::Client client("127.0.0.1", port);
    client.set_keep_alive(true);
    const auto answers = [&](const char* address) {
        return contains(get(client, sdkResolve("a.example.test", 1)).body, address);
    };
    ASSERT_TRUE(eventually([&] { return answers("192.0.2.1"); })) << server.errors();

    zone.write("a.example.test 60 A 192.0.2.2\n");
    kill(server.pid, SIGHUP);
    ASSERT_TRUE(eventually([&] { return answers("192.0.2.2"); })) << server.errors();
    EXPECT_TRUE(contains(server.errors(), "zone reloaded: 1 names"));

    zone.write("a.example.test 60 A 192.0.2.3\na.example.test 60 MX mail.example.test\n");
    kill(server.pid, SIGHUP);
    ASSERT_TRUE(eventually([&] { return contains(server.errors(), "zone not reloaded"); }));
    EXPECT_TRUE(contains(server.errors(), "zone not reloaded, the previous one stays: " + zone.path() +
                                              ":2: record type MX is not served (A and AAAA are)"));
    EXPECT_TRUE(answers("192.0.2.2"));

    // Every answer came over the one connection the client opened first.
    std::set<std::string> remotes;
    const std::regex line(R"(\S+ (127\.0\.0\.1:\d+) acct-7 GET /acct-7/resolve 200 .*)");
    std::istringstream output(server.output());
    for (std::string text; std::getline(output, text);) {
        std::smatch match;
        if (std::regex_match(text, match, line)) remotes.insert(match[1]);
    }
    EXPECT_EQ(remotes.size(), 1u) << server.output();

    kill(server.pid, SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_TRUE(contains(server.errors(), "stopped"));
    EXPECT_FALSE(contains(server.output() + server.errors(), kSecret));
}

TEST(Process, EachWayOfNotStartingHasItsStatusAndMessage) {
    TempFile accounts(kAccounts), zone("; names\nok.example.test 60 A 192.0.2.1\nbad.example.test 60 A 300.1.1.1\n");
    const LocalService busy;
    const std::string busyNode = "127.0.0.1:" + std::to_string(busy.port());
    const struct {
        std::vector<std::string> arguments;
        int status;
        std::string error;
    } cases[] = {
        {{"--accounts", accounts.path(), "--zone", zone.path()}, 2, zone.path() + ":3: '300.1.1.1' is not an IPv4 address"},
        {{"--zone", zone.path()}, 2, "--accounts FILE is required (see --help)"},
        {{"--accounts", accounts.path() + ".none"}, 2, accounts.path() + ".none: cannot read: No such file or directory"},
        {{"--accounts", accounts.path(), "--listen", "127.0.0.1:" + std::to_string(freePort(SOCK_STREAM)), "--node", busyNode},
         3, "cannot listen on " + busyNode + ": Address already in use"},
    };
    for (const auto& c : cases) {
        ChildProcess server(QEL_SERVER_BINARY, c.arguments);
        EXPECT_EQ(server.wait(), c.status);
        EXPECT_EQ(server.errors(), "qel-httpdns-server: " + c.error + "\n");
    }
    ChildProcess help(QEL_SERVER_BINARY, {"--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_TRUE(contains(help.output(), "Usage: qel-httpdns-server --accounts FILE"));
}
