#include "QelHttpDnsSDK/Extras/QelDNSTraceObserver.h"

#include <utility>

#include "QelHttpDnsSDK/Extras/QelDNSTraceHub.h"

void QelDNSTraceObserver::install(Observer observer) {
    QelDNSTraceHub::shared().install(std::move(observer));
}

void QelDNSTraceObserver::remove() { QelDNSTraceHub::shared().install(nullptr); }

bool QelDNSTraceObserver::isInstalled() { return QelDNSTraceHub::shared().active(); }
