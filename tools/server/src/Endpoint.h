// A listening or advertised address: host and port, written "HOST:PORT" or "[V6]:PORT".
#pragma once

#include <string>

namespace qel::server {

struct Endpoint {
    std::string host;  // an address or name, without brackets
    int port = 0;

    /// "127.0.0.1:18053", "[::1]:18053".
    std::string text() const;
    /// "http://127.0.0.1:18053" ("https://..." with `tls`): the base URL clients put the
    /// request paths after.
    std::string url(bool tls = false) const { return (tls ? "https://" : "http://") + text(); }
};

/// Reads "HOST:PORT", "[V6]:PORT" or, when `defaultPort` is not 0, a bare "HOST" / "[V6]".
/// Throws std::invalid_argument with a message naming what is wrong.
Endpoint parseEndpoint(const std::string& text, int defaultPort = 0);

}  // namespace qel::server
