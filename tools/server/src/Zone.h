// The names the service answers for, read from a file in the master-file shape:
//
//   $TTL 300                             ; default TTL of the lines that give none
//   www.example.test.  60  IN  A     192.0.2.10
//   www.example.test.  60      A     192.0.2.11
//   www.example.test.          AAAA  2001:db8::10
//
// One record per line: name, optional TTL (seconds), optional class IN, type A or AAAA, and
// the address. ";" and "#" start a comment. Names are matched without regard to letter case
// and a final "." is optional. Lines of one name and type add up; their answer carries the
// smallest TTL among them.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace qel::server {

/// 1: IPv4 (A), 2: IPv6 (AAAA), the numbers of the resolve request's "type".
enum class AddressType { V4 = 1, V6 = 2 };

struct AddressSet {
    int32_t ttl = 0;
    std::vector<std::string> addresses;  // in file order, written the canonical way
};

class Zone {
public:
    /// Throws std::runtime_error "FILE:LINE: what is wrong" (or "FILE: cannot read: ...").
    static Zone load(const std::string& path);
    /// Same as load, from text; `source` names it in errors.
    static Zone parse(const std::string& text, const std::string& source);

    /// Whether the zone holds `name` with any type.
    bool contains(const std::string& name) const;
    /// Whether the zone holds `name`; if so, `found` gets its addresses of `type` (maybe none).
    bool lookup(const std::string& name, AddressType type, AddressSet& found) const;
    /// The addresses of `name` and `type`; empty when the zone has none.
    AddressSet find(const std::string& name, AddressType type) const;
    size_t names() const { return names_.size(); }

    /// Lower case, one final "." dropped: the form names are kept and looked up in.
    static std::string canonicalName(const std::string& name);

private:
    struct Entry {
        AddressSet v4, v6;
    };
    std::unordered_map<std::string, Entry> names_;
};

}  // namespace qel::server
