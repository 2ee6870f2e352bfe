// Every error code the SDK makes, with its message, grouped by the class that raises it.
// Internal: applications compare codes with the numbers listed in docs/errors.md and with the
// two exported constants of QelDNSConst.h.
//
// Some numbers are deliberately shared by different faults, and callers cannot tell them apart:
// -30000 is both "leave this resolve node" (any failed exchange whose HTTP status is not 200)
// and "AuthId missing" at login; -1 carries two messages; the login and resolve answers use
// different codes for the same two messages.
#pragma once

#include <cstdint>

namespace QelDNSErrorCodes {

// Refusals of the public manager, reported on the caller's thread before the lookup returns.
inline constexpr int64_t kNetworkUnavailable = 0;   // kNetworkUnavailableMessage
inline constexpr int64_t kMalformedDomain = 1;      // kMalformedDomainMessage
inline constexpr int64_t kDegradeHost = 2;          // kDegradeHostMessage
inline constexpr int64_t kNotReady = 3;             // the current status description

// The resolver: the attempt limit reached, or no usable next node after a node failure.
inline constexpr int64_t kResolveFailed = -1;       // kRequestErrorMessage or kServiceUnavailableMessage

// The resolve answer, read by QelDNSGetIPs.
inline constexpr int64_t kResolveInvalidData = -20002;  // kInvalidDataMessage
inline constexpr int64_t kResolveEmptyData = -20003;    // kEmptyDataMessage

// The login answer, read by QelDNSAppAuth.
inline constexpr int64_t kLoginInvalidData = -20000;    // kInvalidDataMessage
inline constexpr int64_t kLoginEmptyData = -20001;      // kEmptyDataMessage

// The login's own checks in QelDNSAuthManager. kAuthIdMissing is the same number as
// kNeedRetry: a login refused for a missing AuthId looks like a node failure.
inline constexpr int64_t kAuthIdMissing = -30000;       // kParameterInvalidMessage
inline constexpr int64_t kAuthSecretMissing = -30001;   // kParameterInvalidMessage

// The transport, QelDNSRequest. kNeedRetry is QelDNS_SDK_REQ_NEED_RETRY_CODE: every failed
// exchange whose HTTP status is not 200 (refused, reset, timed out, unreachable), and a
// request that could not go out at all (no platform thread, no MD5 to sign it with).
inline constexpr int64_t kNeedRetry = -30000;           // kRequestErrorMessage
inline constexpr int64_t kFailedWithStatus200 = 200;    // kRequestErrorMessage
inline constexpr int64_t kEmptyBody = -10000;           // kRequestErrorMessage
inline constexpr int64_t kJsonConvertError = -10001;    // kJsonConvertErrorMessage

// Only ever a "status" of a service answer; the resolver stops retrying on it.
inline constexpr int64_t kForbidden = 403;              // QelDNS_SDK_REQ_FORBIDDEN_CODE

inline constexpr char kNetworkUnavailableMessage[] = "网络不可用";
inline constexpr char kMalformedDomainMessage[] = "域名格式错误";
inline constexpr char kDegradeHostMessage[] = "degrade host";
inline constexpr char kRequestErrorMessage[] = "request error";
inline constexpr char kServiceUnavailableMessage[] = "service unavailable";
inline constexpr char kInvalidDataMessage[] = "invalid data";
inline constexpr char kEmptyDataMessage[] = "empty data";
inline constexpr char kParameterInvalidMessage[] = "parameter invalid";
inline constexpr char kJsonConvertErrorMessage[] = "json convert error";

}  // namespace QelDNSErrorCodes
