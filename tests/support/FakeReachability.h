// Reachability sources whose flags a test sets by hand. While a FakeReachabilityFactory
// exists it is the installed factory, so every QelDNSReachability made meanwhile gets a fake
// source; the test reaches each one's controls through `last()` / `made()`.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/ReachabilitySource.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"

namespace qel::test {

/// The controls of one fake source. Thread-safe.
class FakeReachabilityTarget {
public:
    /// What the source was made for. Set before the source is handed out.
    std::optional<std::string> hostName;
    std::optional<sockaddr_storage> address;

    /// Flags that later reads answer; `readable = false` makes reads fail.
    void setFlags(uint32_t flags, bool readable = true);
    /// Reports a change on the calling thread when scheduled and a callback is set; returns
    /// whether it was delivered.
    bool fire();
    /// Calls the registered callback even when unscheduled: a report already under way when
    /// the notifier stopped.
    void invokeCallback();
    bool scheduled() const;

private:
    friend class FakeReachabilitySource;
    platform::ReachabilitySource::Callback callbackIf(bool mustBeScheduled, uint32_t& flags) const;

    mutable std::mutex mutex_;
    uint32_t flags_ = 0;
    bool readable_ = true;
    bool scheduled_ = false;
    platform::ReachabilitySource::Callback callback_;
};

class FakeReachabilityFactory final : public platform::ReachabilitySourceFactory {
public:
    /// Installs itself; new sources start with `initialFlags`.
    explicit FakeReachabilityFactory(uint32_t initialFlags = 0);
    ~FakeReachabilityFactory() override;

    std::unique_ptr<platform::ReachabilitySource> makeWithName(const std::string& hostName) override;
    std::unique_ptr<platform::ReachabilitySource> makeWithAddress(const sockaddr* address) override;

    /// Makes later creations fail (the factories then return nothing).
    void failCreation(bool fail);
    size_t made() const;
    std::shared_ptr<FakeReachabilityTarget> last() const;

private:
    std::unique_ptr<platform::ReachabilitySource> make(std::shared_ptr<FakeReachabilityTarget> target);

    const uint32_t initialFlags_;
    mutable std::mutex mutex_;
    bool failCreation_ = false;
    std::vector<std::shared_ptr<FakeReachabilityTarget>> targets_;
};

}  // namespace qel::test
