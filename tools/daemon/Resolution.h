// One request being resolved: begun by a resolver, it may be ready at once (a cached name) or
// later (a lookup on the network). The server answers a ready one on the thread that accepted
// the request, and hands any other to a worker that waits for it.
//
// Threads: one thread at a time calls `ready` and `answer`; the resolver completes the request
// on any thread.
#pragma once

#include "ResolveMessage.h"

namespace qel::daemon {

class Resolution {
public:
    virtual ~Resolution() = default;
    /// True when `answer` would return without waiting.
    virtual bool ready() = 0;
    /// The answer, waiting for it until the request's deadline at most.
    virtual ResolveAnswer answer() = 0;
};

}  // namespace qel::daemon
