// The reachability flag bits, with the values the original platform's reachability framework
// uses, so that flag sets read by the SDK mean the same on every system. The Linux source sets
// only Reachable, IsWWAN, IsLocalAddress and IsDirect; the connection bits exist for flag sets
// made by hand (tests, other sources).
#pragma once

#include <cstdint>

namespace qel::platform::ReachabilityFlags {

inline constexpr uint32_t TransientConnection = 1u << 0;
inline constexpr uint32_t Reachable = 1u << 1;
inline constexpr uint32_t ConnectionRequired = 1u << 2;
inline constexpr uint32_t ConnectionOnTraffic = 1u << 3;
inline constexpr uint32_t InterventionRequired = 1u << 4;
inline constexpr uint32_t ConnectionOnDemand = 1u << 5;
inline constexpr uint32_t IsLocalAddress = 1u << 16;
inline constexpr uint32_t IsDirect = 1u << 17;
inline constexpr uint32_t IsWWAN = 1u << 18;

}  // namespace qel::platform::ReachabilityFlags
