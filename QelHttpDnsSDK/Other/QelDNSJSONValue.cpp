#include "QelHttpDnsSDK/Other/QelDNSJSONValue.h"

#include <cctype>
#include <cmath>
#include <limits>

#include "QelHttpDnsSDK/Other/QelDNSUntil.h"

namespace {

constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

int32_t saturate(long double value) {
    if (std::isnan(value)) return 0;
    if (value <= static_cast<long double>(kInt32Min)) return static_cast<int32_t>(kInt32Min);
    if (value >= static_cast<long double>(kInt32Max)) return static_cast<int32_t>(kInt32Max);
    return static_cast<int32_t>(value);  // truncates toward zero
}

int32_t leadingInteger(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    int64_t magnitude = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        magnitude = magnitude * 10 + (text[i] - '0');
        if (magnitude > kInt32Max + 1) break;  // saturated already; stop before overflowing
    }
    return saturate(static_cast<long double>(negative ? -magnitude : magnitude));
}

std::string compactText(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

const nlohmann::json* QelDNSJSONValue::member(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

int32_t QelDNSJSONValue::int32Value(const nlohmann::json* value) {
    if (!value) return 0;
    switch (value->type()) {
        case nlohmann::json::value_t::number_integer:
            return saturate(static_cast<long double>(value->get<int64_t>()));
        case nlohmann::json::value_t::number_unsigned:
            return saturate(static_cast<long double>(value->get<uint64_t>()));
        case nlohmann::json::value_t::number_float:
            return saturate(static_cast<long double>(value->get<double>()));
        case nlohmann::json::value_t::boolean: return value->get<bool>() ? 1 : 0;
        case nlohmann::json::value_t::string:
            return leadingInteger(value->get_ref<const std::string&>());
        default: return 0;
    }
}

std::optional<std::string> QelDNSJSONValue::stringValue(const nlohmann::json* value) {
    if (!value || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::string QelDNSJSONValue::descriptionValue(const nlohmann::json* value) {
    if (!value || value->is_null()) return "";
    if (value->is_string()) return value->get<std::string>();
    return compactText(*value);
}

std::optional<std::vector<std::string>> QelDNSJSONValue::stringArrayValue(
    const nlohmann::json* value) {
    if (!value || !value->is_array()) return std::nullopt;
    std::vector<std::string> strings;
    strings.reserve(value->size());
    // Every element stays, so positions match the service's list (the node registry walks
    // it by index).
    for (const auto& element : *value) {
        strings.push_back(element.is_string() ? element.get<std::string>() : compactText(element));
    }
    return strings;
}

std::optional<QelDNSError> QelDNSJSONValue::statusError(const nlohmann::json& answer) {
    const nlohmann::json* status = member(answer, "status");
    if (!status) return std::nullopt;
    return QelDNSUntil::errorCode(int32Value(status), descriptionValue(member(answer, "message")));
}

const nlohmann::json& QelDNSJSONValue::answerOf(const std::optional<nlohmann::json>& result) {
    static const nlohmann::json* const kNoKeys = new nlohmann::json(nlohmann::json::object());
    return result ? *result : *kNoKeys;
}
