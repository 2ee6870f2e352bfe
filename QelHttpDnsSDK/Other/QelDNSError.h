// The error result every failing operation of the SDK hands to its callback.
#pragma once

#include <cstdint>
#include <string>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QelDNSUntil;

/// An error of the SDK's one error domain, with a signed 64-bit code and one user-visible
/// message. Values are made only by `QelDNSUntil::errorCode`; they are cheap to copy.
class QEL_EXPORT QelDNSError {
public:
    /// The SDK's error domain ("com.qel.httpdnssdk"), the same for every error.
    static const char kDomain[];

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    /// The message, for instance "request error" or "域名格式错误".
    const std::string& localizedDescription() const { return description_; }

private:
    friend class QelDNSUntil;
    QelDNSError(int64_t code, std::string description);

    std::string domain_;
    int64_t code_;
    std::string description_;
};
