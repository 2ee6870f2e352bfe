// A reachability source factory whose sources answer the flags the test sets and report only
// when the test fires them, on the firing thread. It is the factory in use for its lifetime,
// so every QelDNSReachability made meanwhile gets a fake source. All its sources share its one
// state, and it must outlive them. Thread-safe.
#pragma once

#include <cstdint>
#include <memory>
#include <atomic>
#include <mutex>
#include <string>

#include "QelHttpDnsSDK/Platform/PlatformServices.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"

namespace qel::test {

class FakeReachabilityFactory final : public platform::ReachabilitySourceFactory {
    using Lock = std::lock_guard<std::mutex>;
    using Callback = platform::ReachabilitySource::Callback;

public:
    explicit FakeReachabilityFactory(uint32_t flags) : flags_(flags) { scope_.reachabilitySources(*this); }

    bool failCreation = false;  // set before the creations that must fail

    /// Flags that later reads answer.
    void setFlags(uint32_t flags) { flags_.store(flags, std::memory_order_release); }
    /// Reports on the calling thread (outside the lock, as a real source does) when scheduled,
    /// or when `evenUnscheduled`: a report already under way as the notifier stopped. Returns
    /// whether a callback ran.
    bool fire(bool evenUnscheduled = false) {
        std::unique_lock<std::mutex> lock(mutex_);
        Callback callback = scheduled_ || evenUnscheduled ? callback_ : nullptr;
        const uint32_t flags = flags_.load(std::memory_order_acquire);
        lock.unlock();
        if (callback) callback(flags);
        return static_cast<bool>(callback);
    }

    /// The network later reads name.
    void setNetwork(std::string network) {
        Lock lock(mutex_);
        network_ = std::move(network);
    }
    std::string identifyNetwork() override {
        Lock lock(mutex_);
        return network_;
    }

    std::unique_ptr<platform::ReachabilitySource> makeWithName(const std::string&) override { return make(); }
    std::unique_ptr<platform::ReachabilitySource> makeWithAddress(const sockaddr*) override { return make(); }

private:
    struct Source final : platform::ReachabilitySource {
        explicit Source(FakeReachabilityFactory& factory) : fake(factory) {}
        ~Source() override { unschedule(); }
        // Lock-free, as the route monitor's flags are: a lookup reads them on every call.
        bool getFlags(uint32_t& flags) override {
            flags = fake.flags_.load(std::memory_order_acquire);
            return true;
        }
        bool setCallback(Callback callback) override {
            Lock lock(fake.mutex_);
            fake.callback_ = std::move(callback);
            return true;
        }
        bool schedule() override { return fake.setScheduled(true); }
        bool unschedule() override { return fake.setScheduled(false); }
        FakeReachabilityFactory& fake;
    };

    std::unique_ptr<platform::ReachabilitySource> make() { return failCreation ? nullptr : std::make_unique<Source>(*this); }
    bool setScheduled(bool scheduled) {
        Lock lock(mutex_);
        scheduled_ = scheduled;
        return true;
    }

    std::mutex mutex_;
    std::atomic<uint32_t> flags_;
    std::string network_;
    bool scheduled_ = false;
    Callback callback_;
    platform::ScopedPlatformOverride scope_;
};

}  // namespace qel::test
