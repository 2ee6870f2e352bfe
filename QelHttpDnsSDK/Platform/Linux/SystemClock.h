#pragma once

#include "QelHttpDnsSDK/Platform/Clock.h"

namespace qel::platform {

/// The real wall clock (CLOCK_REALTIME_COARSE: it lags by at most a kernel tick).
class SystemClock final : public Clock {
public:
    double now() const override;

    /// The one process-wide instance; never destroyed.
    static const SystemClock& instance();
};

}  // namespace qel::platform
