#include "Endpoint.h"

#include <stdexcept>

namespace qel::server {

std::string Endpoint::text() const {
    const bool v6 = host.find(':') != std::string::npos;
    return (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Endpoint parseEndpoint(const std::string& text, int defaultPort) {
    Endpoint endpoint;
    std::string portText;
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find(']');
        if (close == std::string::npos) throw std::invalid_argument("'" + text + "': missing ']'");
        endpoint.host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':')
                throw std::invalid_argument("'" + text + "': expected ':' after ']'");
            portText = text.substr(close + 2);
        }
    } else {
        const size_t colon = text.rfind(':');
        if (colon != std::string::npos && text.find(':') != colon) {
            if (defaultPort != 0) return {text, defaultPort};  // a bare IPv6 address
            throw std::invalid_argument("'" + text + "': write an IPv6 address as [ADDRESS]:PORT");
        }
        endpoint.host = text.substr(0, colon);
        if (colon != std::string::npos)
            portText = text.substr(colon + 1);
        else if (defaultPort == 0)
            throw std::invalid_argument("'" + text + "': expected HOST:PORT");
    }
    if (endpoint.host.empty()) throw std::invalid_argument("'" + text + "': empty host");
    if (portText.empty() && (text.back() == ':' || defaultPort == 0)) {
        throw std::invalid_argument("'" + text + "': missing port");
    }
    if (portText.empty()) {
        endpoint.port = defaultPort;
        return endpoint;
    }
    if (portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(portText) < 1 || std::stoi(portText) > 65535) {
        throw std::invalid_argument("'" + text + "': port must be a number from 1 to 65535");
    }
    endpoint.port = std::stoi(portText);
    return endpoint;
}

}  // namespace qel::server
