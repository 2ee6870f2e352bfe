// The reference service's reading of a request: the target (path and query, as escaped on the
// wire) and the Authorization header, through Service::answer, the code every request takes.
// Input: the target, a newline, then the Authorization value. Checked on every input:
//  - the answer is a JSON object whose "status" is the HTTP status (or a 200 answer body);
//  - a control byte in the target, raw or escaped, is refused with 400, before anything else;
//  - an escaped slash in the path is a 404;
//  - a 200 answer carries a signature equal to the MD5 of every byte of the signed fields and
//    the account's secret, computed here over the exact bytes.
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "AccessLog.h"
#include "FuzzCheck.h"
#include "RequestTarget.h"
#include "Service.h"

using namespace qel::server;

namespace {

constexpr char kSecret[] = "s3cr3t";
constexpr int64_t kNow = 1700000000000;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isControl(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }

// A control byte anywhere, raw or as %XX: read straight off the wire form.
bool holdsControl(std::string_view target) {
    for (size_t i = 0; i < target.size(); ++i) {
        if (isControl(static_cast<unsigned char>(target[i]))) return true;
        if (target[i] == '%' && i + 2 < target.size() && hexDigit(target[i + 1]) >= 0 &&
            hexDigit(target[i + 2]) >= 0 &&
            isControl(static_cast<unsigned char>(hexDigit(target[i + 1]) * 16 +
                                                 hexDigit(target[i + 2])))) {
            return true;
        }
    }
    return false;
}

std::string md5Of(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    char hex[2 * EVP_MAX_MD_SIZE + 1] = "";
    for (unsigned int i = 0; i < length; ++i) std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

const Service& service() {
    static AccessLog* log =
        new AccessLog(std::fopen("/dev/null", "w"), std::fopen("/dev/null", "w"));
    static Service* made = [] {
        Accounts accounts;
        accounts.add("acct-7", kSecret);
        auto* service = new Service(std::move(accounts),
                                    Zone::parse("www.example.test 60 A 192.0.2.10\n", "fuzz"), *log,
                                    [] { return kNow; });
        service->setNodes({"http://127.0.0.1:18054"});
        return service;
    }();
    return *made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    const std::string target = input.substr(0, newline);
    const std::string authorization = newline == std::string::npos ? "" : input.substr(newline + 1);

    const Service::Reply reply = service().answer("GET", target, authorization);
    const auto body = nlohmann::json::parse(reply.body, nullptr, false);
    fuzzCheck(body.is_object(), "the answer is a JSON object");
    if (reply.status != 200) {
        fuzzCheck(body.value("status", 0) == reply.status, "a refusal's status is the HTTP status");
    }
    if (holdsControl(target)) {
        fuzzCheck(reply.status == 400, "a control byte is refused with 400");
        return 0;
    }
    const std::string_view path = std::string_view(target).substr(0, target.find('?'));
    if (path.find("%2f") != std::string_view::npos || path.find("%2F") != std::string_view::npos) {
        fuzzCheck(reply.status == 404, "an escaped slash in the path is a 404");
    }
    if (reply.status != 200) return 0;

    const RequestTarget parsed = parseTarget(target);
    const bool login = parsed.path == "/acct-7/service";
    fuzzCheck(login || parsed.path == "/acct-7/resolve", "only the two endpoints answer");
    const std::string appId = *parsed.param("app_id"), timestamp = *parsed.param("timestamp");
    const std::string signedText = login ? appId + "-" + timestamp + "-" + kSecret
                                         : appId + "-" + *parsed.param("host") + "-" + timestamp +
                                               "-" + *parsed.param("type") + "-" + kSecret;
    fuzzCheck(authorization == "MD5 " + md5Of(signedText),
              "an answer needs the signature of every signed byte");
    return 0;
}
