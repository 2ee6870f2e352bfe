// Names of the application life-cycle notifications. Linux has no system-wide notion of an
// application moving to the background, so the application posts them itself on the default
// notification center when it stops and resumes being active (for example when a service is
// paused and resumed, on SIGTSTP / SIGCONT, or when a desktop session locks and unlocks):
//
//   using namespace qel::platform;
//   NotificationCenter::defaultCenter().post(UIApplicationDidEnterBackgroundNotification);
//   ...
//   NotificationCenter::defaultCenter().post(UIApplicationWillEnterForegroundNotification);
//
// Observers run synchronously on the posting thread, so post from an ordinary thread (not from
// a signal handler). The network status manager stops its change reports while in the
// background and starts them again on return.
#pragma once

namespace qel::platform {

/// "UIApplicationDidEnterBackgroundNotification"
extern const char UIApplicationDidEnterBackgroundNotification[];
/// "UIApplicationWillEnterForegroundNotification"
extern const char UIApplicationWillEnterForegroundNotification[];

}  // namespace qel::platform
