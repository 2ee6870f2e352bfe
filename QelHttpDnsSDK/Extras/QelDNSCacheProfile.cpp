#include "QelHttpDnsSDK/Extras/QelDNSCacheProfile.h"

#include "QelHttpDnsSDK/Extras/QelDNSStoreSweeper.h"
#include "QelHttpDnsSDK/Manager/QelDNSCacheManager.h"
#include "QelHttpDnsSDK/Manager/QelHttpDnsCenterManager.h"

void QelDNSCacheProfile::enable(const QelDNSCacheOptions& options) {
    QelDNSCacheManager::shared().setMaxLists(options.maxNames);
    QelHttpDnsCenterManager& center = QelHttpDnsCenterManager::shared();
    center.setMaxStale(options.maxStale > 0 ? options.maxStale : 0);
    center.setAnswersPerNetwork(options.perNetwork);
    QelDNSStoreSweeper::shared().start(options.maxAge > 0 ? options.maxAge : 0);
}

void QelDNSCacheProfile::disable() { enable(QelDNSCacheOptions()); }
