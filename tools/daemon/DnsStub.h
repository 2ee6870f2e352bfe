// A DNS stub listener in front of the resolver daemon, for programs that do not go through
// glibc's resolver (static Go binaries, musl containers): they send plain DNS to it over UDP or
// TCP. A and AAAA questions of class IN for host names are answered by the daemon's resolver;
// every other question is relayed to a classic DNS server (the first nameserver of
// /etc/resolv.conf by default), or refused when relaying is off. A query in an EDNS version
// above 0 is neither resolved nor relayed but answered BADVERS.
//
// Threads: the stub runs one thread of its own (an epoll loop) between start() and stop(); every
// socket is read and written there. The resolver callback is called on that thread and must not
// block; its `done` may be called on any thread, at most once, and at any time (even after the
// stub replied SERVFAIL at its deadline, or after stop(): then the answer is dropped).
// start(), stop() and the destructor are for one owning thread.
//
// Bounds: a deadline for each answer (SERVFAIL after it), queries of at most
// DnsQueryDecoder::kMaxQuery bytes, a cap on open TCP connections (per client address and in
// all), on queries in flight (per TCP connection and in all), and an idle timeout on TCP
// connections.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qel::daemon {

/// What the resolver knows of one name for one family.
struct StubAnswer {
    /// Addresses: at least one address; NoName: no address of this family (the stub says
    /// NOERROR with no records, since the name may have addresses of the other family);
    /// Failure: no answer now (SERVFAIL).
    enum Kind { Addresses, NoName, Failure } kind = Failure;
    /// Address text and the seconds of lifetime left, which becomes the record's TTL. Text that
    /// is not an address of the asked family is skipped.
    std::vector<std::pair<std::string, uint32_t>> addresses;
};

/// A listening address or upstream server that cannot be used; what() says which and why.
class DnsStubError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class DnsStub {
public:
    /// Asks for the addresses of `name` (lower case, no trailing dot) of `family` (4 or 6);
    /// `done` takes the answer. Runs on the stub's thread; must return without waiting.
    using Resolve = std::function<void(const std::string& name, int family,
                                       std::function<void(StubAnswer)> done)>;

    struct Options {
        /// "IP:PORT" or "[IPv6]:PORT"; port 0: one the kernel picks (see port()).
        std::string listen = "127.0.0.1:53";
        /// Relay the questions the resolver does not answer; false: answer them REFUSED.
        bool forward = true;
        /// The server to relay to: "IP", "IP:PORT" or "[IPv6]:PORT". Empty: the first
        /// nameserver line of `resolvConf`, read by the constructor and again by each start().
        std::string upstream;
        std::string resolvConf = "/etc/resolv.conf";
        std::chrono::milliseconds upstreamTimeout{2000};  // then SERVFAIL
        std::chrono::milliseconds resolveTimeout{5000};   // the resolver's, then SERVFAIL
        std::chrono::milliseconds tcpIdle{10000};         // a TCP connection with nothing to do
        size_t maxTcpConnections = 64;
        size_t maxTcpPerPeer = 8;   // of one client address, so one cannot hold them all
        size_t maxInFlight = 1024;  // questions waiting for the resolver or the upstream
    };

    /// Binds the UDP and TCP sockets; throws DnsStubError when the address is malformed or
    /// cannot be bound, or when relaying is on and no upstream server can be found.
    DnsStub(Options options, Resolve resolve);
    /// Stops, if stop() was not called.
    ~DnsStub();
    DnsStub(const DnsStub&) = delete;
    DnsStub& operator=(const DnsStub&) = delete;

    /// The port bound (the one asked for, or the kernel's pick for 0).
    uint16_t port() const { return port_; }

    /// Starts the stub's thread; throws DnsStubError if it cannot be set up.
    void start();
    /// Closes every TCP connection and relay, drops the questions in flight unanswered and
    /// joins the thread. Idempotent. The listening sockets stay bound until destruction.
    void stop();

    struct Loop;  // the thread's state (DnsStub.cpp)

private:
    const Options options_;
    const Resolve resolve_;
    int udp_ = -1;  // owned
    int tcp_ = -1;  // owned
    uint16_t port_ = 0;
    std::unique_ptr<Loop> loop_;
    std::thread thread_;
};

}  // namespace qel::daemon
