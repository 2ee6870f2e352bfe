#include "QelHttpDnsSDK/Extras/QelDNSBlockingLookup.h"

#include <atomic>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "QelHttpDnsSDK/Core/QelDNSManagerExtensions.h"
#include "QelHttpDnsSDK/Other/QelDNSErrorCodes.h"
#include "QelHttpDnsSDK/Other/QelDNSUntil.h"
#include "QelHttpDnsSDK/Platform/PlatformThread.h"

namespace codes = QelDNSErrorCodes;

namespace {

using SteadyClock = std::chrono::steady_clock;
using Result = QelDNSBlockingLookup::Result;

// Longer waits are taken as "no limit" rather than overflowing the clock.
constexpr double kLongestTimeout = 10.0 * 365 * 24 * 3600;

// One lookup's answer, shared by the waiting caller and the callback, which may run after the
// caller gave up: whichever lets go last frees it.
struct Pending {
    const std::thread::id caller = std::this_thread::get_id();
    std::mutex mutex;
    std::condition_variable answered;
    Result result;  // written once, before `done`
    std::atomic<bool> done{false};
};

Result failure(int64_t code, const char* message) {
    return Result{QelDNSUntil::errorCode(code, message), {}};
}

SteadyClock::time_point deadlineAfter(double timeout) {
    if (!(timeout > 0)) return SteadyClock::now();  // NaN too
    const double seconds = std::min(timeout, kLongestTimeout);
    return SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                    std::chrono::duration<double>(seconds));
}

QelHttpDnsManager::ReturnBlock answerInto(const std::shared_ptr<Pending>& pending) {
    return
        [pending](std::optional<QelDNSError> error, std::optional<std::vector<std::string>> ips) {
            // On the caller's own thread the answer comes before the lookup returns (a cache hit
            // or a refusal), while nothing else can touch the state: no lock, nobody to wake.
            if (std::this_thread::get_id() == pending->caller) {
                pending->result.error = std::move(error);
                if (ips) pending->result.ips = std::move(*ips);
                pending->done.store(true, std::memory_order_relaxed);
                return;
            }
            {
                std::lock_guard<std::mutex> lock(pending->mutex);
                if (pending->done.load(std::memory_order_relaxed)) return;
                pending->result.error = std::move(error);
                if (ips) pending->result.ips = std::move(*ips);
                pending->done.store(true, std::memory_order_release);
            }
            pending->answered.notify_one();
        };
}

// Waits for the answer of a lookup the manager has taken on.
Result waitFor(Pending& pending, SteadyClock::time_point deadline) {
    std::unique_lock<std::mutex> lock(pending.mutex);
    if (!pending.answered.wait_until(
            lock, deadline, [&] { return pending.done.load(std::memory_order_relaxed); })) {
        // Marked answered, so that a late answer leaves the result alone.
        pending.done.store(true, std::memory_order_relaxed);
        return failure(codes::kTimedOut, codes::kTimedOutMessage);
    }
    return std::move(pending.result);
}

}  // namespace

QelDNSBlockingLookup::Result QelDNSBlockingLookup::resolve(const std::optional<std::string>& domain,
                                                           int64_t type, double timeout) {
    if (qel::platform::isPlatformThread()) {
        return failure(codes::kCalledOnPlatformThread, codes::kCalledOnPlatformThreadMessage);
    }
    std::optional<SteadyClock::time_point> deadline;  // read the clock only when a wait is due
    for (;;) {
        auto pending = std::make_shared<Pending>();
        const bool taken =
            QelDNSManagerExtensions::getIPByDomain(domain, type, answerInto(pending));
        // A cache hit or a refusal has already answered on this thread: no wait.
        if (pending->done.load(std::memory_order_acquire)) return std::move(pending->result);
        if (!deadline) deadline = deadlineAfter(timeout);
        if (taken) return waitFor(*pending, *deadline);
        // Dropped, as the manager does before its first login reply: ask again once it is in.
        if (!QelDNSManagerExtensions::waitForStatus(*deadline)) {
            return failure(codes::kTimedOut, codes::kTimedOutMessage);
        }
    }
}
