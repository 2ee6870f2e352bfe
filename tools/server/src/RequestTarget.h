// The request target (path and query) read as the SDK writes it. The SDK percent-encodes the
// whole URL and leaves "+", "&" and "=" as they are, so here "%XX" is decoded and nothing else:
// a "+" stays a "+" (a form decoder would turn it into a blank and break the signature). The
// SDK puts app_id last, so its value runs to the end of the query and may hold "&" or "=".
#pragma once

#include <map>
#include <optional>
#include <string>

namespace qel::server {

struct RequestTarget {
    std::string path;                          // decoded
    std::map<std::string, std::string> query;  // decoded; the first of repeated keys wins

    std::optional<std::string> param(const std::string& key) const {
        const auto found = query.find(key);
        if (found == query.end()) return std::nullopt;
        return found->second;
    }
};

/// Decodes "%XX" escapes; a "%" not followed by two hex digits stays as it is.
std::string percentDecode(const std::string& text);

RequestTarget parseTarget(const std::string& target);

}  // namespace qel::server
