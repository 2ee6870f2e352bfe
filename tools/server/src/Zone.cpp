#include "Zone.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "Accounts.h"

namespace qel::server {

namespace {

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::optional<int32_t> parseTtl(const std::string& text) {
    if (text.empty() || text.size() > 10 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    const long long value = std::stoll(text);
    // The SDK reads the TTL as a signed 32-bit number.
    if (value > std::numeric_limits<int32_t>::max()) return std::nullopt;
    return static_cast<int32_t>(value);
}

// The address in its canonical text (lower case, shortest IPv6 form), or nothing.
std::optional<std::string> canonicalAddress(const std::string& text, AddressType type) {
    const int family = type == AddressType::V4 ? AF_INET : AF_INET6;
    unsigned char bytes[16];
    if (inet_pton(family, text.c_str(), bytes) != 1) return std::nullopt;
    char written[INET6_ADDRSTRLEN];
    if (!inet_ntop(family, bytes, written, sizeof written)) return std::nullopt;
    return std::string(written);
}

bool validName(const std::string& name) {
    if (name.empty() || name.size() > 253) return false;
    return std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '-' || c == '.' || c == '_';
    });
}

}  // namespace

std::string Zone::canonicalName(const std::string& name) {
    std::string canonical = name;
    if (!canonical.empty() && canonical.back() == '.') canonical.pop_back();
    // ASCII only, as names are matched in DNS, and without the locale lookup of tolower.
    for (char& c : canonical) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return canonical;
}

Zone Zone::load(const std::string& path) { return parse(readFile(path), path); }

Zone Zone::parse(const std::string& text, const std::string& source) {
    Zone zone;
    std::optional<int32_t> defaultTtl;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        line = line.substr(0, line.find_first_of(";#"));
        std::istringstream stream(line);
        std::vector<std::string> fields;
        for (std::string field; stream >> field;) fields.push_back(field);
        if (fields.empty()) continue;
        const std::string where = source + ":" + std::to_string(number) + ": ";
        auto fail = [&](const std::string& what) { throw std::runtime_error(where + what); };

        if (fields[0] == "$TTL") {
            if (fields.size() != 2 || !(defaultTtl = parseTtl(fields[1]))) {
                fail("expected $TTL SECONDS (0 to 2147483647)");
            }
            continue;
        }
        if (fields[0][0] == '$') fail("directive " + fields[0] + " is not supported ($TTL is)");
        if (fields.size() < 3 || fields.size() > 5) fail("expected NAME [TTL] [IN] A|AAAA ADDRESS");

        const std::string& name = fields[0];
        if (!validName(name)) fail("'" + name + "' is not a host name");
        size_t next = 1;
        std::optional<int32_t> ttl;
        if (std::isdigit(static_cast<unsigned char>(fields[next][0]))) {
            if (!(ttl = parseTtl(fields[next])))
                fail("TTL '" + fields[next] + "' is not 0 to 2147483647");
            ++next;
        }
        if (next < fields.size() && upper(fields[next]) == "IN") ++next;
        if (fields.size() - next != 2) fail("expected NAME [TTL] [IN] A|AAAA ADDRESS");
        const std::string type = upper(fields[next]);
        if (type != "A" && type != "AAAA")
            fail("record type " + fields[next] + " is not served (A and AAAA are)");
        if (!ttl && !(ttl = defaultTtl)) fail("no TTL on the line and no $TTL before it");

        const AddressType addressType = type == "A" ? AddressType::V4 : AddressType::V6;
        const auto address = canonicalAddress(fields[next + 1], addressType);
        if (!address)
            fail("'" + fields[next + 1] + "' is not an " + (type == "A" ? "IPv4" : "IPv6") +
                 " address");

        Entry& entry = zone.names_[canonicalName(name)];
        AddressSet& set = addressType == AddressType::V4 ? entry.v4 : entry.v6;
        set.ttl = set.addresses.empty() ? *ttl : std::min(set.ttl, *ttl);
        if (std::find(set.addresses.begin(), set.addresses.end(), *address) ==
            set.addresses.end()) {
            set.addresses.push_back(*address);
        }
    }
    return zone;
}

bool Zone::contains(const std::string& name) const { return names_.count(canonicalName(name)) > 0; }

bool Zone::lookup(const std::string& name, AddressType type, AddressSet& found) const {
    const auto entry = names_.find(canonicalName(name));
    if (entry == names_.end()) return false;
    found = type == AddressType::V4 ? entry->second.v4 : entry->second.v6;
    return true;
}

AddressSet Zone::find(const std::string& name, AddressType type) const {
    const auto found = names_.find(canonicalName(name));
    if (found == names_.end()) return {};
    return type == AddressType::V4 ? found->second.v4 : found->second.v6;
}

}  // namespace qel::server
