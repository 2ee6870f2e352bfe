// The shared HTTP session on Linux: libcurl's multi interface driven by the socket API on an
// EventLoop. Connections are kept alive in the multi's cache and reused by every later request
// to the same host; many requests run at once on the one loop thread.
//
// Policies (the ones the platform session of the original SDK had, or the safe choice where it
// had none):
//   - redirects are followed, at most 16, to http/https only; 301/302/303 turn a POST into a
//     GET, 307/308 keep it, as a browser does;
//   - the URL is sent as given: dot segments ("/./", "/../") are not resolved;
//   - the timeout bounds the whole exchange (see HttpRequest::timeoutSeconds);
//   - a body above kMaxResponseBodyBytes (after content decoding) ends the transfer with a
//     transport error, so a hostile server cannot make us hold an unbounded answer;
//   - gzip/deflate/br/zstd answers are accepted and decoded; TCP_NODELAY is on; no
//     "Expect: 100-continue" wait on large bodies;
//   - the proxy, CA file and pinned key of TransportSettings; without a proxy of its own, the
//     environment's (http_proxy, https_proxy, all_proxy, no_proxy), as the system session of
//     the original platform honours the system's;
//   - at most kMaxConnectionsPerHost connections per host; further requests wait for one.
//
// Threads: `send` may be called from any thread; it never blocks on the network or on the
// loop's work. Everything else runs on the loop thread, including every completion, one at a
// time. No lock is held while a completion runs.
#pragma once

#include <cstddef>
#include <memory>

#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/HttpSession.h"

namespace qel::platform {

class CurlHttpSession final : public HttpSession {
public:
    static constexpr size_t kMaxResponseBodyBytes = size_t{1} << 20;
    static constexpr long kMaxConnectionsPerHost = 6;
    static constexpr long kMaxRedirects = 16;

    /// A session on `loop`, which must outlive it. The library uses `shared()`.
    explicit CurlHttpSession(EventLoop& loop);
    /// Ends every pending request with a transport error (its completion runs, on the loop
    /// thread, before this returns) and closes the connections. Must not be called from a
    /// completion of this session.
    ~CurlHttpSession() override;
    CurlHttpSession(const CurlHttpSession&) = delete;
    CurlHttpSession& operator=(const CurlHttpSession&) = delete;

    /// The process-wide session on `EventLoop::shared()`; never destroyed. While that loop
    /// cannot start (descriptors or threads run out), a session without a loop, whose `send`
    /// fails each request with a transport error on the sending thread before it returns;
    /// every call tries to start the loop again. Never throws.
    static CurlHttpSession& shared();

    void send(HttpRequest request, Completion completion) override;

private:
    CurlHttpSession() = default;  // without a loop: see shared()

    class Core;
    struct Transfer;
    std::shared_ptr<Core> core_;
};

}  // namespace qel::platform
