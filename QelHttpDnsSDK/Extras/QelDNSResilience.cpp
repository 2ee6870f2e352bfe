#include "QelHttpDnsSDK/Extras/QelDNSResilience.h"

#include "QelHttpDnsSDK/Extras/QelDNSResilientResolver.h"

void QelDNSResilience::enable(const QelDNSResilienceOptions& options) {
    QelDNSResilientResolver& resolver = QelDNSResilientResolver::shared();
    resolver.configure(options);
    QelDNSResolvePolicy::install(&resolver);
}

void QelDNSResilience::disable() {
    QelDNSResolvePolicy::install(nullptr);
    QelDNSResilienceOptions off;
    off.renewLogin = false;
    QelDNSResilientResolver::shared().configure(off);
}

bool QelDNSResilience::enabled() { return QelDNSResolvePolicy::installed() != nullptr; }
