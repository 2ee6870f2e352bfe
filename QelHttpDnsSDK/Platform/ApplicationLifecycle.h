// Names of the application life-cycle notifications. Linux has no system-wide notion of an
// application moving to the background, so the application says when it stops and resumes
// being active (for example when a service is paused and resumed, on SIGTSTP / SIGCONT, or when
// a desktop session locks and unlocks) with QelDNSApplication::didEnterBackground and
// willEnterForeground, which post these on the default notification center.
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
