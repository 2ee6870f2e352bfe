// What the service reads: the zone and accounts files and the command line.
#include <gtest/gtest.h>

#include "Accounts.h"
#include "Options.h"
#include "RequestTarget.h"
#include "Zone.h"

using namespace qel::server;

namespace {

std::string zoneError(const std::string& text) {
    try {
        Zone::parse(text, "z");
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "accepted";
}

std::string usageError(const std::vector<std::string>& arguments) {
    try {
        parseOptions(arguments);
    } catch (const UsageError& error) {
        return error.what();
    }
    return "accepted";
}

}  // namespace

TEST(ZoneFile, RecordsInTheMasterFileShape) {
    const Zone zone = Zone::parse(
        "$TTL 90\n"
        "a.test. 60 IN A 192.0.2.1 ; first\n"
        "A.TEST in a 192.0.2.2\n"         // default TTL, class and type in any case
        "a.test 60 A 192.0.2.1\n"         // a repeated address is kept once
        "  # a comment line\n\n"
        "a.test 10 AAAA 2001:0DB8:0:0::1\n"
        "b.test 0 A 198.51.100.1\n",
        "z");
    EXPECT_EQ(zone.names(), 2u);
    const AddressSet v4 = zone.find("a.test.", AddressType::V4);
    EXPECT_EQ(v4.addresses, (std::vector<std::string>{"192.0.2.1", "192.0.2.2"}));
    EXPECT_EQ(v4.ttl, 60);
    const AddressSet v6 = zone.find("a.test", AddressType::V6);
    EXPECT_EQ(v6.addresses, std::vector<std::string>{"2001:db8::1"});
    EXPECT_EQ(v6.ttl, 10);
    EXPECT_TRUE(zone.contains("b.test"));
    EXPECT_TRUE(zone.find("b.test", AddressType::V6).addresses.empty());
    EXPECT_FALSE(zone.contains("c.test"));
}

TEST(ZoneFile, ErrorsNameTheLineAndTheFault) {
    EXPECT_EQ(zoneError("ok.test 5 A 192.0.2.1\nbad.test 5 A 2001:db8::1\n"),
              "z:2: '2001:db8::1' is not an IPv4 address");
    EXPECT_EQ(zoneError("a.test 5 AAAA 192.0.2.1"), "z:1: '192.0.2.1' is not an IPv6 address");
    EXPECT_EQ(zoneError("a.test 5 CNAME b.test"), "z:1: record type CNAME is not served (A and AAAA are)");
    EXPECT_EQ(zoneError("a.test A 192.0.2.1"), "z:1: no TTL on the line and no $TTL before it");
    EXPECT_EQ(zoneError("a.test 2147483648 A 192.0.2.1"), "z:1: TTL '2147483648' is not 0 to 2147483647");
    EXPECT_EQ(zoneError("a.test 5 CH A 192.0.2.1"), "z:1: expected NAME [TTL] [IN] A|AAAA ADDRESS");
    EXPECT_EQ(zoneError("a.test 5 A"), "z:1: expected NAME [TTL] [IN] A|AAAA ADDRESS");
    EXPECT_EQ(zoneError("a/b 5 A 192.0.2.1"), "z:1: 'a/b' is not a host name");
    EXPECT_EQ(zoneError("$ORIGIN test."), "z:1: directive $ORIGIN is not supported ($TTL is)");
    EXPECT_EQ(zoneError("$TTL soon"), "z:1: expected $TTL SECONDS (0 to 2147483647)");
}

TEST(AccountsFile, PairsPerLineAndErrorsThatNeverQuoteASecret) {
    const Accounts accounts = Accounts::parse("# id secret\nacct-7  s3cr3t\n\n\tacct-8 x#y\n", "a");
    EXPECT_EQ(accounts.size(), 2u);
    EXPECT_EQ(accounts.secretOf("acct-8"), "x#y");
    EXPECT_EQ(accounts.secretOf("acct-9"), std::nullopt);

    for (const auto& [text, error] : std::vector<std::pair<std::string, std::string>>{
             {"acct-7 s3cr3t tail\n", "a:1: expected two fields, AuthId and AuthSecret"},
             {"\nacct-7\n", "a:2: expected two fields, AuthId and AuthSecret"},
             {"acct-7 s3cr3t\nacct-7 s3cr3t2\n", "a:2: account acct-7 is listed twice"}}) {
        try {
            Accounts::parse(text, "a");
            ADD_FAILURE() << "accepted: " << text;
        } catch (const std::runtime_error& thrown) {
            EXPECT_EQ(thrown.what(), error);
        }
    }
}

TEST(CommandLine, DefaultsNodesAndRefusals) {
    const Options defaults = parseOptions({"--accounts", "a"});
    EXPECT_EQ(defaults.listen.text(), "127.0.0.1:18053");
    EXPECT_EQ(defaults.nodeList(defaults.listeners()), std::vector<std::string>{"http://127.0.0.1:18053"});
    EXPECT_EQ(defaults.windowSeconds, 300);

    const Options nodes = parseOptions({"--accounts=a", "--listen", "[::1]:9000", "--node", "127.0.0.1:9001",
                                        "--node=127.0.0.2:9002", "--upstream", "::1", "--window", "60"});
    EXPECT_EQ(nodes.listeners().size(), 3u);
    EXPECT_EQ(nodes.listen.url(), "http://[::1]:9000");
    EXPECT_EQ(nodes.nodeList(nodes.listeners()),
              (std::vector<std::string>{"http://127.0.0.1:9001", "http://127.0.0.2:9002"}));
    EXPECT_EQ(nodes.upstream->text(), "[::1]:53");

    const Options advertised = parseOptions({"--accounts", "a", "--advertise", "http://x:1", "--advertise", "http://x:1"});
    EXPECT_EQ(advertised.nodeList(advertised.listeners()), (std::vector<std::string>{"http://x:1", "http://x:1"}));
    EXPECT_TRUE(parseOptions({"--help", "--bogus"}).help);

    EXPECT_EQ(usageError({"--accounts", "a", "--listen", "127.0.0.1:70000"}),
              "--listen '127.0.0.1:70000': port must be a number from 1 to 65535");
    EXPECT_EQ(usageError({"--accounts", "a", "--listen", "::1:80"}),
              "--listen '::1:80': write an IPv6 address as [ADDRESS]:PORT");
    EXPECT_EQ(usageError({"--accounts", "a", "--advertise", "127.0.0.1:1"}),
              "--advertise expects a base URL such as http://127.0.0.1:18054, not '127.0.0.1:1'");
    EXPECT_EQ(usageError({"--accounts", "a", "--window", "0"}), "--window expects a number from 1 to 31622400, not '0'");
    EXPECT_EQ(usageError({"--accounts"}), "--accounts needs a value");
    EXPECT_EQ(usageError({"--verbose"}), "unknown option '--verbose'");
}

TEST(RequestTargets, DecodedAsTheSdkEncodesThem) {
    // "+" stays (the SDK never writes a blank as "+"); app_id runs to the end of the query.
    const RequestTarget target =
        parseTarget("/acct%207/resolve?timestamp=12&host=a.test&type=1&app_id=com.x+y%20(1)&k=v%zz");
    EXPECT_EQ(target.path, "/acct 7/resolve");
    EXPECT_EQ(target.param("host"), "a.test");
    EXPECT_EQ(target.param("app_id"), "com.x+y (1)&k=v%zz");
    EXPECT_EQ(target.param("k"), std::nullopt);
    EXPECT_EQ(parseTarget("/a/service").query.size(), 0u);
}
