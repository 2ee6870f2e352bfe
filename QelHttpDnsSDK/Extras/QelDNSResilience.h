// An opt-in profile for servers, off by default. With it, every lookup ends within its
// deadline with exactly one callback; a node that fails rests for a while and the next node of
// the login's list is tried; each lookup resolves its own name under the key of its own type
// (no last-writer-wins); concurrent misses of one name share one request; and a failed or
// network-less login is renewed by itself. Without it the manager behaves exactly as its own
// documentation says. Each part can be turned off alone through the options.
//
// Threads: callable from any thread. A lookup keeps the profile it started with.
#pragma once

#include "QelHttpDnsSDK/QelDNSExport.h"

struct QelDNSResilienceOptions {
    /// Seconds from a lookup's call to its callback; 0: the manager's timeout (setTimeout,
    /// 20 s by default). Past it the callback gets -50006 "lookup deadline passed"; an answer
    /// that comes later is still cached.
    double deadline = 0.0;
    /// Requests at most per lookup, fail-overs included. The last error is then passed on.
    int maxAttempts = 4;
    /// Before asking again after an answer that was not usable (a "status" other than 403,
    /// data that does not fit): the first delay, doubled each time up to the last, each one
    /// drawn at random from its upper half (jitter).
    double firstBackoff = 0.05;
    double lastBackoff = 2.0;
    /// On a node's failure (-30000: refused, reset, timed out) the next node of the login's
    /// list (the node the login chose first, then "service_node_list") is tried at once. A node
    /// whose recent requests mostly failed (at least `failuresToRest`, and three in four of its
    /// last eight) rests `nodeRest` seconds and is tried again after it; a failure then makes
    /// it rest twice as long, up to `maxNodeRest`. With every node resting a lookup fails at
    /// once with -50007 "every resolve node failed".
    int failuresToRest = 3;
    double nodeRest = 1.0;
    double maxNodeRest = 30.0;
    /// Each lookup reads and stores under its own domain and type ("name_v4", "name_v6");
    /// false keeps the manager's key (the previous lookup's type).
    bool ownKeys = true;
    /// Concurrent misses of one key share one request; each caller gets the answer once.
    bool singleFlight = true;
    /// Logs in again by itself: when the network returns after a registration that found none
    /// (status 1), and with backoff (1 s doubling to 60 s) while the last login failed
    /// (status 3). Lookups in status 3 are then refused at once (code 3) instead of each
    /// sending a login.
    bool renewLogin = true;
};

class QEL_EXPORT QelDNSResilience {
public:
    QelDNSResilience() = delete;

    /// Turns the profile on with `options` (or changes them); lookups made after the call use it.
    static void enable(const QelDNSResilienceOptions& options = QelDNSResilienceOptions());
    /// Back to the manager's own behaviour for lookups made after the call.
    static void disable();
    static bool enabled();
};
