// A clock a test sets and steps by hand; the clock in use for the life of the object.
#pragma once

#include <atomic>

#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/PlatformServices.h"

namespace qel::test {

class FakeClock final : public platform::Clock {
public:
    explicit FakeClock(double start = 1'700'000'000.0) : now_(start) { scope_.clock(*this); }

    double now() const override { return now_.load(); }
    void set(double seconds) { now_.store(seconds); }

private:
    std::atomic<double> now_;
    platform::ScopedPlatformOverride scope_;
};

}  // namespace qel::test
