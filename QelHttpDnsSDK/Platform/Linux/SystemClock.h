#pragma once

#include "QelHttpDnsSDK/Platform/Clock.h"

namespace qel::platform {

/// The real wall clock (`std::chrono::system_clock`).
class SystemClock final : public Clock {
public:
    double now() const override;

    /// The one process-wide instance; never destroyed.
    static const SystemClock& instance();
};

}  // namespace qel::platform
