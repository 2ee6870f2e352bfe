#include "Signature.h"

#include <openssl/evp.h>

namespace qel::server {

std::string md5Hex(const std::string& text) {
    // Fetched once: a fetch on every digest costs more than the digest of a short text.
    static EVP_MD* const kMd5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, kMd5, nullptr);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
        hex.push_back(kHex[digest[i] >> 4]);
        hex.push_back(kHex[digest[i] & 0x0f]);
    }
    return hex;
}

std::string loginSignature(const std::string& appId, const std::string& timestamp,
                           const std::string& secret) {
    return md5Hex(appId + "-" + timestamp + "-" + secret);
}

std::string resolveSignature(const std::string& appId, const std::string& host,
                             const std::string& timestamp, const std::string& type,
                             const std::string& secret) {
    return md5Hex(appId + "-" + host + "-" + timestamp + "-" + type + "-" + secret);
}

bool sameSignature(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

}  // namespace qel::server
