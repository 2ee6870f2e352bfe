// Whether the calling thread is the library's platform thread, the one that runs every network
// answer. Code that waits for an answer must not wait there: the answer could never run.
// Defined with the other platform choices in PlatformServices.cpp. Callable from any thread.
#pragma once

namespace qel::platform {

/// True on the platform thread. Starts the platform thread when it has not started yet (as
/// the first lookup would); false when it cannot start.
bool isPlatformThread();

}  // namespace qel::platform
