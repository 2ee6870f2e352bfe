// Stateless helpers every part of the SDK leans on: error results, host-string validation,
// the application identifier and the MD5 signatures. All operations are static, thread-safe
// and callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Other/QelDNSError.h"
#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSUntil {
public:
    QelDNSUntil() = delete;

    /// A new error of the SDK's domain with `code` and the message `desc`.
    static QelDNSError errorCode(int64_t code, const std::string& desc);

    /// True when `ip` is an IPv4 or IPv6 address literal as inet_pton(3) accepts it: no
    /// brackets, no zone suffix, no surrounding blanks. Absent or empty is false. The text is
    /// read as a C string, so anything after an embedded NUL is not looked at.
    static bool isIP(const std::optional<std::string>& ip);

    /// True when the whole of `domain` is a syntactically valid host name: dot-separated labels
    /// of letters, digits and inner hyphens, no trailing dot, no length limit. All-digit names
    /// such as 1.2.3.4 match too. Absent or empty is false. Linear time on any input.
    static bool isDomain(const std::optional<std::string>& domain);

    /// The application identifier set with `QelDNSApplication::setBundleIdentifier`, or
    /// nothing when it is unset or empty.
    static std::optional<std::string> currentPackageName();

    /// The 32-character lower-case hex MD5 of the UTF-8 bytes of `str` up to its first NUL.
    /// MD5 is taken from OpenSSL's default provider even where the system configuration allows
    /// only FIPS algorithms; the empty text only if OpenSSL cannot compute it at all (a request
    /// is then failed, never sent with an empty signature).
    static std::string MD5ForLower32Bate(const std::string& str);
};
