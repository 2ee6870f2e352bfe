// The codes and messages of the extensions (blocking lookup, C API, libcurl pinning). Internal.
//
// They sit at -50001 and below: the manager's refusals are 0 to 3, the resolver's -1, the
// transport and answer readers use 200, -10000, -10001, -20000 to -20003, -30000 and -30001,
// and the one service "status" that reaches an application is 403. The -5xxxx block is outside every
// range the core uses, so an application can tell an extension's error from the manager's.
#pragma once

#include <cstdint>

namespace QelDNSExtrasErrorCodes {

inline constexpr int64_t kTimedOut = -50001;              // kTimedOutMessage
inline constexpr int64_t kCalledOnPlatformThread = -50002;  // kCalledOnPlatformThreadMessage
inline constexpr int64_t kInvalidArgument = -50003;       // kInvalidArgumentMessage
inline constexpr int64_t kInternalFailure = -50004;       // what the caught exception said
inline constexpr int64_t kUnusableUrl = -50005;           // kUnusableUrlMessage

inline constexpr char kTimedOutMessage[] = "timed out";
inline constexpr char kCalledOnPlatformThreadMessage[] = "blocking lookup on the platform thread";
inline constexpr char kInvalidArgumentMessage[] = "invalid argument";
inline constexpr char kUnusableUrlMessage[] = "not a URL libcurl can fetch";

}  // namespace QelDNSExtrasErrorCodes
