// The SDK, hosted once for the machine: it logs in with the daemon's account, keeps one cache
// (memory and the store under /var/lib/qel-httpdns/), and answers the daemon's requests with
// the resilience profile and the cache profile on. Its log lines go through `LogFilter`.
//
// Threads: `begin` and `resolve` are called from any number of threads at once; `begin` never
// blocks, `resolve` blocks the caller until the answer or the request's deadline; `apply` from
// the main thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "DaemonConfig.h"
#include "ResolveMessage.h"
#include "Resolution.h"

namespace qel::daemon {

class SdkResolver {
public:
    /// Sets the store, the application's id and the log sink (before any other use of the SDK),
    /// then applies `config` and logs in.
    explicit SdkResolver(const DaemonConfig& config, std::function<void(const std::string&)> log);

    /// Applies what can change while running (timeout, degrade hosts, pre-resolution, cache
    /// options, debug); the account, the service and the store need a restart.
    void apply(const DaemonConfig& config);

    /// Starts looking `request.name` up in the family asked (both: IPv4 and IPv6 at once), with
    /// the request's deadline (the configured timeout when shorter or 0). A name in the cache is
    /// ready at once. Before the first login reply nothing starts here: the SDK would drop the
    /// lookup, so the resolution's `answer` waits for the login within the deadline. Every
    /// address handed out is checked to be one of its family.
    std::unique_ptr<Resolution> begin(const ResolveRequest& request);
    /// `begin` and the answer, waited for.
    ResolveAnswer resolve(const ResolveRequest& request) { return begin(request)->answer(); }

    /// A log line of the SDK as the daemon writes it: requests and answers (with their
    /// replayable signatures) only when debugging, and then without the Authorization value;
    /// nothing (empty) for a line that is left out.
    static std::string filterLogLine(const std::string& line, bool debug);

private:
    double timeout_;
};

}  // namespace qel::daemon
