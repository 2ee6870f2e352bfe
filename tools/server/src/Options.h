// The command line of qel-httpdns-server.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Endpoint.h"

namespace qel::server {

/// A command line that cannot be used; what() says why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    Endpoint listen{"127.0.0.1", 18053};
    std::vector<Endpoint> nodes;          // further listeners, handed out in this order
    std::vector<std::string> advertised;  // when given, the node list handed out instead
    std::string accountsFile;
    std::string zoneFile;  // empty: no zone
    std::optional<Endpoint> upstream;
    int upstreamTimeoutMs = 2000;
    int windowSeconds = 300;
    size_t threads = 16;
    int headTimeoutSeconds = 10;   // for a request head to arrive whole
    size_t maxConnections = 2048;  // per address
    size_t maxPerPeer = 512;       // from one client address, per address: an application
                                   // pre-resolving a list opens one per name
    std::string accessLog = "-";   // "-": standard output
    std::string tlsCertFile;       // both set: every address serves https; neither: http
    std::string tlsKeyFile;
    bool help = false;

    /// Every endpoint to listen on: `listen`, then `nodes`.
    std::vector<Endpoint> listeners() const;
    bool tls() const { return !tlsCertFile.empty(); }
    /// The node list a login hands out: `advertised` if given, else the URLs of `nodes`, else
    /// the URL of `listen` (https:// ones with TLS on).
    std::vector<std::string> nodeList(const std::vector<Endpoint>& bound) const;
};

/// Throws UsageError.
Options parseOptions(const std::vector<std::string>& arguments);

std::string usage();

}  // namespace qel::server
