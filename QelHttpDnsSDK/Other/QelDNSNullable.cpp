#include "QelHttpDnsSDK/Other/QelDNSNullable.h"

const std::string& QelDNSNullable::text(const std::optional<std::string>& value) {
    static const std::string* const kNull = new std::string("(null)");
    return value ? *value : *kNull;
}
