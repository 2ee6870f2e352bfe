// The reachability source used when network monitoring cannot start at all (the platform
// thread cannot be created): it answers "reachable" and never reports, so a lookup is sent
// and fails on the transport if the network is really down, instead of being refused for the
// life of the process.
#pragma once

#include "QelHttpDnsSDK/Platform/ReachabilityFlags.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySource.h"

namespace qel::platform {

class AssumedReachableSource final : public ReachabilitySource {
public:
    bool getFlags(uint32_t& flags) override {
        flags = ReachabilityFlags::Reachable;
        return true;
    }
    bool setCallback(Callback) override { return true; }
    bool schedule() override { return false; }
    bool unschedule() override { return false; }
};

}  // namespace qel::platform
