#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"

namespace qel::platform {

const char UIApplicationDidEnterBackgroundNotification[] =
    "UIApplicationDidEnterBackgroundNotification";
const char UIApplicationWillEnterForegroundNotification[] =
    "UIApplicationWillEnterForegroundNotification";

}  // namespace qel::platform
