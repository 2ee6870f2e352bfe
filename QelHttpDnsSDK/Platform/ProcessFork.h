// What fork() means to the platform's shared objects. A child process gets a copy of their
// memory, but none of their threads, and shares their descriptors (epoll, sockets, the store's
// file) with the parent. So each shared object is a PerProcess instance: made on first use,
// and made again on its first use in a forked child, after the parent's copy is left behind
// (its descriptors closed in the child where that is safe, never used again).
//
// While a fork runs, the platform thread is parked between two tasks (see EventLoop), so the
// child's copy of every shared object is in a consistent state.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace qel::platform {

class ProcessFork {
public:
    ProcessFork() = delete;

    /// 0 in a process that no fork made since the library's first use; one more in each child.
    /// One atomic load: lookups read it.
    static uint64_t generation() { return forks_.load(std::memory_order_acquire); }

    /// Installs the fork handlers, once; a PerProcess instance does it when it is first made.
    static void watch();

    /// Runs `beforeFork` in the forking thread just before a fork, and `afterForkInParent` in
    /// the parent just after it (the platform thread's parking). One pair; a later call
    /// replaces it.
    static void setParentHooks(void (*beforeFork)(), void (*afterForkInParent)());

private:
    static std::atomic<uint64_t> forks_;
};

/// The one T of this process: see above. Thread-safe; the fast path is two atomic loads.
template <typename T>
class PerProcess {
public:
    /// This process's instance, made with `make()` (which may throw: the next call tries
    /// again) on the first use here. In a forked child the parent's instance is first handed
    /// to `leaveBehind`, which must neither lock nor wait for the parent's threads.
    template <typename Make, typename LeaveBehind>
    T& get(Make make, LeaveBehind leaveBehind) {
        const uint64_t now = ProcessFork::generation();
        const Made* made = made_.load(std::memory_order_acquire);
        if (made && made->generation == now && made->instance) return *made->instance;
        std::lock_guard<std::mutex> lock(making_);
        made = made_.load(std::memory_order_acquire);
        if (made && made->generation == now && made->instance) return *made->instance;
        ProcessFork::watch();
        if (made && made->generation != now && made->instance) {
            leaveBehind(*made->instance);
            made_.store(new Made{nullptr, now}, std::memory_order_release);  // left behind once
        }
        T* fresh = make();
        made_.store(new Made{fresh, now}, std::memory_order_release);
        return *fresh;
    }

    /// This process's instance if one was made here, else nullptr. Never makes one.
    T* peek() const {
        const Made* made = made_.load(std::memory_order_acquire);
        return made && made->generation == ProcessFork::generation() ? made->instance : nullptr;
    }

private:
    // Never freed: a reader may still hold the previous one. One per fork or failed start.
    struct Made {
        T* instance;
        uint64_t generation;
    };
    std::atomic<const Made*> made_{nullptr};
    std::mutex making_;
};

}  // namespace qel::platform
