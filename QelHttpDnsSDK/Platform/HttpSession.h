// The platform's shared HTTP session: sends requests and hands each answer to a completion.
#pragma once

#include <functional>

#include "QelHttpDnsSDK/Platform/HttpRequest.h"
#include "QelHttpDnsSDK/Platform/HttpResponse.h"

namespace qel::platform {

class HttpSession {
public:
    /// Called exactly once per request, on the session's platform thread, one at a time.
    using Completion = std::function<void(HttpResponse response)>;

    virtual ~HttpSession() = default;

    /// Starts `request` and returns at once; callable from any thread.
    virtual void send(HttpRequest request, Completion completion) = 0;

    /// The session the library uses, made on first use and kept for the life of the process
    /// (see PlatformServices.h). Callable from any thread.
    static HttpSession& shared();
};

}  // namespace qel::platform
