// What the library's own extensions may ask of the public manager beyond its public
// operations: whether it dropped a lookup, and a wait for its first login reply. Internal.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"

struct QelDNSManagerExtensions {
    /// getIPByDomain on the shared manager; false when it dropped the lookup (made before the
    /// first login reply): the callback will never run and the manager keeps no copy of it.
    static bool getIPByDomain(const std::optional<std::string>& domain, int64_t type,
                              QelHttpDnsManager::ReturnBlock returnBlock) {
        return QelHttpDnsManager::shared().startLookup(domain, type, std::move(returnBlock));
    }

    /// Registers again with the credentials the last registerAuthId was given (kept even when
    /// it found no network), as the application would; false when it was never called.
    static bool registerAgain() {
        QelHttpDnsManager& manager = QelHttpDnsManager::shared();
        std::optional<std::string> id, secret;
        {
            std::lock_guard<std::mutex> lock(manager.mutex_);
            if (!manager.offeredAuthId_ && !manager.offeredAuthSecret_) return false;
            id = manager.offeredAuthId_;
            secret = manager.offeredAuthSecret_;
        }
        manager.registerAuthId(std::move(id), std::move(secret));
        return true;
    }

    /// The status description a refusal in the current status carries.
    static std::string currentStatusDesc() {
        return QelHttpDnsManager::shared().currentStatusDesc();
    }

    /// Waits until the status is no longer 0 (a login reply, or a registration refused at
    /// once), or until `deadline`; whether it happened.
    static bool waitForStatus(std::chrono::steady_clock::time_point deadline) {
        QelHttpDnsManager& manager = QelHttpDnsManager::shared();
        std::unique_lock<std::mutex> lock(manager.statusMutex_);
        return manager.statusSet_.wait_until(lock, deadline,
                                             [&] { return manager.initStatus() != 0; });
    }
};
