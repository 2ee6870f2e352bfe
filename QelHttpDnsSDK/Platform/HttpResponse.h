// What the shared session hands to a request's completion.
#pragma once

#include <optional>
#include <string>

namespace qel::platform {

struct HttpResponse {
    /// The (decoded) body received, possibly partial when `error` is set.
    std::string body;
    /// Status code of the last response received (after redirects); 0 when no response arrived.
    int statusCode = 0;
    /// Set when the exchange failed in transport: no connection, timeout, connection lost,
    /// malformed or unsupported URL, too many redirects, a body over the size bound. An HTTP
    /// error status (404, 500) is not a transport error. The text is for diagnostics only.
    std::optional<std::string> error;
};

}  // namespace qel::platform
