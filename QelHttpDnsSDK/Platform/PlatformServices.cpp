// The one place that picks the platform's implementations: the Linux ones, unless a
// ScopedPlatformOverride put a replacement in place. Each replaceable service is one atomic
// pointer, null for the default, so the clock and the store (read on every lookup) cost one
// load more than a direct call.
#include "QelHttpDnsSDK/Platform/PlatformServices.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "QelHttpDnsSDK/Platform/Mutex.h"
#include "QelHttpDnsSDK/Platform/ApplicationLifecycle.h"
#include "QelHttpDnsSDK/Platform/AssumedReachableSource.h"
#include "QelHttpDnsSDK/Platform/Clock.h"
#include "QelHttpDnsSDK/Platform/Console.h"
#include "QelHttpDnsSDK/Platform/HttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/CurlHttpSession.h"
#include "QelHttpDnsSDK/Platform/Linux/EventLoop.h"
#include "QelHttpDnsSDK/Platform/Linux/NetlinkReachabilitySource.h"
#include "QelHttpDnsSDK/Platform/Linux/NetlinkRouteMonitor.h"
#include "QelHttpDnsSDK/Platform/Linux/SqliteUserDefaults.h"
#include "QelHttpDnsSDK/Platform/Linux/StandardErrorLog.h"
#include "QelHttpDnsSDK/Platform/Linux/SystemClock.h"
#include "QelHttpDnsSDK/Platform/MainBundle.h"
#include "QelHttpDnsSDK/Platform/NotificationCenter.h"
#include "QelHttpDnsSDK/Platform/PlatformThread.h"
#include "QelHttpDnsSDK/Platform/ProcessFork.h"
#include "QelHttpDnsSDK/Platform/ReachabilitySourceFactory.h"
#include "QelHttpDnsSDK/Platform/UserDefaults.h"
#include "QelHttpDnsSDK/Platform/WriteBehindUserDefaults.h"

namespace qel::platform {

namespace {

std::atomic<const Clock*> clockOverride{nullptr};
std::atomic<HttpSession*> sessionOverride{nullptr};
std::atomic<ReachabilitySourceFactory*> reachabilityOverride{nullptr};
std::atomic<UserDefaults*> defaultsOverride{nullptr};

// Where the standard store goes; fixed when it opens.
qel::platform::Mutex standardMutex;
std::optional<std::string> standardChosenPath QEL_GUARDED_BY(standardMutex);
bool standardOpened QEL_GUARDED_BY(standardMutex) = false;

std::optional<std::string> standardPathLocked() QEL_REQUIRES(standardMutex) {
    if (standardChosenPath || standardOpened) return standardChosenPath;
    return SqliteUserDefaults::standardLocation(MainBundle::identifier());
}

// A forked child opens a connection of its own, with a writer thread of its own: one SQLite
// connection must never be used by two processes, and the parent's thread does not exist in
// the child. The parent's store is left as it is (closing it here could undo the parent's
// locks or journal; its mutexes may be held by a thread the child does not have).
PerProcess<WriteBehindUserDefaults>& standardStores() {
    static auto* const stores = new PerProcess<WriteBehindUserDefaults>();
    return *stores;
}

// Writes what the standard store holds in memory, when this process made one: at exit, and
// when the application enters the background (it may be killed there without notice).
void synchronizeStandardStore() {
    if (UserDefaults* store = defaultsOverride.load(std::memory_order_acquire)) {
        store->synchronize();
    } else if (WriteBehindUserDefaults* standard = standardStores().peek()) {
        standard->synchronize();
    }
}

// A fork waits for the batch under way, so that the child is not left with SQLite's own
// locks held by a writer thread it does not have.
thread_local WriteBehindUserDefaults* heldForFork = nullptr;

void holdStandardStoreForFork() {
    heldForFork = standardStores().peek();
    if (heldForFork) heldForFork->holdWrites();
}

void releaseStandardStoreAfterFork() {
    if (heldForFork) heldForFork->releaseWrites();
    heldForFork = nullptr;
}

// Once per program (a forked child inherits them): the flushes, and the fork handlers.
void installStandardStoreHooks() {
    static const bool installed = [] {
        std::atexit(synchronizeStandardStore);
        NotificationCenter::defaultCenter().addObserver(
            UIApplicationDidEnterBackgroundNotification,
            [](const Notification&) { synchronizeStandardStore(); });
        pthread_atfork(holdStandardStoreForFork, releaseStandardStoreAfterFork, nullptr);
        return true;
    }();
    (void)installed;
}

WriteBehindUserDefaults* openStandardStore() {
    installStandardStoreHooks();
    std::optional<std::string> path;
    {
        qel::platform::MutexLock lock(standardMutex);
        path = standardPathLocked();
        standardOpened = true;
        standardChosenPath = path;  // later changes of the environment no longer move it
    }
    if (!path) {
        Console::log(
            "QelHttpDnsSDK: user defaults: no home directory (XDG_DATA_HOME, HOME "
            "or a passwd entry) or no program name; the store is kept in memory");
        path = SqliteUserDefaults::kInMemory;
    }
    return new WriteBehindUserDefaults(std::make_unique<SqliteUserDefaults>(std::move(*path)));
}

UserDefaults& standardStore() {
    return standardStores().get(openStandardStore, [](WriteBehindUserDefaults&) {});
}

template <typename T>
std::function<void()> replace(std::atomic<T*>& slot, T* replacement) {
    T* previous = slot.exchange(replacement, std::memory_order_acq_rel);
    return [&slot, previous] { slot.store(previous, std::memory_order_release); };
}

}  // namespace

double Clock::currentTime() {
    if (const Clock* clock = clockOverride.load(std::memory_order_acquire)) return clock->now();
    return SystemClock::instance().now();
}

HttpSession& HttpSession::shared() {
    if (HttpSession* session = sessionOverride.load(std::memory_order_acquire)) return *session;
    return CurlHttpSession::shared();
}

UserDefaults& UserDefaults::standard() {
    if (UserDefaults* store = defaultsOverride.load(std::memory_order_acquire)) return *store;
    return standardStore();
}

std::vector<std::string> UserDefaults::keysAfter(const std::string& after, size_t limit) {
    std::vector<std::string> keys = allKeys();
    const auto first = std::upper_bound(keys.begin(), keys.end(), after);
    const auto last = first + static_cast<std::ptrdiff_t>(
                                  std::min(limit, static_cast<size_t>(keys.end() - first)));
    return std::vector<std::string>(first, last);
}

bool UserDefaults::setStandardPath(const std::string& path) {
    qel::platform::MutexLock lock(standardMutex);
    if (standardOpened) return false;
    standardChosenPath = path;
    return true;
}

std::optional<std::string> UserDefaults::standardPath() {
    qel::platform::MutexLock lock(standardMutex);
    return standardPathLocked();
}

// Monitoring needs the platform thread; when even that cannot start (no descriptor or thread
// left), the network counts as reachable rather than refusing every lookup, and the failure
// is said once.
template <typename Make>
std::unique_ptr<ReachabilitySource> netlinkOrAssumedReachable(Make make) {
    try {
        return make();
    } catch (const std::exception& failure) {
        static std::atomic<bool> said{false};
        if (!said.exchange(true)) {
            Console::log(std::string("reachability: network monitoring cannot start (") +
                         failure.what() + "); the network counts as reachable");
        }
        return std::make_unique<AssumedReachableSource>();
    }
}

std::unique_ptr<ReachabilitySource> ReachabilitySourceFactory::createWithName(
    const std::string& hostName) {
    if (auto* factory = reachabilityOverride.load(std::memory_order_acquire)) {
        return factory->makeWithName(hostName);
    }
    return netlinkOrAssumedReachable(
        [&] { return NetlinkReachabilitySource::createWithName(hostName); });
}

std::string ReachabilitySourceFactory::networkIdentity() {
    if (auto* factory = reachabilityOverride.load(std::memory_order_acquire)) {
        return factory->identifyNetwork();
    }
    try {
        return NetlinkRouteMonitor::shared().networkIdentity();
    } catch (const std::exception&) {
        return std::string();  // no monitoring: no name for the network
    }
}

std::unique_ptr<ReachabilitySource> ReachabilitySourceFactory::createWithAddress(
    const sockaddr* address) {
    if (auto* factory = reachabilityOverride.load(std::memory_order_acquire)) {
        return factory->makeWithAddress(address);
    }
    return netlinkOrAssumedReachable([&]() -> std::unique_ptr<ReachabilitySource> {
        return NetlinkReachabilitySource::createWithAddress(address);
    });
}

void Console::writeToSystemLog(std::string_view message) { StandardErrorLog::write(message); }

ScopedPlatformOverride::~ScopedPlatformOverride() {
    for (auto restore = restores_.rbegin(); restore != restores_.rend(); ++restore) (*restore)();
}

ScopedPlatformOverride& ScopedPlatformOverride::clock(const Clock& clock) {
    restores_.push_back(replace(clockOverride, &clock));
    return *this;
}

ScopedPlatformOverride& ScopedPlatformOverride::httpSession(HttpSession& session) {
    restores_.push_back(replace(sessionOverride, &session));
    return *this;
}

ScopedPlatformOverride& ScopedPlatformOverride::reachabilitySources(
    ReachabilitySourceFactory& factory) {
    restores_.push_back(replace(reachabilityOverride, &factory));
    return *this;
}

ScopedPlatformOverride& ScopedPlatformOverride::userDefaults(UserDefaults& store) {
    restores_.push_back(replace(defaultsOverride, &store));
    return *this;
}

bool runOnPlatformThreadAfter(double seconds, std::function<void()> task) {
    try {
        EventLoop& loop = EventLoop::shared();
        loop.post([&loop, seconds, task = std::move(task)]() mutable {
            loop.runAfter(seconds, std::move(task));
        });
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool isPlatformThread() {
    try {
        return EventLoop::shared().isLoopThread();
    } catch (const std::exception&) {
        return false;  // no loop could start, so nobody runs on it
    }
}

}  // namespace qel::platform
