// A reachability source answered from the kernel's routing state (`NetlinkRouteMonitor`).
// The whole-internet target (0.0.0.0 or ::) and every host name are reachable when a usable
// default route exists; a host name is not resolved, since a name that the system resolver
// would answer is reachable exactly when the network is. Any other address is reachable when
// the kernel has a usable route to it. Flags are read from the monitor's snapshot, or for an
// address from one route query per change of the routing state. Flags that cannot be known
// (the monitor has not read the routes, or the kernel did not answer the query) read as
// Reachable: a lookup then fails on the transport if the network really is down.
//
// Scheduling always succeeds: reports come as long as the monitor lives, which is the
// process's life, and a monitor that lost the kernel retries until it has it back.
//
// Threads: all operations may be called from any thread. Reports run on the platform thread,
// only when the target's flags differ from the ones last reported (or seen at scheduling).
#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>

#include "QelHttpDnsSDK/Platform/ReachabilitySource.h"

namespace qel::platform {

class NetlinkReachabilitySource final : public ReachabilitySource {
public:
    static std::unique_ptr<NetlinkReachabilitySource> createWithName(const std::string& hostName);
    /// nullptr for a null address or a family other than AF_INET / AF_INET6. `address` must
    /// point to a whole sockaddr_in or sockaddr_in6.
    static std::unique_ptr<NetlinkReachabilitySource> createWithAddress(const sockaddr* address);

    /// Unschedules; a report already running on the platform thread may still finish.
    ~NetlinkReachabilitySource() override;

    bool getFlags(uint32_t& flags) override;
    bool setCallback(Callback callback) override;
    bool schedule() override;
    bool unschedule() override;

private:
    class Target;
    explicit NetlinkReachabilitySource(std::shared_ptr<Target> target);

    // Shared with the monitor's listener list, so a report in progress keeps it alive.
    std::shared_ptr<Target> target_;
};

}  // namespace qel::platform
