#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <re2/re2.h>

#include <cstring>

#include "QelHttpDnsSDK/Platform/MainBundle.h"

namespace {

const RE2& hostNamePattern() {
    // Compiled once per process, never freed. RE2 matches in linear time without recursion,
    // so hostile input of any length neither stalls nor overflows the stack. The larger
    // memory budget keeps the fast DFA usable on long inputs.
    static const RE2* pattern = [] {
        RE2::Options options;
        options.set_case_sensitive(false);
        options.set_log_errors(false);
        options.set_max_mem(32 << 20);
        return new RE2(
            "^(([a-zA-Z0-9]|[a-zA-Z0-9][a-zA-Z0-9\\-]*[a-zA-Z0-9])\\.)*"
            "([A-Za-z0-9]|[A-Za-z0-9][A-Za-z0-9\\-]*[A-Za-z0-9])$",
            options);
    }();
    return *pattern;
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

bool QelDNSUntil::isDomain(const std::optional<std::string>& domain) {
    const RE2& pattern = hostNamePattern();
    if (!domain || domain->empty()) return false;
    if (!pattern.ok()) return false;
    return RE2::FullMatch(*domain, pattern);
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
    EVP_Digest(str.data(), length, digest, &digestLength, EVP_md5(), nullptr);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(32);
    for (unsigned int i = 0; i < digestLength; ++i) {
        hex.push_back(kHex[digest[i] >> 4]);
        hex.push_back(kHex[digest[i] & 0x0f]);
    }
    return hex;
}
