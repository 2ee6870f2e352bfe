#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"

#include <atomic>

#include "QelHttpDnsSDK/Platform/Linux/NetlinkReachabilitySource.h"

namespace qel::platform {

namespace {
std::atomic<ReachabilitySourceFactory*> installedFactory{nullptr};
}

std::unique_ptr<ReachabilitySource> ReachabilitySourceFactory::createWithName(
    const std::string& hostName) {
    ReachabilitySourceFactory* factory = installedFactory.load(std::memory_order_acquire);
    return factory ? factory->makeWithName(hostName)
                   : NetlinkReachabilitySource::createWithName(hostName);
}

std::unique_ptr<ReachabilitySource> ReachabilitySourceFactory::createWithAddress(
    const sockaddr* address) {
    ReachabilitySourceFactory* factory = installedFactory.load(std::memory_order_acquire);
    return factory ? factory->makeWithAddress(address)
                   : NetlinkReachabilitySource::createWithAddress(address);
}

void ReachabilitySourceFactory::install(ReachabilitySourceFactory* factory) {
    installedFactory.store(factory, std::memory_order_release);
}

}  // namespace qel::platform
