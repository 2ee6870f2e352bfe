#include "RequestTarget.h"

#include <algorithm>

namespace qel::server {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr char kLastKey[] = "app_id=";

bool hasControlBytes(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
}

}  // namespace

std::string percentDecode(std::string_view text) {
    if (text.find('%') == std::string_view::npos) return std::string(text);
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int high = hexValue(text[i + 1]), low = hexValue(text[i + 2]);
            if (high >= 0 && low >= 0) {
                decoded.push_back(static_cast<char>(high * 16 + low));
                i += 2;
                continue;
            }
        }
        decoded.push_back(text[i]);
    }
    return decoded;
}

RequestTarget parseTarget(const std::string& whole) {
    const std::string_view target(whole);
    RequestTarget parsed;
    const size_t mark = target.find('?');
    const std::string_view path = target.substr(0, mark);
    parsed.path = percentDecode(path);
    // Decoding adds a "/" only where the path held an escaped one.
    parsed.encodedSlash = std::count(parsed.path.begin(), parsed.path.end(), '/') !=
                          std::count(path.begin(), path.end(), '/');
    parsed.controlBytes = hasControlBytes(parsed.path);
    if (mark == std::string::npos) return parsed;
    const std::string_view query = target.substr(mark + 1);
    parsed.query.reserve(4);
    size_t start = 0;
    while (start <= query.size()) {
        size_t end = query.compare(start, sizeof kLastKey - 1, kLastKey) == 0
                         ? query.size()
                         : query.find('&', start);
        if (end == std::string_view::npos) end = query.size();
        const std::string_view pair = query.substr(start, end - start);
        if (!pair.empty()) {
            const size_t equals = pair.find('=');
            std::string key = percentDecode(pair.substr(0, equals));
            std::string value = equals == std::string_view::npos
                                    ? std::string()
                                    : percentDecode(pair.substr(equals + 1));
            parsed.controlBytes =
                parsed.controlBytes || hasControlBytes(key) || hasControlBytes(value);
            parsed.query.emplace_back(std::move(key), std::move(value));
        }
        start = end + 1;
    }
    return parsed;
}

}  // namespace qel::server
