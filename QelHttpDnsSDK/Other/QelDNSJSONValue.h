// Reads typed values out of the service's JSON answers without trusting their JSON types.
// A service (or whatever answers in its place) may send a number where text is expected or
// text where a number is; these readers never throw and never crash on such answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "QelHttpDnsSDK/Other/QelDNSError.h"

class QelDNSJSONValue {
public:
    QelDNSJSONValue() = delete;

    /// The member `key` of `object`, or nullptr when `object` is not a JSON object or lacks
    /// the key. A document that is not an object thus reads as an object with no keys.
    static const nlohmann::json* member(const nlohmann::json& object, const char* key);

    /// A signed 32-bit integer, read the way the service's numbers have always been read:
    /// a number is truncated toward zero; text is read from its leading decimal digits
    /// (leading blanks and one sign allowed, "12abc" is 12, "abc" is 0); true is 1, false 0.
    /// Values beyond the 32-bit range saturate. Absent, null, arrays and objects read as 0.
    static int32_t int32Value(const nlohmann::json* value);

    /// The text of a string value; nothing for any other type or when absent.
    static std::optional<std::string> stringValue(const nlohmann::json* value);

    /// A message for an error result: text as it is, a number or other value as its compact
    /// JSON text (the way it would print), and the empty text when absent or null.
    static std::string descriptionValue(const nlohmann::json* value);

    /// The failure a service answer declares: present exactly when the answer holds "status"
    /// (whatever its value, 0 included), with that status as the code and "message" as the text.
    static std::optional<QelDNSError> statusError(const nlohmann::json& answer);

    /// The answer a transport result stands for: the result, or an object with no keys.
    static const nlohmann::json& answerOf(const std::optional<nlohmann::json>& result);

    /// Every element of an array value, in order: text as it is, any other element (a number,
    /// null, an object) as its compact JSON text. Nothing when the value is absent or not an
    /// array.
    static std::optional<std::vector<std::string>> stringArrayValue(const nlohmann::json* value);
};
