// The account every end-to-end test registers, and the one way a test waits for its login.
#pragma once

#include <cstdint>
#include <string>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"
#include "support/Eventually.h"
#include "support/ResolutionService.h"

namespace qel::test {

inline constexpr char kAuthId[] = "acct-7";
inline constexpr char kAuthSecret[] = "s3cr3t";
inline constexpr char kAppId[] = "com.example.app";

/// Points the SDK at `service`, registers, and waits until a new login reply has set `status`
/// and, on success, armed the node the service hands out. False if that did not happen.
inline bool registered(ResolutionService& service, const std::string& secret = kAuthSecret, int64_t status = 4) {
    auto& dns = QelHttpDnsManager::shared();
    dns.customServerUrl(service.baseUrl());
    const size_t before = service.logins();
    dns.registerAuthId(std::string(kAuthId), secret);
    return eventually([&] {
        return service.logins() > before && dns.initStatus() == status &&
               (status != 4 || QelHttpDnsCenterManager::shared().resolveUrl() == service.bestNode());
    });
}

}  // namespace qel::test
