#include "QelHttpDnsSDK/Platform/Clock.h"

#include <atomic>

#include "QelHttpDnsSDK/Platform/Linux/SystemClock.h"

namespace qel::platform {

namespace {
std::atomic<const Clock*> installedClock{nullptr};
}

double Clock::currentTime() {
    const Clock* clock = installedClock.load(std::memory_order_acquire);
    return clock ? clock->now() : SystemClock::instance().now();
}

void Clock::install(const Clock* clock) { installedClock.store(clock, std::memory_order_release); }

}  // namespace qel::platform
