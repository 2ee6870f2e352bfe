// The real binary as a child process: reload on SIGHUP over a connection that stays open,
// stop on SIGTERM, and the exit status of a busy port or a bad configuration.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>
#include <iterator>
#include <sstream>

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
    // From here on every answer comes over the connection already open: none is made.
    int connections = 0;
    client.set_socket_options([&](auto) { ++connections; });

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
    EXPECT_EQ(connections, 0);

    kill(server.pid, SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_TRUE(contains(server.errors(), "stopped"));
    EXPECT_FALSE(contains(server.output() + server.errors(), kSecret));
}

// A file that does not load is named with its line, never quoted: an account line holds a
// secret. A faulty command line also points at --help.
TEST(Process, EachWayOfNotStartingHasItsStatusAndMessage) {
    const LocalService busy;
    const std::string busyNode = "127.0.0.1:" + std::to_string(busy.port()), name(254, 'n');
    const std::string zoned = "--accounts ACCOUNTS --zone ZONE", with = "--accounts ACCOUNTS ";
    const struct {
        std::string arguments;  // ZONE and ACCOUNTS stand for the files' paths
        int status;
        std::string error, zone = {}, accounts = kAccounts;
    } cases[] = {
        {zoned, 2, "ZONE:3: '2001:db8::1' is not an IPv4 address", "; names\nok.test 5 A 192.0.2.1\nbad.test 5 A 2001:db8::1"},
        {zoned, 2, "ZONE:1: '192.0.2.1' is not an IPv6 address", "a.test 5 AAAA 192.0.2.1"},
        {zoned, 2, "ZONE:1: record type MX is not served (A and AAAA are)", "a.test 5 MX b.test"},
        {zoned, 2, "ZONE:1: no TTL on the line and no $TTL before it", "a.test A 192.0.2.1"},
        {zoned, 2, "ZONE:1: TTL '2147483648' is not 0 to 2147483647", "a.test 2147483648 A 192.0.2.1"},
        {zoned, 2, "ZONE:1: expected NAME [TTL] [IN] A|AAAA ADDRESS", "a.test 5 CH A 192.0.2.1"},
        {zoned, 2, "ZONE:1: expected NAME [TTL] [IN] A|AAAA ADDRESS", "a.test 5 A"},
        {zoned, 2, "ZONE:1: 'a/b' is not a host name", "a/b 5 A 192.0.2.1"},
        {zoned, 2, "ZONE:1: '" + name + "' is not a host name", name + " 5 A 192.0.2.1"},
        {zoned, 2, "ZONE:1: directive $ORIGIN is not supported ($TTL is)", "$ORIGIN test."},
        {zoned, 2, "ZONE:1: expected $TTL SECONDS (0 to 2147483647)", "$TTL soon"},
        {with, 2, "ACCOUNTS:1: expected two fields, AuthId and AuthSecret", "", "acct-7 s3cr3t tail\n"},
        {with, 2, "ACCOUNTS:2: expected two fields, AuthId and AuthSecret", "", "\nacct-7\n"},
        {with, 2, "ACCOUNTS:2: account acct-7 is listed twice", "", "acct-7 s3cr3t\nacct-7 s3cr3t2\n"},
        {"--accounts ACCOUNTS.none", 2, "ACCOUNTS.none: cannot read: No such file or directory"},
        {"--zone ZONE", 2, "--accounts FILE is required"},
        {"--accounts", 2, "--accounts needs a value"},
        {"--verbose", 2, "unknown option '--verbose'"},
        {"--accounts=ACCOUNTS --listen 127.0.0.1:70000", 2, "--listen '127.0.0.1:70000': port must be a number from 1 to 65535"},
        {with + "--listen 127.0.0.1:0", 2, "--listen '127.0.0.1:0': port must be a number from 1 to 65535"},
        {with + "--listen ::1:80", 2, "--listen '::1:80': write an IPv6 address as [ADDRESS]:PORT"},
        {with + "--listen [::1]80", 2, "--listen '[::1]80': expected ':' after ']'"},
        {with + "--listen 127.0.0.1", 2, "--listen '127.0.0.1': expected HOST:PORT"},
        {with + "--upstream 127.0.0.1:", 2, "--upstream '127.0.0.1:': missing port"},
        {with + "--listen :80", 2, "--listen ':80': empty host"},
        {with + "--upstream dns.test", 2, "--upstream expects an IP address, not the name 'dns.test'"},
        {with + "--advertise 127.0.0.1:1", 2, "--advertise expects a base URL such as http://127.0.0.1:18054, not '127.0.0.1:1'"},
        {with + "--window 0", 2, "--window expects a number from 1 to 31622400, not '0'"},
        {with + "--threads 1025", 2, "--threads expects a number from 1 to 1024, not '1025'"},
        {with + "--listen 127.0.0.1:" + std::to_string(freePort(SOCK_STREAM)) + " --node " + busyNode, 3,
         "cannot listen on " + busyNode + ": Address already in use"},
        {"--help", 0, ""},
    };
    for (const auto& c : cases) {
        const TempFile zone(c.zone), accounts(c.accounts);
        const auto fill = [&](std::string text) {
            for (const auto& [token, path] : {std::pair{"ZONE", zone.path()}, std::pair{"ACCOUNTS", accounts.path()}}) {
                for (size_t at; (at = text.find(token)) != std::string::npos;) text.replace(at, std::strlen(token), path);
            }
            return text;
        };
        std::istringstream words(fill(c.arguments));
        ChildProcess server(QEL_SERVER_BINARY, {std::istream_iterator<std::string>(words), {}});
        EXPECT_EQ(server.wait(), c.status) << c.arguments;
        const bool usage = c.status == 2 && c.error.rfind("ZONE", 0) != 0 && c.error.rfind("ACCOUNTS", 0) != 0;
        const std::string help = usage ? " (see --help)" : "";
        EXPECT_EQ(server.errors(), c.error.empty() ? "" : "qel-httpdns-server: " + fill(c.error) + help + "\n");
    }
}
