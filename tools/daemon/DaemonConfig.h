// The daemon's configuration: `key = value` lines ("#" starts a comment line), read from
// /etc/qel-httpdns/qel-httpdnsd.conf or the file given with --config. An unknown key, a bad
// value, a key given twice or a missing required key is refused with the file and line.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qel::daemon {

struct DaemonConfig {
    static constexpr char kDefaultPath[] = "/etc/qel-httpdns/qel-httpdnsd.conf";

    std::string serviceUrl;      // service_url (required): http(s)://host[:port]
    std::string authId;          // auth_id (required)
    std::string authSecret;      // read from auth_secret_file (required)
    std::string appId = "qel-httpdnsd";                      // app_id
    std::string socket = "/run/qel-httpdns/resolve.sock";    // socket
    std::string store = "/var/lib/qel-httpdns/store.sqlite3";  // store; "" keeps it in memory
    double timeout = 5;                                      // timeout, seconds per lookup
    std::vector<std::string> degradeHosts;                   // degrade_hosts
    std::vector<std::string> preResolve;                     // pre_resolve
    size_t maxNames = 100000;                                // max_names (0: no bound)
    double maxAge = 86400;                                   // max_age, seconds (0: none)
    double maxStale = 0;                                     // max_stale, seconds (0: none)
    bool perNetwork = false;                                 // per_network
    std::string dnsListen;        // dns_listen: IP:PORT of the DNS stub; "": none
    std::string dnsUpstream = "resolv.conf";  // dns_upstream: resolv.conf, refuse or IP:PORT
    size_t maxPerPeer = 16;       // max_per_peer: requests of one process at once
    bool debug = false;           // debug: the SDK's request and answer lines in the log

    /// The configuration in `path`, or nothing with `error` set ("FILE:LINE: why").
    static std::optional<DaemonConfig> load(const std::string& path, std::string& error);
    /// As `load`, from `text` (`path` names it in messages; the secret file is read from disk).
    static std::optional<DaemonConfig> parse(const std::string& text, const std::string& path,
                                             std::string& error);
};

}  // namespace qel::daemon
