#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

namespace qel::platform {

namespace {

// Read by every request, also on the platform thread while the process exits: never
// destroyed, so no static destructor pulls it from under a late request.
struct Identifier {
    qel::platform::Mutex mutex;
    std::optional<std::string> value QEL_GUARDED_BY(mutex);
};

Identifier& bundleIdentifier() {
    static Identifier* const identifier = new Identifier();
    return *identifier;
}

}  // namespace

std::optional<std::string> MainBundle::identifier() {
    Identifier& identifier = bundleIdentifier();
    qel::platform::MutexLock lock(identifier.mutex);
    return identifier.value;
}

void MainBundle::setIdentifier(std::optional<std::string> identifier) {
    Identifier& stored = bundleIdentifier();
    qel::platform::MutexLock lock(stored.mutex);
    stored.value = std::move(identifier);
}

}  // namespace qel::platform
