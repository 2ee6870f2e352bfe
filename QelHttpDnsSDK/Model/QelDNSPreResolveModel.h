// One entry of a pre-resolution list: a domain the application wants in the cache before it
// first looks it up, and the address family to fetch. A plain value: no validation, no
// default; the lookup it feeds runs every check a lookup runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSPreResolveModel {
public:
    QelDNSPreResolveModel() = default;
    /// Stores both as they are.
    QelDNSPreResolveModel(std::optional<std::string> domain, int64_t type)
        : domain_(std::move(domain)), type_(type) {}
    static QelDNSPreResolveModel initWithDomain(std::optional<std::string> domain, int64_t type) {
        return QelDNSPreResolveModel(std::move(domain), type);
    }

    const std::optional<std::string>& domain() const { return domain_; }
    void setDomain(std::optional<std::string> domain) { domain_ = std::move(domain); }
    /// 1 for IPv4, 2 for IPv6, as in `QelHttpDnsManager::getIPByDomain`.
    int64_t type() const { return type_; }
    void setType(int64_t type) { type_ = type; }

private:
    std::optional<std::string> domain_;
    int64_t type_ = 0;
};
