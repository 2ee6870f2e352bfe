// The lowercase hex MD5 of a text, computed here independently of the library's signer.
#pragma once

#include <openssl/evp.h>

#include <cstdio>
#include <string>

namespace qel::test {

inline std::string md5Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex(2 * length, '\0');
    for (unsigned int i = 0; i < length; ++i) std::snprintf(&hex[2 * i], 3, "%02x", digest[i]);
    return hex;
}

}  // namespace qel::test
