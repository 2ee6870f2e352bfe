// The text checks and the URL escaping on arbitrary bytes:
//  - the host-name check against a plain label-by-label reading of the same rule;
//  - the address check: it reads up to the first NUL, and a dotted-quad IPv4 address is also
//    a host name by the rule above;
//  - the URL escaping: only kept bytes or %XX come out, and unescaping gives the input back;
//  - the MD5 signature: 32 lower-case hex digits of the text up to its first NUL.
#include <arpa/inet.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

namespace {

bool isAsciiAlnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// A label: one or more letters, digits and hyphens, not starting or ending with a hyphen.
bool isLabel(std::string_view label) {
    if (label.empty() || label.front() == '-' || label.back() == '-') return false;
    for (char c : label) {
        if (!isAsciiAlnum(c) && c != '-') return false;
    }
    return true;
}

// Host name: labels separated by single dots, no empty label (so no leading or trailing dot).
bool isHostName(std::string_view text) {
    if (text.empty()) return false;
    size_t start = 0;
    while (true) {
        const size_t dot = text.find('.', start);
        if (!isLabel(text.substr(start, dot == std::string_view::npos ? dot : dot - start))) {
            return false;
        }
        if (dot == std::string_view::npos) return true;
        start = dot + 1;
    }
}

void checkHostName(const std::string& text) {
    fuzzCheck(QelDNSUntil::isDomain(text) == isHostName(text),
              "the host-name check agrees with the label-by-label reading");
}

void checkAddress(const std::string& text) {
    const bool isIP = QelDNSUntil::isIP(text);
    const std::string upToNul(text.c_str());
    fuzzCheck(isIP == QelDNSUntil::isIP(upToNul), "the address check stops at the first NUL");
    unsigned char v4[4];
    if (inet_pton(AF_INET, upToNul.c_str(), v4) == 1) {
        fuzzCheck(isIP, "an IPv4 address is an address");
        fuzzCheck(QelDNSUntil::isDomain(upToNul), "a dotted-quad IPv4 address is a host name");
    }
}

bool isKept(unsigned char c) {
    return isAsciiAlnum(static_cast<char>(c)) ||
           std::string_view("-._~!$&'()*+,;=:@/?").find(static_cast<char>(c)) !=
               std::string_view::npos;
}

int upperHexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

void checkEscaping(const std::string& text) {
    const std::string escaped = QelDNSRequest::percentEncode(text);
    std::string unescaped;
    for (size_t i = 0; i < escaped.size(); ++i) {
        const auto c = static_cast<unsigned char>(escaped[i]);
        if (c != '%') {
            fuzzCheck(isKept(c), "only kept bytes stay unescaped");
            unescaped.push_back(static_cast<char>(c));
            continue;
        }
        fuzzCheck(i + 2 < escaped.size(), "an escape has two hex digits");
        const int high = upperHexDigit(escaped[i + 1]);
        const int low = upperHexDigit(escaped[i + 2]);
        fuzzCheck(high >= 0 && low >= 0, "escapes are upper-case hex");
        const auto byte = static_cast<unsigned char>(high * 16 + low);
        fuzzCheck(!isKept(byte), "a kept byte is never escaped");
        unescaped.push_back(static_cast<char>(byte));
        i += 2;
    }
    fuzzCheck(unescaped == text, "unescaping gives the input back");
}

void checkSignature(const std::string& text) {
    const std::string digest = QelDNSUntil::MD5ForLower32Bate(text);
    fuzzCheck(digest.size() == 32, "a signature is 32 characters");
    for (char c : digest) {
        fuzzCheck((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'), "in lower-case hex");
    }
    fuzzCheck(digest == QelDNSUntil::MD5ForLower32Bate(std::string(text.c_str())),
              "the signature stops at the first NUL");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkHostName(text);
    checkAddress(text);
    checkEscaping(text);
    checkSignature(text);
    return 0;
}
