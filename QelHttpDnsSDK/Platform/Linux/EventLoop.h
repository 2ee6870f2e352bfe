// The platform thread: one thread running an epoll loop, the stand-in for the run loop and the
// completion queue of the original platform. The shared HTTP session and the reachability
// reports both live on it, so every completion and every change report runs here, serially.
//
// Threads: `post` may be called from any thread. Watches and timers are loop-thread state:
// call `watchFd`, `updateFd`, `unwatchFd`, `runAfter` and `cancelTimer` on the loop thread
// (from a posted task or a handler). Handlers and tasks run on the loop thread, one at a time.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/ProcessFork.h"

namespace qel::platform {

class EventLoop {
public:
    using Task = std::function<void()>;
    /// Receives the epoll event bits that fired (EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP).
    using FdHandler = std::function<void(uint32_t events)>;
    using WatchId = uint64_t;
    using TimerId = uint64_t;

    /// Starts the loop thread. A test may make its own loop; the library uses `shared()`.
    /// Throws std::system_error when no descriptor or thread is left, holding nothing then.
    EventLoop();
    /// Stops and joins the loop thread; tasks still queued are dropped.
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// The process-wide platform loop, started on first use and kept for the life of the
    /// process (never destroyed, so no completion races a static destructor at exit). A
    /// forked child starts its own on first use (see ProcessFork.h). Throws
    /// what the constructor throws, and the next call tries again; the library's callers turn
    /// that into a failed request or a monitor that has not started, never into an exception
    /// for the application.
    static EventLoop& shared();

    /// Queues `task` to run on the loop thread, after the tasks queued before it. Never blocks
    /// on the loop's work.
    void post(Task task);

    /// True on the loop's own thread.
    bool isLoopThread() const;

    /// Watches `fd` for `events` (EPOLLIN / EPOLLOUT); the handler runs on each readiness.
    /// Returns 0 when the kernel refuses the descriptor.
    WatchId watchFd(int fd, uint32_t events, FdHandler handler);
    /// Changes the events watched; returns false for an unknown watch or a refused change.
    bool updateFd(WatchId id, uint32_t events);
    /// Stops watching; the handler is not called again, even for events already collected.
    void unwatchFd(WatchId id);

    /// Runs `task` once, `seconds` from now (monotonic clock). Returns the id that cancels it.
    TimerId runAfter(double seconds, Task task);
    /// Cancels a timer that has not fired; unknown or fired ids are ignored.
    void cancelTimer(TimerId id);

    /// Around a fork, from the forking thread: parks the loop thread between two tasks (so
    /// the child copies no half-done work; at most a second's wait for the running task),
    /// then lets it go on in the parent.
    void parkForFork();
    void releaseAfterFork();

private:
    using TimePoint = std::chrono::steady_clock::time_point;
    struct Watch {
        int fd;
        uint32_t events;
        FdHandler handler;
    };

    void run();
    void leaveBehind();  // in a forked child, for the parent's loop
    bool epollIsOurs() const;
    void replaceEpoll(int error);
    int nextWaitMillis() const;
    void dispatchFdEvents(const epoll_event* events, int count);
    void runDueTimers();
    void runPostedTasks();
    void wake();
    static void runGuarded(const Task& task);

    int epollFd_ = -1;
    int wakeFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::atomic<std::thread::id> loopThreadId_{};  // set by the loop thread itself
    const uint64_t generation_ = ProcessFork::generation();

    enum class Park { None, Asked, Parked };
    std::mutex parkMutex_;
    std::condition_variable parkChanged_;
    Park park_ = Park::None;  // guarded by parkMutex_ (a std::mutex: waited on)

    qel::platform::Mutex queueMutex_;
    std::deque<Task> queue_ QEL_GUARDED_BY(queueMutex_);

    // Loop-thread state.
    std::unordered_map<WatchId, Watch> watches_;
    std::map<std::pair<TimePoint, TimerId>, Task> timers_;
    std::unordered_map<TimerId, TimePoint> timerDeadlines_;
    uint64_t nextId_ = 1;

    std::thread thread_;
};

}  // namespace qel::platform
