#include "QelHttpDnsSDK/Platform/TransportSettings.h"

#include <utility>

#include "QelHttpDnsSDK/Platform/Mutex.h"

namespace qel::platform {

namespace {

struct Shared {
    Mutex mutex;
    std::shared_ptr<const TransportSettings::Values> values QEL_GUARDED_BY(mutex) =
        std::make_shared<const TransportSettings::Values>();
};

Shared& shared() {
    static Shared* const instance = new Shared();  // never destroyed: read until exit
    return *instance;
}

template <typename Change>
void update(Change change) {
    Shared& state = shared();
    MutexLock lock(state.mutex);
    auto values = std::make_shared<TransportSettings::Values>(*state.values);
    change(*values);
    state.values = std::move(values);
}

}  // namespace

std::shared_ptr<const TransportSettings::Values> TransportSettings::current() {
    Shared& state = shared();
    MutexLock lock(state.mutex);
    return state.values;
}

void TransportSettings::setProxy(std::optional<std::string> proxy) {
    update([&proxy](Values& values) { values.proxy = std::move(proxy); });
}

void TransportSettings::setCaFile(std::string caFile) {
    update([&caFile](Values& values) { values.caFile = std::move(caFile); });
}

void TransportSettings::setPinnedPublicKey(std::string pinnedPublicKey) {
    update([&pinnedPublicKey](Values& values) {
        values.pinnedPublicKey = std::move(pinnedPublicKey);
    });
}

}  // namespace qel::platform
