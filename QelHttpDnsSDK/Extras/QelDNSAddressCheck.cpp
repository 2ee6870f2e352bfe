#include "QelHttpDnsSDK/Extras/QelDNSAddressCheck.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <utility>

bool QelDNSAddressCheck::isAddress(const std::string& text, int64_t type) {
    // inet_pton reads a C string: what follows a NUL would go unseen.
    if (text.find('\0') != std::string::npos) return false;
    unsigned char address[16];
    return inet_pton(type == 1 ? AF_INET : AF_INET6, text.c_str(), address) == 1;
}

std::vector<std::string> QelDNSAddressCheck::keepAddresses(std::vector<std::string>& ips,
                                                           int64_t type) {
    std::vector<std::string> dropped;
    const auto rest = std::stable_partition(
        ips.begin(), ips.end(), [type](const std::string& ip) { return isAddress(ip, type); });
    std::move(rest, ips.end(), std::back_inserter(dropped));
    ips.erase(rest, ips.end());
    return dropped;
}
