// Arbitrary bytes as the body of a 200 answer, read as a login answer and as a resolve answer
// through the code that reads real ones (QelDNSRequest::handleResponse, then the builders'
// handleAnswer). Each outcome is checked against the answer rules, read here on a second,
// independent parse of the same body.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "FuzzCheck.h"
#include "QelHttpDnsSDK/Network/Base/QelDNSRequest.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSAppAuth.h"
#include "QelHttpDnsSDK/Network/Business/QelDNSGetIPs.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Platform/Console.h"

using nlohmann::json;
namespace codes = QelDNSErrorCodes;

namespace {

const std::string kAuthId = "demo";
const std::string kDomain = "www.example.test";
constexpr int32_t kType = 1;

// What the transport would hand over: a body that arrived in full with status 200.
qel::platform::HttpResponse answerWithBody(const std::string& body) {
    qel::platform::HttpResponse response;
    response.statusCode = 200;
    response.body = body;
    return response;
}

const json* member(const json& document, const char* key) {
    if (!document.is_object()) return nullptr;
    const auto it = document.find(key);
    return it == document.end() ? nullptr : &*it;
}

bool isText(const json* value, const std::string& text) {
    return value && value->is_string() && value->get_ref<const std::string&>() == text;
}

std::string elementText(const json& element) {
    return element.is_string() ? element.get<std::string>() : element.dump();
}

std::vector<std::string> elementTexts(const json& array) {
    std::vector<std::string> texts;
    for (const auto& element : array) texts.push_back(elementText(element));
    return texts;
}

size_t openings(const std::string& body) {
    return static_cast<size_t>(
        std::count_if(body.begin(), body.end(), [](char c) { return c == '[' || c == '{'; }));
}

// The transport's verdict on the body alone. Returns the document the answer rules read, or
// nothing when the transport had to fail (and checks that it did, with the right code).
std::optional<json> checkTransport(const std::string& body,
                                   const std::optional<QelDNSError>& error) {
    if (body.empty()) {
        fuzzCheck(error && error->code() == codes::kEmptyBody, "an empty body is -10000");
        return std::nullopt;
    }
    json document = json::parse(body, nullptr, /*allow_exceptions=*/false);
    const bool container =
        !document.is_discarded() && (document.is_object() || document.is_array());
    if (!container) {
        fuzzCheck(error && error->code() == codes::kJsonConvertError,
                  "a body that is not a JSON object or array is -10001");
        return std::nullopt;
    }
    // Too deep to print safely: refused although valid. Any other refusal of a valid answer
    // fails the answer rules below.
    if (error && error->code() == codes::kJsonConvertError && openings(body) > 512) {
        return std::nullopt;
    }
    return document;
}

// A status declared by the answer is the failure, with its code when it is a plain int32.
bool checkStatus(const json& document, const std::optional<QelDNSError>& error) {
    const json* status = member(document, "status");
    if (!status) return false;
    fuzzCheck(error.has_value(), "an answer with a status fails");
    if (status->is_number_integer() && *status >= std::numeric_limits<int32_t>::min() &&
        *status <= std::numeric_limits<int32_t>::max()) {
        fuzzCheck(error->code() == status->get<int64_t>(), "the status is the error code");
    }
    const json* message = member(document, "message");
    if (message && message->is_string()) {
        fuzzCheck(error->localizedDescription() == message->get<std::string>(),
                  "the message is the error text");
    }
    return true;
}

void checkLogin(const std::string& body) {
    int calls = 0;
    std::optional<QelDNSError> error;
    std::optional<std::string> node;
    std::optional<std::vector<std::string>> list;
    QelDNSRequest::handleResponse(
        [&](std::optional<QelDNSError> e, std::optional<json> result) {
            QelDNSAppAuth::handleAnswer(
                kAuthId, [&](auto e2, auto n, auto l) { ++calls, error = e2, node = n, list = l; },
                std::move(e), result);
        },
        answerWithBody(body));
    fuzzCheck(calls == 1, "the login completion runs once");
    fuzzCheck(error.has_value() != node.has_value(), "a login gives an error or a node");

    const auto document = checkTransport(body, error);
    if (!document || checkStatus(*document, error)) return;
    const json* nodes = member(*document, "service_node_list");
    const bool hasList = nodes && nodes->is_array();
    const json* best = member(*document, "best_service_node");
    if (!isText(member(*document, "auth_id"), kAuthId)) {
        fuzzCheck(error && error->code() == codes::kLoginInvalidData, "another auth_id is -20000");
    } else if (best && best->is_string() && !best->get_ref<const std::string&>().empty()) {
        fuzzCheck(node == best->get<std::string>(), "the best node is the node");
    } else if (hasList && !nodes->empty()) {
        fuzzCheck(node == elementText(nodes->front()), "else the first listed node is the node");
    } else {
        fuzzCheck(error && error->code() == codes::kLoginEmptyData, "no node is -20001");
    }
    if (node) {
        fuzzCheck(hasList ? list == elementTexts(*nodes) : !list, "the node list is kept as sent");
    }
}

void checkResolve(const std::string& body) {
    int calls = 0;
    std::optional<QelDNSError> error;
    QelDNSIPModelListRef records;
    QelDNSRequest::handleResponse(
        [&](std::optional<QelDNSError> e, std::optional<json> result) {
            QelDNSGetIPs::handleAnswer(
                kDomain, kType, [&](auto e2, auto r) { ++calls, error = e2, records = r; },
                std::move(e), result);
        },
        answerWithBody(body));
    fuzzCheck(calls == 1, "the resolve completion runs once");
    fuzzCheck(error.has_value() != (records != nullptr), "a resolve gives an error or records");

    const auto document = checkTransport(body, error);
    if (!document || checkStatus(*document, error)) return;
    const json* ips = member(*document, "ip_list");
    if (!isText(member(*document, "host"), kDomain)) {
        fuzzCheck(error && error->code() == codes::kResolveInvalidData, "another host is -20002");
        return;
    }
    if (!ips || !ips->is_array() || ips->empty()) {
        fuzzCheck(error && error->code() == codes::kResolveEmptyData, "no address is -20003");
        return;
    }
    fuzzCheck(records && records->size() == ips->size(), "one record per address");
    const json* ttl = member(*document, "ttl");
    const std::optional<int64_t> exactTtl = !ttl ? std::optional<int64_t>(0)
                                            : ttl->is_number_integer() &&
                                                    *ttl >= std::numeric_limits<int32_t>::min() &&
                                                    *ttl <= std::numeric_limits<int32_t>::max()
                                                ? std::optional<int64_t>(ttl->get<int64_t>())
                                                : std::nullopt;
    for (size_t i = 0; i < records->size(); ++i) {
        const QelDNSIPModel& record = *(*records)[i];
        fuzzCheck(record.ip() == elementText((*ips)[i]), "addresses keep their order and text");
        fuzzCheck(record.domain() == kDomain && record.type() == kType, "records name the lookup");
        fuzzCheck(record.ttl() == (*records)[0]->ttl(), "records share the answer's ttl");
        if (exactTtl) fuzzCheck(record.ttl() == *exactTtl, "an int32 ttl is read as it is");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The transport logs every answer; the lines are built but not printed.
    qel::platform::Console::setSink([](const std::string&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    checkLogin(body);
    checkResolve(body);
    return 0;
}
