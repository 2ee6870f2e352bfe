// Whether the calling thread is the library's platform thread, the one that runs every network
// answer. Code that waits for an answer must not wait there: the answer could never run.
// Defined with the other platform choices in PlatformServices.cpp. Callable from any thread.
#pragma once

#include <functional>

namespace qel::platform {

/// True on the platform thread. Starts the platform thread when it has not started yet (as
/// the first lookup would); false when it cannot start.
bool isPlatformThread();

/// Runs `task` on the platform thread `seconds` from now (at once for 0); false, dropping
/// it, when the platform thread cannot start.
bool runOnPlatformThreadAfter(double seconds, std::function<void()> task);

}  // namespace qel::platform
