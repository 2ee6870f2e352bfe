// Makes reachability sources. The platform's own sources are the default (see
// PlatformServices.h); a test puts its own factory in place to hand the SDK sources whose
// flags it sets by hand.
#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>

#include "QelHttpDnsSDK/Platform/ReachabilitySource.h"

namespace qel::platform {

class ReachabilitySourceFactory {
public:
    virtual ~ReachabilitySourceFactory() = default;

    /// A source for `hostName`; nullptr when none can be made.
    virtual std::unique_ptr<ReachabilitySource> makeWithName(const std::string& hostName) = 0;
    /// A source for `address` (AF_INET or AF_INET6; the unspecified address stands for the
    /// internet as a whole); nullptr when none can be made.
    virtual std::unique_ptr<ReachabilitySource> makeWithAddress(const sockaddr* address) = 0;

    /// The network the machine reaches the internet through now, as the platform names it
    /// (on Linux the preferred default route's interface and gateway); "" when unknown.
    virtual std::string identifyNetwork() { return std::string(); }

    /// Made by the factory in use. Callable from any thread.
    static std::unique_ptr<ReachabilitySource> createWithName(const std::string& hostName);
    static std::unique_ptr<ReachabilitySource> createWithAddress(const sockaddr* address);
    /// `identifyNetwork` of the factory in use.
    static std::string networkIdentity();
};

}  // namespace qel::platform
