// The HTTP side: one libmicrohttpd daemon per endpoint, all answering through one Service.
// Connections are multiplexed on event loops (epoll), so a connection that sends slowly holds
// only its own slot and its buffer, never a thread. What one client can hold is bounded: the
// connections per client address, all connections per endpoint, a deadline for each request
// head, and the head's size and number of fields.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Endpoint.h"
#include "Service.h"

struct MHD_Daemon;

namespace qel::server {

class HeadDeadlines;

/// An endpoint that cannot be listened on; what() reads "cannot listen on HOST:PORT: REASON".
class ListenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Listener {
public:
    struct Limits {
        size_t threads = 16;                    // event loops per endpoint (answers block one)
        std::chrono::milliseconds head{10000};  // for a head to arrive whole; also the idle limit
        size_t connections = 2048;              // open at once, per endpoint
        size_t perPeer = 512;  // open at once from one client address, per endpoint
    };
    /// The certificate (chain) and private key, PEM, of an https listener; empty: plain http.
    struct Tls {
        std::string certificate, key;
        /// Reads both files and checks that they make a usable pair; throws
        /// std::runtime_error naming the file and the reason.
        static Tls load(const std::string& certificateFile, const std::string& keyFile);
    };
    /// A request head larger than this (request line, fields and their bookkeeping) is refused.
    static constexpr size_t kHeadBytes = 64 * 1024;

    /// Binds every endpoint (port 0: one the kernel picks) or throws ListenError, having
    /// released the ones bound before.
    /// With `tls`, every endpoint serves https only.
    Listener(const Service& service, const std::vector<Endpoint>& endpoints, Limits limits,
             Tls tls = {});
    /// Stops, if stop() was not called.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// The endpoints with the ports actually bound, in the order given.
    const std::vector<Endpoint>& endpoints() const { return bound_; }

    /// Starts accepting on every endpoint; throws ListenError if an event loop cannot start.
    void start();
    /// Stops accepting, lets answers under way finish (for up to 5 s), closes the kept-alive
    /// connections that wait for a next request; returns when every connection is closed.
    void stop();

    struct Callbacks;  // the daemons' callbacks (Listener.cpp)

private:
    const Service& service_;
    const Limits limits_;
    const Tls tls_;
    std::vector<int> sockets_;  // listening, one per endpoint, owned here
    std::vector<Endpoint> bound_;
    std::vector<MHD_Daemon*> daemons_;
    std::unique_ptr<HeadDeadlines> deadlines_;
    std::atomic<size_t> answering_{0};  // answers queued and not yet sent
};

}  // namespace qel::server
