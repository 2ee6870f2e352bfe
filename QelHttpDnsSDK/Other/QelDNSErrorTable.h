/* Every error code the SDK and its extensions make, in one table: the C++ names
 * (QelDNSErrorCodes), the C names (QEL_HTTPDNS_E_*, below) and docs/errors.md
 * (scripts/check-error-doc.sh) all come from it. C and C++.
 *
 * X(name, C name, code, message, English gloss). The message is what QelDNSError carries; ""
 * where it varies (the status description, the service's own text, an exception's text). The
 * gloss says in English what went wrong, for tools that print beside the message.
 *
 * Some numbers are deliberately shared by different faults, and callers cannot tell them apart
 * by code alone: -30000 is both "leave this resolve node" and "AuthId missing", -1 carries two
 * messages, and the login and resolve answers use different codes for the same two messages.
 * The extensions' codes sit at -50001 and below, outside every range the core uses. */
#ifndef QEL_DNS_ERROR_TABLE_H
#define QEL_DNS_ERROR_TABLE_H

#define QEL_DNS_ERROR_TABLE(X)                                                                    \
    /* The public manager's refusals, on the caller's thread before the lookup returns. */        \
    X(kNetworkUnavailable, NETWORK_UNAVAILABLE, 0, "网络不可用", "network unavailable")           \
    X(kMalformedDomain, MALFORMED_DOMAIN, 1, "域名格式错误", "malformed name")                    \
    X(kDegradeHost, DEGRADE_HOST, 2, "degrade host", "name left to the system resolver")          \
    X(kNotReady, NOT_READY, 3, "", "not logged in")                                               \
    /* The resolver: the attempt limit reached, or no usable node after a node failure. */        \
    X(kAttemptsExhausted, ATTEMPTS_EXHAUSTED, -1, "request error", "every attempt failed")        \
    X(kNoUsableNode, NO_USABLE_NODE, -1, "service unavailable", "no resolve node left")           \
    /* A "status" of a service answer that the resolver passes on. */                             \
    X(kForbidden, FORBIDDEN, 403, "", "refused by the service")                                   \
    /* The transport, QelDNSRequest; kNeedRetry is also a request that could not go out. */       \
    X(kNeedRetry, NEED_RETRY, -30000, "request error", "no answer from the service")              \
    X(kFailedWithStatus200, FAILED_WITH_STATUS_200, 200, "request error", "answer cut off")       \
    X(kEmptyBody, EMPTY_BODY, -10000, "request error", "empty answer")                            \
    X(kJsonConvertError, JSON_CONVERT_ERROR, -10001, "json convert error", "answer not JSON")     \
    /* The login answer (QelDNSAppAuth) and the resolve answer (QelDNSGetIPs). */                 \
    X(kLoginInvalidData, LOGIN_INVALID_DATA, -20000, "invalid data",                              \
      "login answer for another account")                                                         \
    X(kLoginEmptyData, LOGIN_EMPTY_DATA, -20001, "empty data", "login answer without a node")     \
    X(kResolveInvalidData, RESOLVE_INVALID_DATA, -20002, "invalid data",                          \
      "answer for another name")                                                                  \
    X(kResolveEmptyData, RESOLVE_EMPTY_DATA, -20003, "empty data", "no address")                  \
    /* The login's own checks, QelDNSAuthManager. */                                              \
    X(kAuthIdMissing, AUTH_ID_MISSING, -30000, "parameter invalid", "AuthId missing")             \
    X(kAuthSecretMissing, AUTH_SECRET_MISSING, -30001, "parameter invalid", "AuthSecret missing") \
    /* The extensions: blocking lookup, C interface, libcurl pinning, resilience profile. */                          \
    X(kTimedOut, TIMED_OUT, -50001, "timed out", "timed out")                                     \
    X(kCalledOnPlatformThread, PLATFORM_THREAD, -50002, "blocking lookup on the platform thread", \
      "blocking lookup on the platform thread")                                                   \
    X(kInvalidArgument, INVALID_ARGUMENT, -50003, "invalid argument", "invalid argument")         \
    X(kInternalFailure, INTERNAL, -50004, "", "internal failure")                                 \
    X(kUnusableUrl, UNUSABLE_URL, -50005, "not a URL libcurl can fetch", "unusable URL")             \
    X(kDeadlinePassed, DEADLINE_PASSED, -50006, "lookup deadline passed", "deadline passed")       \
    X(kAllNodesFailed, ALL_NODES_FAILED, -50007, "every resolve node failed", "every node failed")

/* The C names: QEL_HTTPDNS_E_NOT_READY, QEL_HTTPDNS_E_TIMED_OUT, ... */
#define QEL_DNS_ERROR_ENUMERATOR_(name, cName, code, message, gloss) QEL_HTTPDNS_E_##cName = code,
enum QelHttpDnsErrorCode { QEL_DNS_ERROR_TABLE(QEL_DNS_ERROR_ENUMERATOR_) };
#undef QEL_DNS_ERROR_ENUMERATOR_

#endif
