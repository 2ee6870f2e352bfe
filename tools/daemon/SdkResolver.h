// The SDK, hosted once for the machine: it logs in with the daemon's account, keeps one cache
// (memory and the store under /var/lib/qel-httpdns/), and answers the daemon's requests with
// the resilience profile and the cache profile on. Its log lines go through `LogFilter`.
//
// Threads: `resolve` is called from any number of worker threads at once and blocks the caller
// until the answer or the request's deadline; `apply` from the main thread.
#pragma once

#include <functional>
#include <string>

#include "DaemonConfig.h"
#include "ResolveMessage.h"

namespace qel::daemon {

class SdkResolver {
public:
    /// Sets the store, the application's id and the log sink (before any other use of the SDK),
    /// then applies `config` and logs in.
    explicit SdkResolver(const DaemonConfig& config, std::function<void(const std::string&)> log);

    /// Applies what can change while running (timeout, degrade hosts, pre-resolution, cache
    /// options, debug); the account, the service and the store need a restart.
    void apply(const DaemonConfig& config);

    /// Looks `request.name` up in the family asked (both: IPv4 and IPv6 at once), waiting at
    /// most the request's deadline (the configured timeout when shorter or 0). Every address
    /// handed out is checked to be one of its family.
    ResolveAnswer resolve(const ResolveRequest& request);

    /// A log line of the SDK as the daemon writes it: requests and answers (with their
    /// replayable signatures) only when debugging, and then without the Authorization value;
    /// nothing (empty) for a line that is left out.
    static std::string filterLogLine(const std::string& line, bool debug);

private:
    double timeout_;
};

}  // namespace qel::daemon
