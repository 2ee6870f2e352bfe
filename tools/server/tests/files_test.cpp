// What the service reads from the zone file and the command line; process_test refuses the
// faulty ones through the binary.
#include <gtest/gtest.h>

#include "Options.h"
#include "Zone.h"

using namespace qel::server;
using Strings = std::vector<std::string>;

TEST(Files, ZoneNamesAreFoundWithoutRegardToCase) {
    const Zone zone = Zone::parse("a.test 10 AAAA 2001:db8::1\nb_1.test 0 A 198.51.100.1\n", "z");
    EXPECT_EQ(zone.names(), 2u);
    EXPECT_EQ(zone.find("A.test.", AddressType::V6).addresses, Strings{"2001:db8::1"});
    EXPECT_TRUE(zone.find("a.test", AddressType::V4).addresses.empty() && zone.contains("B_1.test") && !zone.contains("c.test"));
}

TEST(Files, CommandLineNodes) {
    const Options nodes = parseOptions({"--accounts=a", "--listen", "[::1]:9000", "--node", "127.0.0.1:9001",
                                        "--node=127.0.0.2:65535", "--upstream", "::1", "--window", "60"});
    EXPECT_EQ(nodes.listen.url(), "http://[::1]:9000");
    EXPECT_EQ(nodes.nodeList(nodes.listeners()), (Strings{"http://127.0.0.1:9001", "http://127.0.0.2:65535"}));
    EXPECT_EQ(nodes.upstream->text() + " " + std::to_string(nodes.windowSeconds), "[::1]:53 60");
    const Options one = parseOptions({"--accounts", "a", "--listen", "127.0.0.1:1"});
    EXPECT_EQ(one.nodeList(one.listeners()), Strings{"http://127.0.0.1:1"});
    const Options advertised = parseOptions({"--accounts", "a", "--advertise", "http://x:1", "--advertise", "https://x:1"});
    EXPECT_EQ(advertised.nodeList(advertised.listeners()), (Strings{"http://x:1", "https://x:1"}));
    EXPECT_TRUE(parseOptions({"--help", "--bogus"}).help);
}
