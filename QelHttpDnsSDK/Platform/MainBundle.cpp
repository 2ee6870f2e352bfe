#include "QelHttpDnsSDK/Platform/MainBundle.h"

#include <mutex>

namespace qel::platform {

namespace {

// Read by every request, also on the platform thread while the process exits: never
// destroyed, so no static destructor pulls it from under a late request.
struct Identifier {
    std::mutex mutex;
    std::optional<std::string> value;  // guarded by mutex
};

Identifier& bundleIdentifier() {
    static Identifier* const identifier = new Identifier();
    return *identifier;
}

}  // namespace

std::optional<std::string> MainBundle::identifier() {
    Identifier& identifier = bundleIdentifier();
    std::lock_guard<std::mutex> lock(identifier.mutex);
    return identifier.value;
}

void MainBundle::setIdentifier(std::optional<std::string> identifier) {
    Identifier& stored = bundleIdentifier();
    std::lock_guard<std::mutex> lock(stored.mutex);
    stored.value = std::move(identifier);
}

}  // namespace qel::platform
