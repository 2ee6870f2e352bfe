// The wall clock the library reads: seconds since 1970 as a double. The system clock is the
// default; a test installs its own to step time by hand.
#pragma once

namespace qel::platform {

class Clock {
public:
    virtual ~Clock() = default;

    /// Seconds since 1970, with sub-second precision.
    virtual double now() const = 0;

    /// The time according to the installed clock (the system clock unless one was installed).
    /// Lock-free; callable from any thread.
    static double currentTime();

    /// Installs `clock` as the process-wide clock; nullptr restores the system clock.
    /// The caller keeps ownership and must uninstall the clock before destroying it.
    static void install(const Clock* clock);
};

}  // namespace qel::platform
