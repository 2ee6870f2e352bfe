// The request signatures, recomputed from the fields exactly as the SDK joins them: the MD5 of
// the joined text as 32 lower-case hex digits. The AuthId is not signed; it travels in the path.
#pragma once

#include <string>

namespace qel::server {

/// 32 lower-case hex digits of the MD5 of every byte of `text`.
std::string md5Hex(const std::string& text);

/// Login: "app_id-timestamp-secret".
std::string loginSignature(const std::string& appId, const std::string& timestamp,
                           const std::string& secret);

/// Resolve: "app_id-host-timestamp-type-secret".
std::string resolveSignature(const std::string& appId, const std::string& host,
                             const std::string& timestamp, const std::string& type,
                             const std::string& secret);

/// Compares in time independent of where the texts first differ, so answer times do not leak
/// how much of a guessed signature was right.
bool sameSignature(const std::string& a, const std::string& b);

}  // namespace qel::server
