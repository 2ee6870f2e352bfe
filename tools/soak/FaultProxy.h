// A loopback HTTP proxy that stands between the SDK and the resolution service and misbehaves
// at random. It reads each request the client sends on a connection (GET, no body) and either
// passes it to the service on a connection of its own and the answer back, or plays one
// fault instead: a reset before any byte or in the middle of the body, a stall, a body that
// trickles, an oversized or garbage body, an HTML 500 page, a redirect loop or a redirect to
// a file, an answer for another host, a login answer without nodes, or a kept-alive
// connection closed after its answer. Now and then it also goes down for a moment (refusing
// connections on its port and dropping the ones it holds), like a service restarting.
//
// It runs in a process of its own (the soak's measurements are of the SDK's process only):
// `run` never returns; every connection has a thread. SIGUSR1 makes it calm: it drops every
// connection it holds once and passes every request from then on; SIGUSR2 lets faults resume.
#pragma once

#include <cstdint>
#include <mutex>
#include <random>
#include <set>
#include <string>

namespace qel::soak {

class FaultProxy {
public:
    /// `listenFd`: a socket bound to 127.0.0.1 and listening; `upstreamPort`: the service's
    /// port on 127.0.0.1; `faultRate`: the share of requests that get a fault (0..1).
    FaultProxy(int listenFd, uint16_t upstreamPort, double faultRate, uint32_t seed);

    [[noreturn]] void run();

private:
    enum class Fault {
        Pass,
        ResetBeforeAnyByte,
        ResetMidBody,
        Stall,
        Trickle,
        Oversized,
        Garbage,
        Html500,
        RedirectLoop,
        RedirectToFile,
        OtherHost,
        NoNodes,
        CloseAfterAnswer,
    };

    void converse(int client);
    Fault pick(const std::string& request);
    // Plays `fault` for `request`; false when the connection is to end.
    bool play(Fault fault, int client, int& upstream, const std::string& request);
    std::string forward(int& upstream, const std::string& request);
    void goDownForAMoment();
    void dropConnections();

    int listenFd_;
    const uint16_t upstreamPort_;
    const uint16_t port_;
    const double faultRate_;
    std::mutex mutex_;
    const uint32_t seed_;
    std::mt19937 random_;        // guarded by mutex_
    std::set<int> connections_;  // guarded by mutex_; client sockets
};

}  // namespace qel::soak
