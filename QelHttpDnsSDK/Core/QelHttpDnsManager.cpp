#include "QelHttpDnsSDK/Core/QelHttpDnsManager.h"

QelHttpDnsManager& QelHttpDnsManager::shared() {
    static QelHttpDnsManager* manager = new QelHttpDnsManager();
    return *manager;
}
