#include "QelHttpDnsSDK/Platform/HttpRequest.h"

#include <strings.h>

namespace qel::platform {

void HttpRequest::setHeader(const std::string& name, const std::string& value) {
    for (auto& header : headers) {
        if (header.first.size() == name.size() &&
            ::strncasecmp(header.first.c_str(), name.c_str(), name.size()) == 0) {
            header = {name, value};
            return;
        }
    }
    headers.emplace_back(name, value);
}

}  // namespace qel::platform
