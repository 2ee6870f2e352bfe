// One resolved address of one domain with its lifetime. The resolve parser makes one record
// per address; the cache manager keeps lists of records in memory and archives them into the
// defaults store.
//
// A record is made empty and filled through its setters; its fields are not synchronised.
// Once a record is in a `QelDNSIPModelList` it is reached only through `const` pointers, so
// any number of threads may read it while the lists that hold it are shared.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QelHttpDnsSDK/Platform/Coding.h"

namespace qel::platform {
class KeyedArchiver;
class KeyedUnarchiver;
}  // namespace qel::platform

class QelDNSIPModel final : public qel::platform::Coding {
public:
    static constexpr std::string_view kClassName = "QelDNSIPModel";

    /// Type 0, ttl 0, lookupTime 0, no strings.
    QelDNSIPModel() = default;

    /// Address family of the lookup that produced the record: 1 IPv4, 2 IPv6.
    int32_t type() const { return type_; }
    void setType(int32_t type) { type_ = type; }
    const std::optional<std::string>& domain() const { return domain_; }
    void setDomain(std::optional<std::string> domain) { domain_ = std::move(domain); }
    /// The address in text form.
    const std::optional<std::string>& ip() const { return ip_; }
    void setIp(std::optional<std::string> ip) { ip_ = std::move(ip); }
    /// Lifetime in seconds, as the service gave it.
    int64_t ttl() const { return ttl_; }
    void setTtl(int64_t ttl) { ttl_ = ttl; }
    /// When the record was obtained, in seconds since 1970.
    double lookupTime() const { return lookupTime_; }
    void setLookupTime(double lookupTime) { lookupTime_ = lookupTime; }

    /// True once the current time, cut to whole seconds, has reached lookupTime + ttl. At
    /// equality the record is already expired. (The cache's own filter compares with the
    /// uncut time; the two differ only within the current second.)
    bool isExpired() const;

    static bool supportsSecureCoding() { return true; }

    std::string_view className() const override { return kClassName; }
    /// Writes "domain" (string), "type" (32-bit), "ip" (string), "ttl" (64-bit) and
    /// "lookupTime" (64-bit, whole seconds: the fraction is dropped by truncation).
    void encodeWithCoder(qel::platform::KeyedArchiver& coder) const override;
    /// Reads the fields written by `encodeWithCoder`; a missing key reads as 0 or no string,
    /// and the record is returned all the same.
    static std::shared_ptr<QelDNSIPModel> initWithCoder(
        const qel::platform::KeyedUnarchiver& coder);

private:
    int32_t type_ = 0;
    std::optional<std::string> domain_;
    std::optional<std::string> ip_;
    int64_t ttl_ = 0;
    double lookupTime_ = 0;
};

/// A list of records as the cache keeps and hands it out. Lists are shared by reference, not
/// copied: the cache keeps the very list the resolver saves and returns it to every reader.
/// Both the list and its records are immutable once shared, so readers on any thread need
/// no lock; a new answer replaces the whole list. A list holds no null record.
using QelDNSIPModelList = std::vector<std::shared_ptr<const QelDNSIPModel>>;
using QelDNSIPModelListRef = std::shared_ptr<const QelDNSIPModelList>;
