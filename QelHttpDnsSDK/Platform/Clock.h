// The wall clock the library reads: seconds since 1970 as a double. The system clock is the
// default; a test replaces it (ScopedPlatformOverride) to step time by hand.
#pragma once

namespace qel::platform {

class Clock {
public:
    virtual ~Clock() = default;

    /// Seconds since 1970, with sub-second precision.
    virtual double now() const = 0;

    /// The time according to the clock in use. Lock-free; callable from any thread.
    static double currentTime();
};

}  // namespace qel::platform
