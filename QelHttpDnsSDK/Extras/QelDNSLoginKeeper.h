// Renews the login by itself for the resilience profile: when the network returns after a
// registration that found none (status 1), and with backoff (1 s doubling to 60 s, each drawn
// from its upper half) while the last login failed (status 3), until one succeeds. Internal.
//
// Threads: `start` and `loginFailed` from any thread; the renewals run on the platform thread.
#pragma once

#include <atomic>

class QelDNSLoginKeeper {
public:
    /// Watches the network from now on (once) and renews while `on`.
    void start(bool on);
    /// A lookup met status 3: renew with backoff unless a renewal is already due.
    void loginFailed();

private:
    void renewLater();
    void renewNow();

    std::atomic<bool> on_{false};
    std::atomic<bool> watching_{false};
    std::atomic<bool> due_{false};
    std::atomic<double> delay_{0.0};  // seconds before the next renewal; 0: the first
};
