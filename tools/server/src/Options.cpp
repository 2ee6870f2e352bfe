#include "Options.h"

#include <arpa/inet.h>

#include <functional>
#include <map>

namespace qel::server {

namespace {

int parseNumber(const std::string& option, const std::string& text, int low, int high) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos || std::stoi(text) < low ||
        std::stoi(text) > high) {
        throw UsageError(option + " expects a number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not '" + text + "'");
    }
    return std::stoi(text);
}

Endpoint endpointOption(const std::string& option, const std::string& text, int defaultPort = 0) {
    try {
        return parseEndpoint(text, defaultPort);
    } catch (const std::invalid_argument& error) {
        throw UsageError(option + " " + error.what());
    }
}

bool isAddress(const std::string& host) {
    unsigned char bytes[16];
    return inet_pton(AF_INET, host.c_str(), bytes) == 1 ||
           inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

}  // namespace

std::vector<Endpoint> Options::listeners() const {
    std::vector<Endpoint> all{listen};
    all.insert(all.end(), nodes.begin(), nodes.end());
    return all;
}

std::vector<std::string> Options::nodeList(const std::vector<Endpoint>& bound) const {
    if (!advertised.empty()) return advertised;
    std::vector<std::string> list;
    for (size_t i = bound.size() > 1 ? 1 : 0; i < bound.size(); ++i)
        list.push_back(bound[i].url(tls()));
    return list;
}

Options parseOptions(const std::vector<std::string>& arguments) {
    Options options;
    using Setter = std::function<void(const std::string&, const std::string&)>;
    const std::map<std::string, Setter> valued = {
        {"--listen", [&](auto& o, auto& v) { options.listen = endpointOption(o, v); }},
        {"--node", [&](auto& o, auto& v) { options.nodes.push_back(endpointOption(o, v)); }},
        {"--advertise",
         [&](auto& o, auto& v) {
             if (v.rfind("http://", 0) != 0 && v.rfind("https://", 0) != 0) {
                 throw UsageError(o + " expects a base URL such as http://127.0.0.1:18054, not '" +
                                  v + "'");
             }
             options.advertised.push_back(v);
         }},
        {"--accounts", [&](auto&, auto& v) { options.accountsFile = v; }},
        {"--zone", [&](auto&, auto& v) { options.zoneFile = v; }},
        {"--upstream",
         [&](auto& o, auto& v) {
             options.upstream = endpointOption(o, v, 53);
             if (!isAddress(options.upstream->host)) {
                 throw UsageError(o + " expects an IP address, not the name '" +
                                  options.upstream->host + "'");
             }
         }},
        {"--upstream-timeout",
         [&](auto& o, auto& v) { options.upstreamTimeoutMs = parseNumber(o, v, 10, 60000); }},
        {"--window",
         [&](auto& o, auto& v) { options.windowSeconds = parseNumber(o, v, 1, 86400 * 366); }},
        {"--threads",
         [&](auto& o, auto& v) {
             options.threads = static_cast<size_t>(parseNumber(o, v, 1, 1024));
         }},
        {"--head-timeout",
         [&](auto& o, auto& v) { options.headTimeoutSeconds = parseNumber(o, v, 1, 3600); }},
        {"--max-connections",
         [&](auto& o, auto& v) {
             options.maxConnections = static_cast<size_t>(parseNumber(o, v, 1, 1000000));
         }},
        {"--max-per-peer",
         [&](auto& o, auto& v) {
             options.maxPerPeer = static_cast<size_t>(parseNumber(o, v, 1, 1000000));
         }},
        {"--access-log", [&](auto&, auto& v) { options.accessLog = v; }},
        {"--tls-cert", [&](auto&, auto& v) { options.tlsCertFile = v; }},
        {"--tls-key", [&](auto&, auto& v) { options.tlsKeyFile = v; }},
    };
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
            return options;
        }
        const size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const auto setter = valued.find(name);
        if (setter == valued.end()) throw UsageError("unknown option '" + argument + "'");
        if (equals != std::string::npos) {
            setter->second(name, argument.substr(equals + 1));
        } else if (i + 1 < arguments.size()) {
            setter->second(name, arguments[++i]);
        } else {
            throw UsageError(name + " needs a value");
        }
    }
    if (options.accountsFile.empty()) throw UsageError("--accounts FILE is required");
    if (options.tlsCertFile.empty() != options.tlsKeyFile.empty()) {
        throw UsageError("--tls-cert and --tls-key go together: give both or neither");
    }
    return options;
}

std::string usage() {
    return R"(Usage: qel-httpdns-server --accounts FILE [options]

An HTTP name-resolution service for the QelHttpDnsSDK: logins and signed resolve requests,
answered from a zone file and, for other names, from a DNS server.

  --accounts FILE          accounts, one "AuthId AuthSecret" per line (required)
  --zone FILE              names: "name [TTL] [IN] A|AAAA address" lines, $TTL, ; and # comments
  --listen HOST:PORT       where logins and resolves are served (default 127.0.0.1:18053)
  --node HOST:PORT         also serve on this address and hand it out as a resolve node;
                           repeatable, handed out in the order given
  --advertise URL          hand out exactly these nodes instead (repeatable, in order; the
                           first is the best node), e.g. nodes served by another process
  --upstream IP[:PORT]     resolve names outside the zone with this DNS server (default
                           port 53; an IPv6 address with a port as [ADDRESS]:PORT)
  --upstream-timeout MS    give up on the DNS server after MS milliseconds (default 2000)
  --window SECONDS         accepted distance of a request's timestamp from this clock,
                           either way (default 300)
  --threads N              event loops per address (default 16); connections share them,
                           and an answer that waits for the DNS server holds its loop
  --head-timeout SECONDS   a request head must arrive whole within this of the connection's
                           start or its previous answer; also how long an idle connection
                           stays open (default 10)
  --max-connections N      connections open at once per address (default 2048)
  --max-per-peer N         connections one client address may hold per address (default 512)
  --access-log FILE        append access lines to FILE instead of standard output
  --tls-cert FILE          serve https with this PEM certificate (chain), on every address;
                           the nodes handed out by default are then https:// URLs
  --tls-key FILE           the PEM private key of --tls-cert (both or neither)
  -h, --help               this text

Signals: SIGHUP reloads the zone and accounts files (a file that does not load is left as it
was, and the reason logged); SIGINT and SIGTERM stop after the requests under way.
Exit status: 0 after a stop by signal, 2 for a bad command line or file (a certificate or
key that cannot be read or used included), 3 when an address
cannot be listened on.
)";
}

}  // namespace qel::server
