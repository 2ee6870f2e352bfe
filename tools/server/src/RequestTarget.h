// The request target (path and query) read as the SDK writes it. The SDK percent-encodes the
// whole URL and leaves "+", "&" and "=" as they are, so here "%XX" is decoded and nothing else:
// a "+" stays a "+" (a form decoder would turn it into a blank and break the signature). The
// SDK puts app_id last, so its value runs to the end of the query and may hold "&" or "=".
// Control bytes are marked, never dropped: a NUL would cut the text a C string reads, so a
// request that holds one is refused before anything is signed or looked up.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qel::server {

struct RequestTarget {
    std::string path;                                        // decoded
    std::vector<std::pair<std::string, std::string>> query;  // decoded, in order
    bool controlBytes = false;  // a decoded field holds a byte below 0x20, or 0x7f
    bool encodedSlash = false;  // the path holds an escaped "/", which separates nothing

    /// The value of the first `key`, or nothing.
    std::optional<std::string> param(const std::string& key) const {
        for (const auto& [name, value] : query) {
            if (name == key) return value;
        }
        return std::nullopt;
    }
};

/// Decodes "%XX" escapes; a "%" not followed by two hex digits stays as it is.
std::string percentDecode(std::string_view text);

RequestTarget parseTarget(const std::string& target);

}  // namespace qel::server
