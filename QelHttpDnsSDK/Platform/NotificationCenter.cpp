#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/Mutex.h"

#include <algorithm>
#include <memory>

namespace qel::platform {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter();
    return *center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(const std::string& name,
                                                                  Block block) {
    auto shared = std::make_shared<const Block>(std::move(block));
    qel::platform::MutexLock lock(mutex_);
    const ObserverToken token = nextToken_++;
    observers_.push_back(Observer{token, name, std::move(shared)});
    return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    qel::platform::MutexLock lock(mutex_);
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                    [token](const Observer& o) { return o.token == token; }),
                     observers_.end());
}

void NotificationCenter::post(const std::string& name, std::any object) {
    std::vector<std::shared_ptr<const Block>> matching;
    {
        qel::platform::MutexLock lock(mutex_);
        for (const Observer& observer : observers_) {
            if (observer.name == name) matching.push_back(observer.block);
        }
    }
    const Notification notification{name, std::move(object)};
    for (const auto& block : matching) {
        if (*block) (*block)(notification);
    }
}

}  // namespace qel::platform
