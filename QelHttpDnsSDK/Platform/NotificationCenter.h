// Named notifications with block observers: the stand-in for the platform's default
// notification center. Delivery is synchronous, on the posting thread, in registration order.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Notification.h"

namespace qel::platform {

class NotificationCenter {
public:
    using Block = std::function<void(const Notification& notification)>;
    /// Identifies one registration; 0 is never a valid token.
    using ObserverToken = uint64_t;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// The process-wide center; made on first use and never destroyed.
    static NotificationCenter& defaultCenter();

    /// Registers `block` for every notification called `name`, from any sender.
    /// Callable from any thread; returns the token that removes it.
    ObserverToken addObserver(const std::string& name, Block block);

    /// Removes one registration. A post already running on another thread may still call the
    /// block once; a post that starts after this returns does not. Unknown tokens are ignored.
    void removeObserver(ObserverToken token);

    /// Calls every block registered for `name`, synchronously on the calling thread, outside
    /// the center's lock (so a block may itself post, add or remove observers).
    void post(const std::string& name, std::any object = {});

private:
    struct Observer {
        ObserverToken token;
        std::string name;
        std::shared_ptr<const Block> block;
    };

    qel::platform::Mutex mutex_;
    std::vector<Observer> observers_ QEL_GUARDED_BY(mutex_);
    ObserverToken nextToken_ QEL_GUARDED_BY(mutex_) = 1;
};

}  // namespace qel::platform
