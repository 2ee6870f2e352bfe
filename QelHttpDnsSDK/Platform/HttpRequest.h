// One HTTP exchange as the shared session sends it: the stand-in for a mutable URL request.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qel::platform {

enum class HttpMethod { Get, Post };

struct HttpRequest {
    HttpMethod method = HttpMethod::Get;
    /// Sent as it is: the caller does any percent-encoding. Only http:// and https:// URLs are
    /// fetched; anything else fails as a transport error.
    std::string url;
    /// Sent in this order, after the transport's own lines (Host, Accept, Accept-Encoding). A
    /// header whose name is empty or holds a colon, blank, CR, LF or NUL, or whose value holds
    /// CR, LF or NUL, is not sent, so no caller text can inject lines into the request.
    std::vector<std::pair<std::string, std::string>> headers;
    /// POST only; a GET never carries a body.
    std::string body;
    /// Bound on the whole exchange (connect, redirects, body), in seconds. +infinity means no
    /// bound. A positive value is rounded up to whole milliseconds (never down to "no bound");
    /// zero, a negative value or NaN is the shortest bound there is (1 ms), so a nonsensical
    /// setting fails fast instead of hanging.
    double timeoutSeconds = 20.0;

    /// Sets `name` to `value` the way a URL request's header field is set: an existing header
    /// of that name, compared without regard to case, is replaced where it stands (name and
    /// value); otherwise the header is appended.
    void setHeader(const std::string& name, const std::string& value);
};

}  // namespace qel::platform
