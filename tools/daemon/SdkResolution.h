// The SDK's lookups of one request (one per family, two for both), their outcomes filled in by
// the SDK's callbacks: at once for a cached name, later from the SDK's threads for a lookup on
// the network, possibly after this object is gone (past the deadline), hence the shared state.
//
// Threads: `start`, `ready` and `answer` from one thread at a time; the callbacks on any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/QelHttpDnsSDK.h"
#include "Resolution.h"

namespace qel::daemon {

class SdkResolution final : public Resolution {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    SdkResolution(const ResolveRequest& request, Deadline deadline);

    /// Asks the SDK. Before its first login reply the SDK drops a lookup: `answer` starts one
    /// that was not started, once the login is through or the deadline has passed.
    void start();
    bool ready() override;
    ResolveAnswer answer() override;

    /// The trace observer's: a lookup's trace arrives on the thread of its callback, just
    /// before it, and gives the answer's remaining lifetime.
    static void noteTrace(const QelDNSLookupTrace& trace);

private:
    struct Outcome {
        bool answered = false;
        std::optional<QelDNSError> error;
        std::vector<std::string> ips;
        int64_t ttl = -1;
    };
    struct Shared {
        std::mutex mutex;
        std::condition_variable done;
        Outcome outcomes[2];
    };

    bool allAnswered() const;
    ResolveAnswer compose(bool all) const;

    const std::string name_;
    const std::vector<int> families_;
    const Deadline deadline_;
    bool started_ = false;
    const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

}  // namespace qel::daemon
