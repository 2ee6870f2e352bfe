// The one check of the addresses a lookup hands back, for the code that puts them to use: the
// C interface, the libcurl pinning and qeldns. The manager passes the service's "ip_list" on
// as it comes, so an entry can be any text: "not-an-ip", "<script>", a line break followed by
// a forged line, or a comma that would add addresses of its own to a CURLOPT_RESOLVE entry.
// Stateless; callable from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/QelDNSExport.h"

class QEL_EXPORT QelDNSAddressCheck {
public:
    QelDNSAddressCheck() = delete;

    /// True when the whole of `text` is an address of the family that lookups of `type` ask
    /// for (1: IPv4 in dotted-quad form; any other type, as the manager reads it: IPv6), as
    /// inet_pton(3) reads it: no brackets, zone, port, blanks or NUL.
    static bool isAddress(const std::string& text, int64_t type);

    /// Removes from `ips` every entry that is not such an address, keeping the order of the
    /// rest; returns the removed entries, in their order.
    static std::vector<std::string> keepAddresses(std::vector<std::string>& ips, int64_t type);
};
