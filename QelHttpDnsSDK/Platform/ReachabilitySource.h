// One reachability target (the internet as a whole, a host name, or an address) and the
// platform's answers about it: the stand-in for the original platform's reachability handle.
// Made by `ReachabilitySourceFactory`.
//
// Threads: every operation may be called from any thread. Change reports run on the platform
// thread, never on the thread that scheduled them.
#pragma once

#include <cstdint>
#include <functional>

namespace qel::platform {

class ReachabilitySource {
public:
    /// Receives the target's new flags (`ReachabilityFlags` bits).
    using Callback = std::function<void(uint32_t flags)>;

    virtual ~ReachabilitySource() = default;

    /// Reads the target's current flags. False when they cannot be read; `flags` is then
    /// left as it was.
    virtual bool getFlags(uint32_t& flags) = 0;

    /// Sets the function that change reports call; an empty function removes it. Stays set
    /// across `unschedule`/`schedule`. Returns false when the source refuses it.
    virtual bool setCallback(Callback callback) = 0;

    /// Starts change reports: from now on, each change of the target's flags calls the
    /// callback once with the new flags. Scheduling again is allowed and restarts from the
    /// flags of that moment. Returns false when reports cannot be delivered.
    virtual bool schedule() = 0;

    /// Stops change reports. A report that starts after this returns is not delivered; one
    /// already running on the platform thread may still finish. Returns false when the
    /// source was not scheduled.
    virtual bool unschedule() = 0;
};

}  // namespace qel::platform
