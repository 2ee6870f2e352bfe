#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/HttpSession.h"

using nlohmann::json;
using qel::platform::Console;
using qel::platform::HttpMethod;
using qel::platform::HttpRequest;
using qel::platform::HttpResponse;
using qel::platform::HttpSession;

namespace {

namespace codes = QelDNSErrorCodes;

constexpr double kDefaultTimeoutSeconds = 20.0;
std::atomic<double> requestTimeout{0.0};
// Far deeper than any real answer, shallow enough that printing (which recurses) is safe.
constexpr int kMaxAnswerDepth = 512;

// Bytes that stay as they are in a URL query: letters, digits and -._~!$&'()*+,;=:@/?
constexpr std::array<bool, 256> queryAllowedBytes() {
    std::array<bool, 256> allowed{};
    for (int c = 'a'; c <= 'z'; ++c) allowed[c] = true;
    for (int c = 'A'; c <= 'Z'; ++c) allowed[c] = true;
    for (int c = '0'; c <= '9'; ++c) allowed[c] = true;
    for (char c : std::string_view("-._~!$&'()*+,;=:@/?"))
        allowed[static_cast<unsigned char>(c)] = true;
    return allowed;
}

}  // namespace

std::string QelDNSRequest::percentEncode(const std::string& text) {
    static constexpr std::array<bool, 256> kAllowed = queryAllowedBytes();
    static const char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(text.size() + text.size() / 4);
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (kAllowed[byte]) {
            encoded.push_back(c);
        } else {
            encoded.push_back('%');
            encoded.push_back(kHex[byte >> 4]);
            encoded.push_back(kHex[byte & 0x0f]);
        }
    }
    return encoded;
}

namespace {

// The URL a request is sent to: percent-encoded, except that an IPv6 literal host keeps its
// brackets ("http://[::1]:18054/..."), which the encoding would turn into a host no one has.
std::string encodedUrl(const std::string& url) {
    const size_t host = url.find("://");
    if (host != std::string::npos && url.compare(host + 3, 1, "[") == 0) {
        const size_t close = url.find(']', host + 4);
        const size_t literal = url.find_first_not_of("0123456789abcdefABCDEF:.", host + 4);
        if (close != std::string::npos && literal == close) {
            return QelDNSRequest::percentEncode(url.substr(0, host + 3)) +
                   url.substr(host + 3, close - host - 2) +
                   QelDNSRequest::percentEncode(url.substr(close + 1));
        }
    }
    return QelDNSRequest::percentEncode(url);
}

std::string prettyJSON(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

const json& asObject(const json& value) {
    static const json* const kEmptyObject = new json(json::object());
    return value.is_object() ? value : *kEmptyObject;
}

// The text a header value gets, as the original's "%@" formatting gave it.
std::string headerText(const json& value) {
    char number[64];
    switch (value.type()) {
        case json::value_t::string: return value.get_ref<const std::string&>();
        case json::value_t::boolean: return value.get<bool>() ? "1" : "0";
        case json::value_t::null: return "<null>";
        case json::value_t::number_float:
            std::snprintf(number, sizeof number, "%.16g", value.get<double>());
            return number;
        default:  // integers; arrays and objects as compact JSON, which stays on one line
            return value.dump(-1, ' ', false, json::error_handler_t::replace);
    }
}

bool nestsDeeperThan(const std::string& text, int limit) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

// Only a JSON object or array is an answer; a bare scalar ("abc", "123") is not.
std::optional<json> parseAnswer(const std::string& body) {
    if (nestsDeeperThan(body, kMaxAnswerDepth)) return std::nullopt;
    json parsed = json::parse(body, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded() || !(parsed.is_object() || parsed.is_array())) return std::nullopt;
    return parsed;
}

void finishWith(const QelDNSRequest::FinishBlock& finishBlock, std::optional<QelDNSError> error,
                std::optional<json> result) {
    if (finishBlock) finishBlock(std::move(error), std::move(result));
}

}  // namespace

void QelDNSRequest::handleResponse(const FinishBlock& finishBlock, HttpResponse response) {
    if (response.error) {
        // The error handed on is generic; without this line a refused certificate or pin, a
        // reset or a timeout would look the same in the log.
        Console::log("request failed: " + *response.error);
        const bool cut = response.statusCode == 200;
        finishWith(finishBlock,
                   cut ? QelDNSUntil::errorCode(codes::kFailedWithStatus200,
                                                codes::kFailedWithStatus200Message)
                       : QelDNSUntil::errorCode(codes::kNeedRetry, codes::kNeedRetryMessage),
                   std::nullopt);
        return;
    }
    if (response.body.empty()) {
        finishWith(finishBlock, QelDNSUntil::errorCode(codes::kEmptyBody, codes::kEmptyBodyMessage),
                   std::nullopt);
        return;
    }
    std::optional<json> answer = parseAnswer(response.body);
    // The line is printed before the parse result is looked at; with nothing parsed there is
    // nothing to print, which reads "(null)" like any absent text.
    Console::log("response url " + (answer ? prettyJSON(*answer) : std::string("(null)")));
    if (!answer) {
        finishWith(
            finishBlock,
            QelDNSUntil::errorCode(codes::kJsonConvertError, codes::kJsonConvertErrorMessage),
            std::nullopt);
        return;
    }
    finishWith(finishBlock, std::nullopt, std::move(answer));
}

void QelDNSRequest::get(const std::optional<std::string>& url, const json& headers,
                        FinishBlock finishBlock) {
    baseRequest(0, url, headers, json::object(), std::move(finishBlock));
}

double QelDNSRequest::timeout() { return requestTimeout.load(std::memory_order_relaxed); }

void QelDNSRequest::setTimeout(double timeout) {
    requestTimeout.store(timeout, std::memory_order_relaxed);
}

void QelDNSRequest::post(const std::optional<std::string>& url, const json& headers,
                         const json& body, FinishBlock finishBlock) {
    baseRequest(1, url, headers, body, std::move(finishBlock));
}

void QelDNSRequest::baseRequest(uint64_t method, const std::optional<std::string>& url,
                                const json& headers, const json& body, FinishBlock finishBlock) {
    if (!url || url->empty()) return;

    HttpRequest request;
    request.url = encodedUrl(*url);
    // Read once, so a concurrent change to 0.0 cannot slip through as a zero timeout.
    const double timeout = requestTimeout.load(std::memory_order_relaxed);
    request.timeoutSeconds = timeout == 0.0 ? kDefaultTimeoutSeconds : timeout;
    request.setHeader("Content-Type", "application/json;charset=UTF-8");
    const json& headerFields = asObject(headers);
    for (const auto& [name, value] : headerFields.items())
        request.setHeader(name, headerText(value));
    request.method = method == 1 ? HttpMethod::Post : HttpMethod::Get;

    Console::log("request url: " + *url);
    Console::log("request headers " + prettyJSON(headerFields));
    if (request.method == HttpMethod::Post) {
        request.body = prettyJSON(asObject(body));
        Console::log("request paramters " + request.body);
    }

    HttpSession::shared().send(std::move(request),
                               [finishBlock = std::move(finishBlock)](HttpResponse response) {
                                   handleResponse(finishBlock, std::move(response));
                               });
}
