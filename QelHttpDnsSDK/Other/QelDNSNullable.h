// How an absent string reads when it is formatted into a message, URL or signed text:
// "(null)", as it always has, so that signatures computed elsewhere from the same fields agree.
#pragma once

#include <optional>
#include <string>

class QelDNSNullable {
public:
    QelDNSNullable() = delete;

    /// The string itself, or "(null)" when absent.
    static const std::string& text(const std::optional<std::string>& value);
};
