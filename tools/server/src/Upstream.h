// Resolution of names the zone does not hold, by a DNS server (c-ares over UDP, TCP for
// truncated answers). The answer carries the TTL the DNS answer gave (the smallest of its
// records). Thread-safe: each lookup borrows a c-ares channel from a pool, since a channel
// of this c-ares version must not be used by two threads at once.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Endpoint.h"
#include "Zone.h"

namespace qel::server {

class Upstream {
public:
    struct Result {
        enum Kind { Answer, NoAddress, Failed } kind = Failed;
        AddressSet addresses;  // Answer: at least one address
        std::string error;     // Failed: why, in words
    };

    /// `server` must be an IP address; `timeoutMs` bounds one lookup (with one retry inside).
    /// Throws std::runtime_error when c-ares refuses the server.
    Upstream(const Endpoint& server, int timeoutMs);
    ~Upstream();
    Upstream(const Upstream&) = delete;
    Upstream& operator=(const Upstream&) = delete;

    /// Asks the server for the A or AAAA records of `name`: Answer, NoAddress (the name does
    /// not exist or has no such records) or Failed (no answer, or a server failure).
    Result resolve(const std::string& name, AddressType type);

    const Endpoint& server() const { return server_; }

private:
    struct Channel;
    std::unique_ptr<Channel> borrow();
    void giveBack(std::unique_ptr<Channel> channel);

    const Endpoint server_;
    const int timeoutMs_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Channel>> idle_;  // guarded by mutex_
};

}  // namespace qel::server
