// Process-wide, read-only values exported to the application: the version record, the two
// error codes with a fixed meaning for the retry logic, the default service address and the
// SDK version text. All are constant-initialised, so they are safe to read from any thread and
// from other static initialisers.
#pragma once

#include <cstdint>

#include "QelHttpDnsSDK/QelDNSExport.h"

/// Version record of the library ("@(#)PROGRAM:... PROJECT:...-1\n"); not read by the library.
QEL_EXPORT extern const unsigned char QelHttpDnsSDKVersionString[];
/// Version number of the library (1.0); not read by the library.
QEL_EXPORT extern const double QelHttpDnsSDKVersionNumber;

/// Error code meaning "abandon the current resolve node and try the next one" (-30000).
QEL_EXPORT extern const int64_t QelDNS_SDK_REQ_NEED_RETRY_CODE;
/// Error code on which the resolver stops retrying (403); only ever a service-provided status.
QEL_EXPORT extern const int64_t QelDNS_SDK_REQ_FORBIDDEN_CODE;

/// Default service base URL (scheme and host, no trailing slash). It is the loopback address on
/// which the reference service `qel-httpdns-server` listens by default, so the SDK works out of
/// the box on one machine; an application points it elsewhere with `customServerUrl`.
QEL_EXPORT extern const char QelDNS_SDK_NET_DEFAULT_BASE_URL[];

/// The SDK version text returned by `QelHttpDnsManager::sdkVersion()`.
QEL_EXPORT extern const char QelDNS_SDK_VERSION[];
