// The command line of `qeldns`: what to look up and how the SDK is to be set up for it.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct QeldnsOptions {
    int64_t type = 1;           // 1 IPv4, 2 IPv6
    bool bothFamilies = false;  // -a: IPv4, then IPv6
    std::optional<std::string> authId, authSecret;
    std::optional<std::string> server;
    std::optional<std::string> caFile;  // PEM certificate authorities of an https service
    std::optional<std::string> pin;     // its public key, as CURLOPT_PINNEDPUBLICKEY reads it
    double timeout = 0.0;               // seconds; 0 is the SDK's default of 20 s
    bool cache = true;
    bool expired = false;
    std::vector<std::string> degradeHosts;
    std::optional<std::string> storePath;
    bool clearCache = false;
    bool verbose = false;
    bool json = false;
    // The SDK's resilience profile (own keys: never a wrong family; --timeout is each lookup's
    // deadline), unless --design-keys asks for the library's own behaviour.
    bool designKeys = false;
    // --daemon [SOCKET]: ask the resolver daemon instead of hosting the SDK.
    std::optional<std::string> daemonSocket;
    bool version = false;
    int repeat = 1;
    std::optional<std::string> namesFile;
    std::vector<std::string> names;
    bool help = false;

    /// Reads `argv` (and QELDNS_AUTH_ID / QELDNS_AUTH_SECRET for credentials not given).
    /// On bad usage returns nothing and sets `error` to a one-line explanation.
    static std::optional<QeldnsOptions> parse(int argc, char** argv, std::string& error);

    static const char kUsage[];
};
