#include "QelHttpDnsSDK/Platform/MainBundle.h"

#include <mutex>

namespace qel::platform {

namespace {
std::mutex identifierMutex;
std::optional<std::string> bundleIdentifier;  // guarded by identifierMutex
}  // namespace

std::optional<std::string> MainBundle::identifier() {
    std::lock_guard<std::mutex> lock(identifierMutex);
    return bundleIdentifier;
}

void MainBundle::setIdentifier(std::optional<std::string> identifier) {
    std::lock_guard<std::mutex> lock(identifierMutex);
    bundleIdentifier = std::move(identifier);
}

}  // namespace qel::platform
