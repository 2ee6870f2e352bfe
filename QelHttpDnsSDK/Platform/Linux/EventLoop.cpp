#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/ProcessFork.h"

namespace qel::platform {

namespace {
constexpr uint64_t kWakeWatchId = 0;  // epoll data of the wake-up descriptor
constexpr int kMaxEventsPerWait = 64;
}  // namespace

EventLoop::EventLoop() {
    // A loop that fails to start gives back what it took, so that starting it again later
    // (when descriptors are free again) finds them.
    auto closeAll = [this] {
        if (wakeFd_ >= 0) ::close(wakeFd_);
        if (epollFd_ >= 0) ::close(epollFd_);
    };
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (epollFd_ < 0 || wakeFd_ < 0) {
        const int error = errno;
        closeAll();
        throw std::system_error(error, std::generic_category(), "platform event loop");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeWatchId;
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
    try {
        thread_ = std::thread([this] { run(); });
    } catch (...) {
        closeAll();
        throw;
    }
}

EventLoop::~EventLoop() {
    stopping_.store(true, std::memory_order_release);
    wake();
    if (thread_.joinable()) {
        if (isLoopThread()) {
            thread_.detach();  // destroyed from its own task: the loop exits after it returns
        } else {
            thread_.join();
        }
    }
    ::close(wakeFd_);
    ::close(epollFd_);
}

namespace {

PerProcess<EventLoop>& sharedLoop() {
    static auto* const loop = new PerProcess<EventLoop>();
    return *loop;
}

void parkSharedLoop() {
    if (EventLoop* loop = sharedLoop().peek()) loop->parkForFork();
}

void releaseSharedLoop() {
    if (EventLoop* loop = sharedLoop().peek()) loop->releaseAfterFork();
}

}  // namespace

EventLoop& EventLoop::shared() {
    return sharedLoop().get(
        [] {
            auto* loop = new EventLoop();
            ProcessFork::setParentHooks(&parkSharedLoop, &releaseSharedLoop);
            return loop;
        },
        [](EventLoop& parents) { parents.leaveBehind(); });
}

void EventLoop::parkForFork() {
    if (isLoopThread()) return;  // forked from a task: the loop is where that task is
    {
        std::lock_guard<std::mutex> lock(parkMutex_);
        park_ = Park::Asked;
    }
    post([this] {
        std::unique_lock<std::mutex> lock(parkMutex_);
        if (park_ != Park::Asked) return;  // too late: the fork went ahead without it
        park_ = Park::Parked;
        parkChanged_.notify_all();
        parkChanged_.wait(lock, [this] { return park_ != Park::Parked; });
    });
    // A task that does not end (an application callback waiting for the forking thread) must
    // not hang the fork: after a second it goes ahead with the loop where it is.
    std::unique_lock<std::mutex> lock(parkMutex_);
    parkChanged_.wait_for(lock, std::chrono::seconds(1), [this] { return park_ == Park::Parked; });
}

void EventLoop::releaseAfterFork() {
    std::lock_guard<std::mutex> lock(parkMutex_);
    park_ = Park::None;
    parkChanged_.notify_all();
}

void EventLoop::leaveBehind() {
    // The parent's loop thread does not exist here; its descriptors are the parent's too.
    ::close(wakeFd_);
    ::close(epollFd_);
}

void EventLoop::post(Task task) {
    bool wasEmpty;
    {
        qel::platform::MutexLock lock(queueMutex_);
        wasEmpty = queue_.empty();
        queue_.push_back(std::move(task));
    }
    // A non-empty queue has not been taken by the loop yet, and whoever made it non-empty
    // woke the loop: a burst of posts costs one wake-up.
    if (wasEmpty) wake();
}

bool EventLoop::isLoopThread() const {
    return std::this_thread::get_id() == loopThreadId_.load(std::memory_order_acquire);
}

EventLoop::WatchId EventLoop::watchFd(int fd, uint32_t events, FdHandler handler) {
    const WatchId id = nextId_++;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) {
        if (epollIsOurs()) return 0;
        replaceEpoll(errno);
        if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
    }
    watches_.emplace(id, Watch{fd, events, std::move(handler)});
    return id;
}

bool EventLoop::updateFd(WatchId id, uint32_t events) {
    auto it = watches_.find(id);
    if (it == watches_.end()) return false;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, it->second.fd, &event) != 0) {
        if (epollIsOurs()) return false;
        replaceEpoll(errno);  // takes the watch over with its old events
        if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, it->second.fd, &event) != 0) return false;
    }
    it->second.events = events;
    return true;
}

void EventLoop::unwatchFd(WatchId id) {
    auto it = watches_.find(id);
    if (it == watches_.end()) return;
    // The descriptor may already be closed by its owner; the kernel then dropped it itself.
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, it->second.fd, nullptr);
    watches_.erase(it);
}

EventLoop::TimerId EventLoop::runAfter(double seconds, Task task) {
    const TimerId id = nextId_++;
    const auto delay = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(std::isfinite(seconds) && seconds > 0 ? seconds : 0.0));
    const TimePoint deadline = std::chrono::steady_clock::now() + delay;
    timers_.emplace(std::make_pair(deadline, id), std::move(task));
    timerDeadlines_.emplace(id, deadline);
    return id;
}

void EventLoop::cancelTimer(TimerId id) {
    auto it = timerDeadlines_.find(id);
    if (it == timerDeadlines_.end()) return;
    timers_.erase(std::make_pair(it->second, id));
    timerDeadlines_.erase(it);
}

void EventLoop::wake() {
    const uint64_t one = 1;
    // EAGAIN means the counter is already non-zero: the loop is woken anyway.
    [[maybe_unused]] ssize_t ignored = ::write(wakeFd_, &one, sizeof one);
}

void EventLoop::run() {
    loopThreadId_.store(std::this_thread::get_id(), std::memory_order_release);
    epoll_event events[kMaxEventsPerWait];
    // A fork made from one of this loop's tasks copies this thread into the child, where the
    // loop belongs to the parent: that copy leaves it.
    while (!stopping_.load(std::memory_order_acquire) && generation_ == ProcessFork::generation()) {
        const int count = ::epoll_wait(epollFd_, events, kMaxEventsPerWait, nextWaitMillis());
        if (count < 0 && errno != EINTR) {
            replaceEpoll(errno);
            continue;
        }
        if (count > 0) dispatchFdEvents(events, count);
        runDueTimers();
        runPostedTasks();
    }
}

// A harmless change of our own watch: it fails only when the descriptor is no longer our epoll
// instance.
bool EventLoop::epollIsOurs() const {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeWatchId;
    return ::epoll_ctl(epollFd_, EPOLL_CTL_MOD, wakeFd_, &event) == 0;
}

// epoll_wait fails only when the descriptor is no longer our epoll instance (someone closed
// it, and the number may now be another file, so it is not closed here). A new instance takes
// every watch over; a watch the kernel refuses now (its descriptor gone too) hears EPOLLERR
// from the next turn, so its owner ends what waited on it. Without this the thread would end,
// and every later answer be lost.
void EventLoop::replaceEpoll(int error) {
    const int fresh = ::epoll_create1(EPOLL_CLOEXEC);
    if (fresh < 0) {
        Console::log("platform event loop: the epoll descriptor is lost (error " +
                     std::to_string(error) + "), and no new epoll instance can be made: " +
                     std::to_string(errno) + "; trying again in 100 ms");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return;
    }
    Console::log("platform event loop: the epoll descriptor is lost (error " +
                 std::to_string(error) + "); watching " + std::to_string(watches_.size()) +
                 " descriptors on a new epoll instance");
    epollFd_ = fresh;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeWatchId;
    ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, wakeFd_, &event);
    std::vector<WatchId> refused;
    for (const auto& [id, watch] : watches_) {
        event.events = watch.events;
        event.data.u64 = id;
        if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, watch.fd, &event) != 0) refused.push_back(id);
    }
    for (const WatchId id : refused) {
        runAfter(0, [this, id] {
            auto it = watches_.find(id);
            if (it == watches_.end()) return;  // removed meanwhile
            FdHandler handler = it->second.handler;
            handler(EPOLLERR);
        });
    }
}

int EventLoop::nextWaitMillis() const {
    if (timers_.empty()) return -1;
    const auto left = timers_.begin()->first.first - std::chrono::steady_clock::now();
    if (left <= std::chrono::steady_clock::duration::zero()) return 0;
    // Round up so a timer is never run early and the loop never spins on a sub-millisecond wait.
    const auto millis = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return millis > 1000 * 60 * 60 ? 1000 * 60 * 60 : static_cast<int>(millis);
}

void EventLoop::dispatchFdEvents(const epoll_event* events, int count) {
    for (int i = 0; i < count; ++i) {
        const WatchId id = events[i].data.u64;
        if (id == kWakeWatchId) {
            uint64_t drained;
            [[maybe_unused]] ssize_t ignored = ::read(wakeFd_, &drained, sizeof drained);
            continue;
        }
        auto it = watches_.find(id);
        if (it == watches_.end()) continue;      // removed by an earlier handler of this batch
        FdHandler handler = it->second.handler;  // a handler may unwatch itself
        runGuarded([&handler, &events, i] { handler(events[i].events); });
    }
}

void EventLoop::runDueTimers() {
    const TimePoint now = std::chrono::steady_clock::now();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        auto first = timers_.begin();
        Task task = std::move(first->second);
        timerDeadlines_.erase(first->first.second);
        timers_.erase(first);
        runGuarded(task);
    }
}

void EventLoop::runPostedTasks() {
    std::deque<Task> ready;
    {
        qel::platform::MutexLock lock(queueMutex_);
        ready.swap(queue_);
    }
    for (const Task& task : ready) runGuarded(task);
}

void EventLoop::runGuarded(const Task& task) {
    // An exception escaping an application callback must not take the platform thread (and
    // with it every later completion) down; it is reported and the loop goes on.
    try {
        if (task) task();
    } catch (const std::exception& error) {
        Console::log(std::string("platform event loop: a task threw: ") + error.what());
    } catch (...) {
        Console::log("platform event loop: a task threw a non-standard exception");
    }
}

}  // namespace qel::platform
