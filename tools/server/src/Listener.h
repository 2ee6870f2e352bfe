// The HTTP side: one cpp-httplib server per endpoint, all answering through one Service, with
// TCP_NODELAY and keep-alive on every connection.
#pragma once

#include <httplib.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Endpoint.h"
#include "Service.h"

namespace qel::server {

/// An endpoint that cannot be listened on; what() reads "cannot listen on HOST:PORT: REASON".
class ListenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Listener {
public:
    /// Binds every endpoint (port 0: one the kernel picks) or throws ListenError, having
    /// released the ones bound before. `threads` bounds the connections served at once per
    /// endpoint: a kept-alive connection holds a thread while it stays open.
    Listener(const Service& service, const std::vector<Endpoint>& endpoints, size_t threads);
    /// Stops, if stop() was not called.
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// The endpoints with the ports actually bound, in the order given.
    const std::vector<Endpoint>& endpoints() const { return bound_; }

    /// Starts accepting; returns once every endpoint accepts.
    void start();
    /// Stops accepting, lets requests in progress finish and closes the kept-alive connections
    /// that wait for a next request; returns when every connection is closed.
    void stop();

private:
    std::vector<std::unique_ptr<httplib::Server>> servers_;
    std::vector<Endpoint> bound_;
    std::vector<std::thread> threads_;
};

}  // namespace qel::server
