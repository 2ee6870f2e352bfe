#include "QelHttpDnsSDK/Other/QelDNSError.h"

#include <utility>

const char QelDNSError::kDomain[] = "com.qel.httpdnssdk";

QelDNSError::QelDNSError(int64_t code, std::string description)
    : domain_(kDomain), code_(code), description_(std::move(description)) {}
