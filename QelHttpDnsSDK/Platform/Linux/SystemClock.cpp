#include "QelHttpDnsSDK/Platform/Linux/SystemClock.h"

#include <chrono>

namespace qel::platform {

double SystemClock::now() const {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

const SystemClock& SystemClock::instance() {
    static const SystemClock* clock = new SystemClock();
    return *clock;
}

}  // namespace qel::platform
