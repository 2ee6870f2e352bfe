// A mutex whose lock ownership the compiler checks. Built with clang and -Wthread-safety (the
// CI's fuzz build turns it on), every field marked QEL_GUARDED_BY(m) may be touched only with
// m held, and every function marked QEL_REQUIRES(m) only called with it held; other compilers
// see a plain std::mutex. Condition variables keep std::mutex: the analysis cannot follow a
// lock through a wait.
#pragma once

#include <mutex>

#if defined(__clang__)
#define QEL_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define QEL_THREAD_ANNOTATION(attribute)
#endif

#define QEL_CAPABILITY(name) QEL_THREAD_ANNOTATION(capability(name))
#define QEL_SCOPED_CAPABILITY QEL_THREAD_ANNOTATION(scoped_lockable)
#define QEL_GUARDED_BY(mutex) QEL_THREAD_ANNOTATION(guarded_by(mutex))
#define QEL_PT_GUARDED_BY(mutex) QEL_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define QEL_REQUIRES(...) QEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QEL_ACQUIRE(...) QEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QEL_RELEASE(...) QEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QEL_TRY_ACQUIRE(...) QEL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QEL_EXCLUDES(...) QEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QEL_NO_THREAD_SAFETY_ANALYSIS QEL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace qel::platform {

class QEL_CAPABILITY("mutex") Mutex {
public:
    void lock() QEL_ACQUIRE() { mutex_.lock(); }
    void unlock() QEL_RELEASE() { mutex_.unlock(); }
    /// Takes the mutex only when nobody holds it; whether it did.
    bool tryLock() QEL_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    std::mutex mutex_;
};

/// Holds `mutex` for its scope, as std::lock_guard does; `unlock` lets it go early.
class QEL_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) QEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() QEL_RELEASE() {
        if (held_) mutex_.unlock();
    }
    void unlock() QEL_RELEASE() {
        held_ = false;
        mutex_.unlock();
    }

    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
    bool held_ = true;
};

}  // namespace qel::platform
