#include "QelHttpDnsSDK/Other/QelDNSLookupEvents.h"

namespace QelDNSLookupEvents {

std::atomic<QelDNSLookupListener*> detail::listener{nullptr};

void setListener(QelDNSLookupListener* listener) {
    detail::listener.store(listener, std::memory_order_release);
}

}  // namespace QelDNSLookupEvents
