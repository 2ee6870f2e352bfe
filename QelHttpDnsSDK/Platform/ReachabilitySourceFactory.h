// Makes reachability sources. Rtnetlink sources (`NetlinkReachabilitySource`) are the default;
// a test installs its own factory to hand the SDK sources whose flags it sets by hand.
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

    /// Made by the installed factory, or by the rtnetlink one when none is installed.
    /// Callable from any thread.
    static std::unique_ptr<ReachabilitySource> createWithName(const std::string& hostName);
    static std::unique_ptr<ReachabilitySource> createWithAddress(const sockaddr* address);

    /// Installs `factory` for every later creation; nullptr restores the rtnetlink sources.
    /// The caller keeps ownership and must uninstall the factory before destroying it.
    /// Sources already made are not affected.
    static void install(ReachabilitySourceFactory* factory);
};

}  // namespace qel::platform
