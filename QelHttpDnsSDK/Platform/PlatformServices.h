// Where the library's platform services come from. PlatformServices.cpp is the one file that
// picks their implementations (the Linux ones under Platform/Linux/) and the only one that
// includes them; the interfaces' accessors are defined there:
//
//   Clock::currentTime()                        SystemClock
//   HttpSession::shared()                       CurlHttpSession on the platform thread
//   UserDefaults::standard()                    SqliteUserDefaults at UserDefaults::standardPath(),
//                                               behind a WriteBehindUserDefaults
//   ReachabilitySourceFactory::createWith...()  NetlinkReachabilitySource
//   Console::log() without a sink               a stamped line on standard error
//
// A test replaces the first four for a while with a ScopedPlatformOverride; the console has
// its own seam (`Console::setSink`).
#pragma once

#include <functional>
#include <vector>

namespace qel::platform {

class Clock;
class HttpSession;
class ReachabilitySourceFactory;
class UserDefaults;

/// Replaces platform services from the call of a setter until the override is destroyed,
/// which puts back what each one replaced. A replacement serves every thread at once, and
/// the caller keeps it alive for as long as the override lives. Overrides of one service
/// nest: destroy them in the reverse order of their setting. Sources, sessions and stores
/// obtained before are not affected.
///
///   FakeClock clock;
///   ScopedPlatformOverride scope;
///   scope.clock(clock).userDefaults(store);
class ScopedPlatformOverride {
public:
    ScopedPlatformOverride() = default;
    ~ScopedPlatformOverride();
    ScopedPlatformOverride(const ScopedPlatformOverride&) = delete;
    ScopedPlatformOverride& operator=(const ScopedPlatformOverride&) = delete;

    ScopedPlatformOverride& clock(const Clock& clock);
    ScopedPlatformOverride& httpSession(HttpSession& session);
    ScopedPlatformOverride& reachabilitySources(ReachabilitySourceFactory& factory);
    ScopedPlatformOverride& userDefaults(UserDefaults& store);

private:
    std::vector<std::function<void()>> restores_;  // run last to first
};

}  // namespace qel::platform
