#include "QelHttpDnsSDK/Model/QelDNSIPModel.h"

#include <cmath>
#include <limits>

#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/KeyedArchiver.h"
#include "QelHttpDnsSDK/Platform/KeyedUnarchiver.h"

namespace {

// Out-of-range doubles (NaN, beyond 2^63) have no defined conversion; pin them to an end
// of the range so the archive always holds a defined value.
int64_t truncateToSeconds(double seconds) {
    if (std::isnan(seconds)) return 0;
    if (seconds >= 0x1p63) return std::numeric_limits<int64_t>::max();
    if (seconds < -0x1p63) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(seconds);
}

}  // namespace

bool QelDNSIPModel::isExpired() const {
    const double now = static_cast<double>(truncateToSeconds(qel::platform::Clock::currentTime()));
    return now >= static_cast<double>(ttl_) + lookupTime_;
}

void QelDNSIPModel::encodeWithCoder(qel::platform::KeyedArchiver& coder) const {
    coder.encodeString(domain_, "domain");
    coder.encodeInt32(type_, "type");
    coder.encodeString(ip_, "ip");
    coder.encodeInt64(ttl_, "ttl");
    coder.encodeInt64(truncateToSeconds(lookupTime_), "lookupTime");
}

std::shared_ptr<QelDNSIPModel> QelDNSIPModel::initWithCoder(
    const qel::platform::KeyedUnarchiver& coder) {
    auto record = std::make_shared<QelDNSIPModel>();
    record->domain_ = coder.decodeStringForKey("domain");
    record->type_ = coder.decodeInt32ForKey("type");
    record->ip_ = coder.decodeStringForKey("ip");
    record->ttl_ = coder.decodeInt64ForKey("ttl");
    record->lookupTime_ = static_cast<double>(coder.decodeInt64ForKey("lookupTime"));
    return record;
}
