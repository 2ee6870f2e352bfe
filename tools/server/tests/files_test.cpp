// What the service reads: the zone and accounts files, the command line, request targets.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "Accounts.h"
#include "Options.h"
#include "RequestTarget.h"
#include "Zone.h"

using namespace qel::server;
using Strings = std::vector<std::string>;

TEST(Files, ZoneAndAccountsAsWritten) {
    const Zone zone = Zone::parse(
        "$TTL 90\na.test. 60 IN A 192.0.2.1 ; first\n"
        "A.TEST in a 192.0.2.2\n"  // the $TTL, class and type in any case
        "a.test 60 A 192.0.2.1\n"  // a repeated address is kept once
        "  # a comment line\n\na.test 10 AAAA 2001:0DB8:0:0::1\nb_1.test 0 A 198.51.100.1\n",
        "z");
    EXPECT_EQ(zone.names(), 2u);
    EXPECT_EQ(zone.find("a.test.", AddressType::V4).addresses, (Strings{"192.0.2.1", "192.0.2.2"}));
    EXPECT_EQ(zone.find("a.test", AddressType::V6).addresses, Strings{"2001:db8::1"});
    EXPECT_TRUE(zone.contains("B_1.test") && !zone.contains("c.test"));
    const Accounts accounts = Accounts::parse("# id secret\nacct-7  s3cr3t\n\n\tacct-8 x#y\n", "a");
    EXPECT_EQ(accounts.size(), 2u);
    EXPECT_EQ(accounts.secretOf("acct-8"), "x#y");
    EXPECT_EQ(accounts.secretOf("acct-9"), std::nullopt);
}

TEST(Files, CommandLineDefaultsAndNodes) {
    const Options defaults = parseOptions({"--accounts", "a"});
    EXPECT_EQ(defaults.nodeList(defaults.listeners()), Strings{"http://127.0.0.1:18053"});
    EXPECT_EQ(defaults.windowSeconds, 300);
    const Options nodes = parseOptions({"--accounts=a", "--listen", "[::1]:9000", "--node", "127.0.0.1:9001",
                                        "--node=127.0.0.2:65535", "--upstream", "::1", "--window", "60"});
    EXPECT_EQ(nodes.listeners().size(), 3u);
    EXPECT_EQ(nodes.listen.url(), "http://[::1]:9000");
    EXPECT_EQ(nodes.nodeList(nodes.listeners()), (Strings{"http://127.0.0.1:9001", "http://127.0.0.2:65535"}));
    EXPECT_EQ(nodes.upstream->text(), "[::1]:53");
    EXPECT_EQ(nodes.windowSeconds, 60);
    const Options advertised = parseOptions({"--accounts", "a", "--advertise", "http://x:1", "--advertise", "https://x:1"});
    EXPECT_EQ(advertised.nodeList(advertised.listeners()), (Strings{"http://x:1", "https://x:1"}));
    EXPECT_TRUE(parseOptions({"--help", "--bogus"}).help);
}

// Errors name the file and line and never quote an account line, which holds a secret.
TEST(Files, EachFaultIsNamed) {
    const auto zone = [](const std::string& text) { Zone::parse(text, "z"); };
    const auto accounts = [](const std::string& text) { Accounts::parse(text, "a"); };
    const auto options = [](const std::string& text) {
        std::istringstream words(text);
        parseOptions({std::istream_iterator<std::string>(words), {}});
    };
    const std::string longName(254, 'n');
    const struct {
        std::function<void(const std::string&)> parse;
        std::string text, error;
    } cases[] = {
        {zone, "ok.test 5 A 192.0.2.1\nbad.test 5 A 2001:db8::1", "z:2: '2001:db8::1' is not an IPv4 address"},
        {zone, "a.test 5 AAAA 192.0.2.1", "z:1: '192.0.2.1' is not an IPv6 address"},
        {zone, "a.test 5 CNAME b.test", "z:1: record type CNAME is not served (A and AAAA are)"},
        {zone, "a.test A 192.0.2.1", "z:1: no TTL on the line and no $TTL before it"},
        {zone, "a.test 2147483648 A 192.0.2.1", "z:1: TTL '2147483648' is not 0 to 2147483647"},
        {zone, "a.test 5 CH A 192.0.2.1", "z:1: expected NAME [TTL] [IN] A|AAAA ADDRESS"},
        {zone, "a.test 5 A", "z:1: expected NAME [TTL] [IN] A|AAAA ADDRESS"},
        {zone, "a/b 5 A 192.0.2.1", "z:1: 'a/b' is not a host name"},
        {zone, longName + " 5 A 192.0.2.1", "z:1: '" + longName + "' is not a host name"},
        {zone, "$ORIGIN test.", "z:1: directive $ORIGIN is not supported ($TTL is)"},
        {zone, "$TTL soon", "z:1: expected $TTL SECONDS (0 to 2147483647)"},
        {accounts, "acct-7 s3cr3t tail\n", "a:1: expected two fields, AuthId and AuthSecret"},
        {accounts, "\nacct-7\n", "a:2: expected two fields, AuthId and AuthSecret"},
        {accounts, "acct-7 s3cr3t\nacct-7 s3cr3t2\n", "a:2: account acct-7 is listed twice"},
        {options, "--accounts a --listen 127.0.0.1:70000", "--listen '127.0.0.1:70000': port must be a number from 1 to 65535"},
        {options, "--accounts a --listen 127.0.0.1:0", "--listen '127.0.0.1:0': port must be a number from 1 to 65535"},
        {options, "--accounts a --listen ::1:80", "--listen '::1:80': write an IPv6 address as [ADDRESS]:PORT"},
        {options, "--accounts a --listen [::1]80", "--listen '[::1]80': expected ':' after ']'"},
        {options, "--accounts a --listen 127.0.0.1", "--listen '127.0.0.1': expected HOST:PORT"},
        {options, "--accounts a --upstream 127.0.0.1:", "--upstream '127.0.0.1:': missing port"},
        {options, "--accounts a --listen :80", "--listen ':80': empty host"},
        {options, "--accounts a --upstream dns.test", "--upstream expects an IP address, not the name 'dns.test'"},
        {options, "--accounts a --advertise 127.0.0.1:1",
         "--advertise expects a base URL such as http://127.0.0.1:18054, not '127.0.0.1:1'"},
        {options, "--accounts a --window 0", "--window expects a number from 1 to 31622400, not '0'"},
        {options, "--accounts a --threads 1025", "--threads expects a number from 1 to 1024, not '1025'"},
        {options, "--accounts", "--accounts needs a value"},
        {options, "--zone z", "--accounts FILE is required"},
        {options, "--verbose", "unknown option '--verbose'"},
    };
    for (const auto& c : cases) {
        try {
            c.parse(c.text);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const std::exception& error) {
            EXPECT_EQ(error.what(), c.error);
        }
    }
}

TEST(Files, RequestTargetsAreDecodedAsTheSdkEncodesThem) {
    // "+" stays (the SDK never writes a blank as "+"); app_id runs to the end of the query.
    const RequestTarget target =
        parseTarget("/acct%207/resolve?timestamp=12&host=a.test&type=1&app_id=com.x+y%20(1)&k=v%zz%4");
    EXPECT_EQ(target.path, "/acct 7/resolve");
    EXPECT_EQ(target.param("host"), "a.test");
    EXPECT_EQ(target.param("app_id"), "com.x+y (1)&k=v%zz%4");
    EXPECT_EQ(target.param("k"), std::nullopt);
    EXPECT_EQ(parseTarget("/a/service").query.size(), 0u);
}
